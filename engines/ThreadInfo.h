#ifndef KJP_THREADINFO_H
#define KJP_THREADINFO_H

#include <jni.h>
#include <jvmti.h>

#include <atomic>

#include "agent/JVMTI_Agent.h"
#include "agent/KVector.h"
#include "db/DB.h"
#include "db/IndexPool.h"
#include "engines/CalleeCache.h"
#include "engines/ThreadFrameIndex.h"

// What the tracing probes keep of one open traced call, beside its entry time. It lets the exit
// close the call without looking anything up.
//
// The row pointers stay valid: rows live in chunks that never move, a live thread's (thread,
// frame) pairs keep their TFI, and the one thing that drops CPU rows, clearing the CPU data,
// empties every live thread's stack of these first (clearCPUAndJ2EEInfo).
struct TracedCall {
  jint myFrame;
  // myCurrentFrameIndex once the call has ended.
  jint myParentFrame;
  jint myMethodIndex;
  bool myIsWallTime;
  // The thread's row for myFrame; null for calls found by a stack rebuild, whose entries were
  // missed, until their exit or a capture gives them a row.
  CPUProfilingRecord* myRecord;
};

// Per-thread state of every engine, one per live Java thread plus two pseudo-threads. A thread
// finds its own through JVMTI thread-local storage (getThreadInfoJVMTI), which needs no lock and
// no search. Everything it records lives in the database under its running number or its TFI
// slot; the object itself holds only the state of calls in progress.
//
// Fields other than the stacks are also read by the sampler on another thread, under ourLock.
// Aligned to a cache line, so that two threads' probes never write to the same line.
class alignas(64) ThreadInfo {
 public:
  // Takes a thread row, a TFI slot and a running number, and fills the thread's row. A null
  // name or group becomes "". Whether the thread is exempt from profiling is decided on the
  // name as given.
  ThreadInfo(const char* name, const char* groupName, jlong threadID);

  ThreadInfo(const ThreadInfo&) = delete;
  ThreadInfo& operator=(const ThreadInfo&) = delete;

  // Reads the thread's name again from the JVM and stores it when it changed: threads may
  // rename themselves after they started.
  void makeSureThreadHasName(JNIEnv* env, jthread thread);

  // Stores the name when its string index differs from the row's, and re-decides whether the
  // thread is one of the agent's own.
  void updateName(const char* name);

  // The thread's CPU row for a frame; null when 'create' is false and the pair has no TFI.
  CPUProfilingRecord* getCPUProfilingRecord(jint frameIndex, bool create) {
    jint tfi = ourDB->myThreadFrameIndex->getTFI(myIndexForTFI, frameIndex, create);
    return tfi == -1 ? nullptr : ourDB->myCPUProfilingTable->getRecord(tfi, true);
  }

  // The thread's allocation row for a frame, made when missing.
  AllocInfoRecord* getAllocInfo(jint frameIndex) {
    return ourDB->myAllocInfoTable->getRecord(ourDB->myThreadFrameIndex->getTFI(myIndexForTFI, frameIndex, true),
                                              true);
  }

  // The thread's j2ee row for an event at a frame, made when missing.
  J2EERecord* getJ2EERecord(jint stringIndex, jint kind, jint frameIndex);

  // Forgets everything the thread knows about its call stack, and its j2ee rows.
  void clearCPUAndJ2EEInfo();

  ThreadRecord* getThreadRecord() { return ourDB->myThreadTable->getRecord(myThreadTableIndex, true); }

  // The probes' state comes first and together: a traced call touches these two cache lines of
  // its ThreadInfo and no others.
  //
  // Set while the thread's probes record a call without ourLock (TracingGate). The entry times,
  // the current frame, the traced calls, the callee cache and the thread's CPU rows are changed
  // only under ourLock or inside such a section; other threads touch them only under ourLock
  // with the gate closed.
  std::atomic<bool> myInLockFreeSection;
  // The agent's own thread, or otherwise exempt: every engine skips it.
  bool myIsAgentThread;
  // Call-tree frame the thread is in; -1 when not known.
  jint myCurrentFrameIndex;
  // One entry per open call, true when its method is filtered.
  KVector<bool> myFilteredCallsStack;
  // One entry per open traced call that has a frame, outermost first, whether or not times are
  // taken. Describes the path to myCurrentFrameIndex only while its last entry's frame is that
  // frame; the probes check this and fall back to the tree otherwise.
  KVector<TracedCall> myTracedCalls;
  // Entry times of the open traced calls, outermost first.
  KVector<jlong> myEntryTimesNs;
  // The callees of the calls the thread traced so far.
  CalleeCache myCallees;
  // The thread's call log (a global reference to its int array), where its probes write the
  // traced calls that the agent has not yet seen; null for a thread whose probes call the
  // natives. Read back, and the read position moved, only under ourLock (CallLogs).
  jintArray myCallLog = nullptr;
  // Its place in the log table; -1 without one, -2 when another thread held it.
  jint myCallLogSlot = -1;
  jint myCallLogRead = 0;
  // The event at myCallLogRead was read as an entry while the thread wrote on: only its turning
  // into a whole call is still to be read.
  bool myCallLogFirstIsEntered = false;
  // What the log's "see the next probe natively" word holds, as this side last wrote it.
  bool myCallLogNeedsNative = false;

  // OS thread id; 0 for the pseudo-threads.
  jlong myThreadID;
  jint myThreadTableIndex;
  // Slot in the ThreadFrameIndex; never 0 while valid.
  jint myIndexForTFI;
  // Lifetime-unique, never reused, never 0: the thread's identity in records.
  jint myRunningNumber;
  // Accumulated frame time at each open j2ee call.
  KVector<jlong> myJ2EETimesStack;
  KVector<J2EERecord*> myJ2EERecordsStack;
  // The J2EE method types of the class of the object that a J2EE probe asked about last
  // (kjpIsJ2EEClass), which the probe's native, called right after it, checks its type against.
  jint myJ2EEReceiverTypes = 0;
  // Thread CPU time at the previous sample; 0 when none yet.
  jlong myLastCPUTimeNs;
  // The thread's tree must be wall-time corrected before it is read.
  bool myNeedsWallTimeCorrection;

  // The last running number given out.
  static jint ourRunningNumber;
  // Slots of the ThreadFrameIndex, from 1 so that 0 can mean "none".
  static IndexPool ourIndexForTFIPool;

 private:
  void init();
};

// True for the names of the agent's own threads: exactly "(GC Main Thread)", or any name that
// starts with "KJPAgent-". False for null.
bool isAgentThreadName(const char* name);

// The ThreadInfo of a thread, or null; a null thread means the current one. During the JVMTI
// start phase every thread maps to ourVMStartThread. Takes no lock: a thread's slot is written
// only by that thread's own start and end events.
ThreadInfo* getThreadInfoJVMTI(jthread thread);

// Tells this thread's getThreadInfoJVMTI(nullptr) what its JVMTI slot now holds, so that it
// answers from a C++ thread-local while the JVM is live instead of asking the JVM, which costs
// as much as the rest of a traced call. Whoever sets the slot of the current thread calls it.
void setCurrentThreadInfo(ThreadInfo* info);

// A virtual thread was mounted on this platform thread (started or resumed on it): until it
// leaves, the current thread has no ThreadInfo, and the JVM isn't asked. Called from the JVM's
// events for virtual threads, which come only where ourTracksVirtualThreads.
void enterVirtualThread();

// The virtual thread left this platform thread (ended or unmounted): the mirror answers for
// the platform thread again.
void leaveVirtualThread();

// The agent receives the events that mount and unmount virtual threads, so the mirror can serve
// where virtual threads exist.
extern bool ourTracksVirtualThreads;

// What setCurrentThreadInfo was last told on this thread. Not a TLS model that needs a call:
// the probes read it twice per traced call.
extern __thread ThreadInfo* ourCurrentThreadInfo __attribute__((tls_model("initial-exec")));

// getThreadInfoJVMTI(nullptr), with the common answer inline for the probes.
inline ThreadInfo* getCurrentThreadInfo() {
  ThreadInfo* info = ourCurrentThreadInfo;
  return info != nullptr && ourVMInitCalled && !ourVMDeathCalled ? info : getThreadInfoJVMTI(nullptr);
}

// Calls 'action' with the ThreadInfo of every live thread. Caller holds ourLock.
template <class Action>
void forEachLiveThread(Action action) {
  for (jint i = 0; i < ourAllThreadInfos._capacity; i++) {
    if (ourAllThreadInfos._states[i] == KMAP_FULL) {
      action(ourAllThreadInfos._keys[i]);
    }
  }
}

// Pseudo-thread "<Oldest dead threads>", heir of every folded dead thread.
extern ThreadInfo* ourOldestDeadThreads;
// Pseudo-thread "VM Start", which owns whatever happens before the live phase.
extern ThreadInfo* ourVMStartThread;

#endif
