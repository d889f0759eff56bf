#include "engines/Tracing.h"

#include "agent/CPUTime.h"
#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "db/DB.h"
#include "engines/CallLogs.h"
#include "engines/KFrameStorage.h"
#include "engines/ThreadInfo.h"
#include "engines/TracingGate.h"

namespace {

// Outside ourLock the row may be read but never created: the method table is sized up front,
// and a probe only names methods that instrumentation already made.
inline jint methodFlagsUnlocked(jint methodIndex) {
  MethodRecord* record = ourDB->myMethodTable->getRecord(methodIndex, false);
  return record == nullptr ? 0 : record->myFlags;
}

inline jint methodFlags(jint methodIndex) { return ourDB->myMethodTable->getRecord(methodIndex, true)->myFlags; }

// Exact times come from the probes only with a thread clock cheap enough for every call;
// otherwise the sampler walks the traced frames and supplies them.
inline bool isTiming() { return (ourStatus & CPU_COUNTS_BIT) != 0 && tracingReadsThreadClock(); }

void readClocks(ThreadInfo* info, bool isCurrentThread, jlong* cpu, jlong* wall) {
  *cpu = isCurrentThread ? getCurrentThreadCPUTimeNs() : getThreadCPUTimeNs(static_cast<long>(info->myThreadID));
  *wall = getTimeNs();
}

}  // namespace

jlong getMethodTimeNs(jint methodIndex) {
  return (methodFlags(methodIndex) & MF_WALL_TIME) != 0 ? getTimeNs() : getCurrentThreadCPUTimeNs();
}

bool isMethodTracingActive() {
  if (currentPhase() != JVMTI_PHASE_LIVE) {
    return false;
  }
  if (!ourVMDeathCalled) {
    return true;
  }
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info != nullptr) {
    dropShadowStack(info, true);
  }
  return false;
}

void resetStackTrace(ThreadInfo* threadInfo, bool isCurrentThread) {
  KASSERT(threadInfo);
  KASSERT(isCurrentThread || TracingGate::isClosed());
  if (!isTiming() || threadInfo->myCurrentFrameIndex == -1) {
    return;
  }
  jlong cpu = 0;
  jlong wall = 0;
  readClocks(threadInfo, isCurrentThread, &cpu, &wall);
  KVector<jlong>* entryTimesNs = &threadInfo->myEntryTimesNs;
  for (jint frame = threadInfo->myCurrentFrameIndex; frame != 0 && frame != -1;
       frame = ourFrameStorage.getParent(frame)) {
    CPUProfilingRecord* record = threadInfo->getCPUProfilingRecord(frame, true);
    KASSERT_TEXT(!entryTimesNs->isEmpty(), "!entryTimesNs->empty()");
    jlong entry = entryTimesNs->pop();
    if ((methodFlags(ourFrameStorage.getMethodIndex(frame)) & MF_WALL_TIME) != 0) {
      record->time += getTimeDeltaNs(wall, entry, 3);
      threadInfo->myNeedsWallTimeCorrection = true;
    } else {
      record->time += getTimeDeltaNs(cpu, entry, 2);
    }
    record->myModificationStamp = ourDB->myModificationStamp;
  }
  KASSERT(entryTimesNs->size() == 0);
}

void restoreStackTrace(ThreadInfo* threadInfo, bool isCurrentThread) {
  KASSERT(threadInfo);
  KASSERT(isCurrentThread || TracingGate::isClosed());
  if (threadInfo->myCurrentFrameIndex == -1) {
    return;
  }
  KVector<jlong>* entryTimesNs = &threadInfo->myEntryTimesNs;
  KASSERT(entryTimesNs->size() == 0);
  jlong cpu = 0;
  jlong wall = 0;
  readClocks(threadInfo, isCurrentThread, &cpu, &wall);
  for (jint frame = threadInfo->myCurrentFrameIndex; frame != 0 && frame != -1;
       frame = ourFrameStorage.getParent(frame)) {
    bool isWall = (methodFlags(ourFrameStorage.getMethodIndex(frame)) & MF_WALL_TIME) != 0;
    entryTimesNs->push(isWall ? wall : cpu);
  }
  jlong* times = entryTimesNs->getArray();
  for (jint i = 0, j = entryTimesNs->size() - 1; i < j; i++, j--) {
    jlong swap = times[i];
    times[i] = times[j];
    times[j] = swap;
  }
}

void dropShadowStack(ThreadInfo* threadInfo, bool isCurrentThread) {
  resetStackTrace(threadInfo, isCurrentThread);
  threadInfo->myCurrentFrameIndex = -1;
  threadInfo->myEntryTimesNs.clear();
  threadInfo->myFilteredCallsStack.clear();
  threadInfo->myTracedCalls.clear();
}

namespace {

// The clock a method's entry or exit is read in, outside ourLock. Only the fast thread clock
// makes the probes time calls; without it, or with sampled times, nothing is read.
inline jlong probeClock(bool isWallTime) {
  if (!tracingReadsThreadClock()) {
    return 0;
  }
  return isWallTime ? getTimeNs() : getCurrentThreadCPUTimeNs();
}

// Refills the traced calls of a thread whose stack was just rebuilt ending at 'frame'. Caller
// holds ourLock.
void rebuildTracedCalls(ThreadInfo* info, jint frame) {
  KVector<TracedCall>& calls = info->myTracedCalls;
  calls.clear();
  for (jint f = frame; f != 0 && f != -1; f = ourFrameStorage.getParent(f)) {
    jint methodIndex = ourFrameStorage.getMethodIndex(f);
    TracedCall call = {f, ourFrameStorage.getParent(f), methodIndex, (methodFlags(methodIndex) & MF_WALL_TIME) != 0,
                       nullptr};
    calls.push(call);
  }
  TracedCall* array = calls.getArray();
  for (jint i = 0, j = calls.size() - 1; i < j; i++, j--) {
    TracedCall swap = array[i];
    array[i] = array[j];
    array[j] = swap;
  }
}

// The part of isMethodTracingActive that needs no lock, for the probes' lock-free paths.
inline bool isRecordingTracedCalls() {
  return (ourStatus & CPU_COUNTS_BIT) != 0 && ourVMInitCalled && !ourVMDeathCalled;
}

// The open call the thread is in, when its traced calls describe it.
inline TracedCall* currentTracedCall(ThreadInfo* info) {
  KVector<TracedCall>& calls = info->myTracedCalls;
  return !calls.isEmpty() && calls.last().myFrame == info->myCurrentFrameIndex ? &calls.last() : nullptr;
}

}  // namespace

// Locking. A traced call whose frame and row the thread knows already (its callee cache) changes
// nothing but the thread's own state and rows; it is recorded inside a TracingGate section, with
// no lock. Everything else takes ourLock: rebuilding a stack, a call not made before from its
// frame (the tree and the rows are shared), closing a call that a rebuild found. Whoever looks at
// other threads' calls or rows closes the gate under ourLock, and then sees what they would see
// if every probe took the lock; with sampled times that includes the samplers, which read the
// threads' frames and add to their rows. The bit stack and the method flags are read outside both.
//
// The clocks are read before either: the entry and exit times are the calling thread's own clock.
// A reading can be older than something that happened while the thread waited for ourLock:
// - at entry, a capture may close and reopen the thread's open calls at a later moment; the new
//   call was not open then, so starting it a little earlier counts nothing twice;
// - at exit, a capture may have closed the call at a moment later than the reading and reopened
//   it then; the call has been charged up to that moment already, so the remainder is 0, never
//   negative, and the row never shrinks between two captures.
namespace {

// The callee the thread remembers for 'methodIndex' called from the frame it is in; null when it
// remembers none, or when the frame moved past the traced calls (a rebuild, a drop), which the
// locked path sorts out.
inline const CalleeCache::Entry* knownCallee(ThreadInfo* info, jint methodIndex) {
  jint parent = info->myCurrentFrameIndex;
  KVector<TracedCall>& calls = info->myTracedCalls;
  if (parent == -1 || (!calls.isEmpty() && calls.last().myFrame != parent)) {
    return nullptr;
  }
  return info->myCallees.find(parent, methodIndex);
}

// The entry of a call whose callee the thread knows, for whoever may change the thread's state
// (inside a gate section or under ourLock); false when the callee isn't known.
inline bool recordKnownCallee(ThreadInfo* info, jint methodIndex) {
  const CalleeCache::Entry* callee = knownCallee(info, methodIndex);
  if (callee == nullptr) {
    return false;
  }
  jint parent = info->myCurrentFrameIndex;
  KVector<TracedCall>& calls = info->myTracedCalls;
  bool isWallTime = (callee->myFlags & MF_WALL_TIME) != 0;
  info->myFilteredCallsStack.push((callee->myFlags & MF_FILTERED) != 0);
  TracedCall call = {callee->myFrame, parent, methodIndex, isWallTime, callee->myRecord};
  calls.push(call);
  info->myCurrentFrameIndex = callee->myFrame;
  callee->myRecord->count++;
  callee->myRecord->myModificationStamp = ourDB->myModificationStamp;
  if (tracingReadsThreadClock()) {
    // The clock last, so that the call's time holds as little of the probe as it can.
    info->myEntryTimesNs.push(probeClock(isWallTime));
  }
  return true;
}

// Records an entry whose callee the thread knows, without ourLock; false when the other paths
// must handle it. The callee cache holds only calls that were not collapsed, and whether a call
// collapses depends on its method and its caller's alone: a known callee needs neither the
// method flags nor the skip test. The clock is read inside the section: a closer waits for one
// system call at most.
inline bool enterKnownCallee(ThreadInfo* info, jint methodIndex) {
  if (!isRecordingTracedCalls() || !TracingGate::enter(info)) {
    return false;
  }
  bool known = recordKnownCallee(info, methodIndex);
  TracingGate::leave(info);
  return known;
}

// An entry that the callee cache didn't know, recorded under ourLock. Without 'env' a thread
// whose stack is not known can't rebuild it, and the entry is dropped.
void enterLocked(JNIEnv* env, ThreadInfo* info, jint methodIndex, jint flags, jlong entryTime) {
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  bool isWallTime = (flags & MF_WALL_TIME) != 0;
  if (env == nullptr && info->myCurrentFrameIndex == -1) {
    return;
  }
  bool timing = isTiming();
  jint frame;
  CPUProfilingRecord* record;
  KVector<TracedCall>& calls = info->myTracedCalls;
  if (info->myCurrentFrameIndex == -1) {
    // The shadow stack is lost or was never known: rebuild it from the real stack, which
    // includes this method, and refill the bit stack to match.
    frame = ourFrameStorage.fillCurrentFrameJVMTI(env, !canInstrumentNativeMethods(), &filteredCalls);
    KASSERT_TEXT(frame != -1, "currentFrameIndex != -1");
    KASSERT_TEXT(frame != 0, "currentFrameIndex != 0");
    if (timing) {
      info->myCurrentFrameIndex = frame;
      restoreStackTrace(info, true);
    }
    rebuildTracedCalls(info, frame);
    record = info->getCPUProfilingRecord(frame, true);
    calls.last().myRecord = record;
  } else {
    jint parent = info->myCurrentFrameIndex;
    if (!calls.isEmpty() && currentTracedCall(info) == nullptr) {
      // The frame was moved by someone who didn't know of these calls; they describe nothing now.
      calls.clear();
    }
    const CalleeCache::Entry* callee = info->myCallees.find(parent, methodIndex);
    if (callee != nullptr) {
      frame = callee->myFrame;
      record = callee->myRecord;
    } else {
      frame = ourFrameStorage.getChild(parent, methodIndex);
      KASSERT_TEXT(frame != -1, "currentFrameIndex != -1");
      record = info->getCPUProfilingRecord(frame, true);
      info->myCallees.put(parent, methodIndex, frame, flags, record);
    }
    KASSERT_TEXT(frame != 0, "currentFrameIndex != 0");
    TracedCall call = {frame, parent, methodIndex, isWallTime, record};
    calls.push(call);
    if (timing) {
      info->myEntryTimesNs.push(entryTime);
    }
  }
  info->myCurrentFrameIndex = frame;
  record->count++;
  record->myModificationStamp = ourDB->myModificationStamp;
}

// The part of an entry that takes ourLock, kept out of line so that the other paths pay for none
// of its registers and stack.
__attribute__((noinline)) void tracedEntry(JNIEnv* env, ThreadInfo* info, jint methodIndex, jint flags) {
  jlong entryTime = probeClock((flags & MF_WALL_TIME) != 0);

  LockHolder holder(&ourLock, "Tracing(120)");
  if ((ourStatus & CPU_COUNTS_BIT) == 0 || !isMethodTracingActive()) {
    return;
  }
  enterLocked(env, info, methodIndex, flags, entryTime);
}

}  // namespace

namespace {

// For what the thread does natively while it has a call log: the calls logged so far happened
// first, and the state the native work leaves (whether the stack is known) goes back to the log.
class LoggedCallsFirst {
 public:
  LoggedCallsFirst(JNIEnv* env, ThreadInfo* info) : myEnv(env), myInfo(info) {
    if (info->myCallLog != nullptr) {
      CallLogs::catchUp(env, info);
    }
  }
  ~LoggedCallsFirst() {
    if (myInfo->myCallLog != nullptr) {
      CallLogs::publish(myEnv, myInfo);
    }
  }
  LoggedCallsFirst(const LoggedCallsFirst&) = delete;
  LoggedCallsFirst& operator=(const LoggedCallsFirst&) = delete;

 private:
  JNIEnv* myEnv;
  ThreadInfo* myInfo;
};

// Pushes the filtered bit of a call the callee cache didn't know; true when the call collapses
// into its filtered caller and records nothing more.
inline bool collapsesIntoCaller(ThreadInfo* info, jint flags) {
  bool filtered = (flags & MF_FILTERED) != 0;
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  bool skip = filtered && !filteredCalls.isEmpty() && filteredCalls.last();
  filteredCalls.push(filtered);
  return skip;
}

// Pops the filtered bit of an ending call; true when the call was collapsed into its filtered
// caller, or when no call is open at all, and records nothing more.
inline bool endsCollapsedCall(ThreadInfo* info) {
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  if (filteredCalls.isEmpty()) {
    return true;
  }
  bool popped = filteredCalls.pop();
  return popped && !filteredCalls.isEmpty() && filteredCalls.last();
}

}  // namespace

void methodEntry(JNIEnv* env, jint methodIndex) {
  ThreadInfo* info = getCurrentThreadInfo();
  if (info == nullptr || info->myIsAgentThread) {
    return;
  }
  LoggedCallsFirst logged(env, info);
  if (enterKnownCallee(info, methodIndex)) {
    return;
  }
  jint flags = methodFlagsUnlocked(methodIndex);
  if (collapsesIntoCaller(info, flags)) {
    return;  // inside a collapsed library call: no lock, no clock
  }
  tracedEntry(env, info, methodIndex, flags);
}

void replayEntry(ThreadInfo* info, jint methodIndex) {
  if (info->myCurrentFrameIndex == -1 || recordKnownCallee(info, methodIndex)) {
    return;
  }
  jint flags = methodFlags(methodIndex);
  if (!collapsesIntoCaller(info, flags)) {
    enterLocked(nullptr, info, methodIndex, flags, 0);
  }
}

namespace {

// Adds the time of a call that ended at 'now' to its row.
inline void chargeCall(ThreadInfo* info, CPUProfilingRecord* record, bool isWallTime, jlong now) {
  KASSERT_TEXT(!info->myEntryTimesNs.isEmpty(), "!threadInfo->myEntryTimesNs.empty()");
  jlong entryTime = info->myEntryTimesNs.pop();
  jlong delta = getTimeDeltaNs(now, entryTime, 1);
  record->time += delta > 0 ? delta : 0;
  record->myModificationStamp = ourDB->myModificationStamp;
  if (isWallTime) {
    info->myNeedsWallTimeCorrection = true;
  }
}

// The exit of the call the thread's traced calls say it is in, for whoever may change the
// thread's state; false when they say otherwise.
inline bool closeKnownCall(ThreadInfo* info, jint methodIndex) {
  bool timing = tracingReadsThreadClock();
  TracedCall* call = currentTracedCall(info);
  if (call == nullptr || call->myMethodIndex != methodIndex || call->myRecord == nullptr ||
      (timing && info->myEntryTimesNs.isEmpty())) {
    return false;
  }
  jlong now = probeClock(call->myIsWallTime);
  info->myCurrentFrameIndex = call->myParentFrame;
  if (timing) {
    chargeCall(info, call->myRecord, call->myIsWallTime, now);
  }
  info->myTracedCalls.pop();
  return true;
}

// Records the exit of a call whose entry was recorded, without ourLock; false when the locked
// path must record it instead. The open call tells the clock, so the method flags aren't read.
inline bool exitTracedCall(ThreadInfo* info, jint methodIndex) {
  if (!isRecordingTracedCalls() || !TracingGate::enter(info)) {
    return false;
  }
  bool done = closeKnownCall(info, methodIndex);
  TracingGate::leave(info);
  return done;
}

// An exit that the traced calls didn't describe, recorded under ourLock. 'isWallTime' and 'now'
// are the method's clock as its flags say and its reading, if any.
void exitLocked(ThreadInfo* info, jint methodIndex, bool isWallTime, jlong now, bool isCurrentThread) {
  if (info->myCurrentFrameIndex == -1) {
    return;
  }
  jint frame = info->myCurrentFrameIndex;
  KVector<TracedCall>& calls = info->myTracedCalls;
  jint parent;
  CPUProfilingRecord* record;
  bool callIsWallTime;
  TracedCall* call = currentTracedCall(info);
  if (call != nullptr) {
    if (methodIndex != call->myMethodIndex) {
      // Some call ended without its exit probe; nothing on the shadow stack can be trusted.
      dropShadowStack(info, isCurrentThread);
      return;
    }
    parent = call->myParentFrame;
    record = call->myRecord;
    callIsWallTime = call->myIsWallTime;
    calls.pop();
  } else {
    // No traced call of ours describes the frame: the tree does.
    calls.clear();
    if (methodIndex != ourFrameStorage.getMethodIndex(frame)) {
      dropShadowStack(info, isCurrentThread);
      return;
    }
    parent = ourFrameStorage.getParent(frame);
    record = nullptr;
    callIsWallTime = isWallTime;
  }
  info->myCurrentFrameIndex = parent;
  if (isTiming()) {
    if (record == nullptr) {
      record = info->getCPUProfilingRecord(frame, true);
    }
    if (callIsWallTime != isWallTime) {
      now = callIsWallTime ? getTimeNs() : getCurrentThreadCPUTimeNs();
    }
    chargeCall(info, record, callIsWallTime, now);
  }
}

// The part of an exit that takes ourLock; out of line like tracedEntry.
__attribute__((noinline)) void tracedExit(ThreadInfo* info, jint methodIndex) {
  // The clock of this method as its flags say now; the flags of an open call can't change, since
  // filters are reloaded only while CPU profiling is off and stopping drops every shadow stack.
  bool isWallTime = (methodFlagsUnlocked(methodIndex) & MF_WALL_TIME) != 0;
  jlong now = probeClock(isWallTime);

  LockHolder holder(&ourLock, "Tracing(160)");
  if ((ourStatus & CPU_COUNTS_BIT) == 0 || !isMethodTracingActive()) {
    return;
  }
  exitLocked(info, methodIndex, isWallTime, now, true);
}

}  // namespace

void methodExit(JNIEnv* env, jint methodIndex) {
  ThreadInfo* info = getCurrentThreadInfo();
  if (info == nullptr || info->myIsAgentThread) {
    return;
  }
  LoggedCallsFirst logged(env, info);
  // An ending call that the entry collapsed into its filtered caller records nothing.
  if (!endsCollapsedCall(info) && !exitTracedCall(info, methodIndex)) {
    tracedExit(info, methodIndex);
  }
}

void replayCall(ThreadInfo* info, jint methodIndex) {
  // A known callee is never collapsed: the call only counts.
  const CalleeCache::Entry* callee = knownCallee(info, methodIndex);
  if (callee != nullptr) {
    callee->myRecord->count++;
    callee->myRecord->myModificationStamp = ourDB->myModificationStamp;
    return;
  }
  replayEntry(info, methodIndex);
  replayExit(info, methodIndex);
}

void replayExit(ThreadInfo* info, jint methodIndex) {
  if (info->myCurrentFrameIndex == -1 || endsCollapsedCall(info) || closeKnownCall(info, methodIndex)) {
    return;
  }
  exitLocked(info, methodIndex, (methodFlags(methodIndex) & MF_WALL_TIME) != 0, 0, false);
}

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpMethodEntry0(JNIEnv* env, jclass, jshort low,
                                                                                    jshort high) {
  methodEntry(env, methodIndexFromHalves(low, high));
}

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpMethodExit0(JNIEnv* env, jclass, jshort low,
                                                                                   jshort high) {
  methodExit(env, methodIndexFromHalves(low, high));
}

void JNICALL exception(jvmtiEnv*, JNIEnv* env, jthread, jmethodID, jlocation, jobject, jmethodID, jlocation) {
  LockHolder holder(&ourLock, "Tracing(200)");
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr) {
    return;
  }
  if ((ourStatus & CPU_COUNTS_BIT) != 0) {
    // The calls logged before the throw still ended normally.
    LoggedCallsFirst logged(env, info);
    dropShadowStack(info, true);
  }
}
