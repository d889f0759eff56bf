#include "engines/Tracing.h"

#include "agent/CPUTime.h"
#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "db/DB.h"
#include "engines/KFrameStorage.h"
#include "engines/ThreadInfo.h"

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
inline bool isTiming() { return (ourStatus & CPU_COUNTS_BIT) != 0 && ourLinuxFastThreadCPUTimeSupported; }

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
// makes the probes time calls; without it nothing is read.
inline jlong probeClock(bool isWallTime) {
  if (!ourLinuxFastThreadCPUTimeSupported) {
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
    TracedCall call = {f, ourFrameStorage.getParent(f), methodIndex,
                       (methodFlags(methodIndex) & MF_WALL_TIME) != 0, nullptr, 0, -1, nullptr};
    calls.push(call);
  }
  TracedCall* array = calls.getArray();
  for (jint i = 0, j = calls.size() - 1; i < j; i++, j--) {
    TracedCall swap = array[i];
    array[i] = array[j];
    array[j] = swap;
  }
}

}  // namespace

// Locking. The bit stack and the method flags are read outside ourLock as before; so are the
// clocks: the entry and exit times are the calling thread's own clock, and reading them before
// the lock keeps the two costliest steps of a traced call out of the section that serialises all
// traced threads. Everything another thread may look at stays under ourLock: the shadow frame,
// myEntryTimesNs (a capture's resetStackTrace and restoreStackTrace, stopCPUProfiling), the rows
// and the tree (the sampler, writeTables). myTracedCalls is read and written only under the lock
// as well, since clearCPUData empties it from the request thread.
//
// A clock read before the lock can be older than something that happened while this thread
// waited for it:
// - at entry, a capture may close and reopen the thread's open calls at a later moment; the new
//   call was not open then, so starting it a little earlier counts nothing twice;
// - at exit, a capture may have closed the call at a moment later than the reading and reopened
//   it then; the call has been charged up to that moment already, so the remainder is 0, never
//   negative, and the row never shrinks between two captures.
namespace {

// The part of an entry that records, kept out of line so that a collapsed call pays for none of
// its registers and stack.
__attribute__((noinline)) void tracedEntry(JNIEnv* env, ThreadInfo* info, jint methodIndex, jint flags) {
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  bool isWallTime = (flags & MF_WALL_TIME) != 0;
  jlong entryTime = probeClock(isWallTime);

  LockHolder holder(&ourLock, "Tracing(120)");
  if ((ourStatus & CPU_COUNTS_BIT) == 0 || !isMethodTracingActive()) {
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
    TracedCall* caller = nullptr;
    if (!calls.isEmpty()) {
      caller = &calls.last();
      if (caller->myFrame != parent) {
        // The frame was moved by someone who didn't know of these calls; they describe nothing now.
        calls.clear();
        caller = nullptr;
      }
    }
    if (caller != nullptr && caller->myLastCalleeMethod == methodIndex) {
      frame = caller->myLastCalleeFrame;
      record = caller->myLastCalleeRecord;
    } else {
      frame = ourFrameStorage.getChild(parent, methodIndex);
      KASSERT_TEXT(frame != -1, "currentFrameIndex != -1");
      record = info->getCPUProfilingRecord(frame, true);
      if (caller != nullptr) {
        caller->myLastCalleeMethod = methodIndex;
        caller->myLastCalleeFrame = frame;
        caller->myLastCalleeRecord = record;
      }
    }
    KASSERT_TEXT(frame != 0, "currentFrameIndex != 0");
    TracedCall call = {frame, parent, methodIndex, isWallTime, record, 0, -1, nullptr};
    calls.push(call);
    if (timing) {
      info->myEntryTimesNs.push(entryTime);
    }
  }
  info->myCurrentFrameIndex = frame;
  record->count++;
  record->myModificationStamp = ourDB->myModificationStamp;
}

}  // namespace

void methodEntry(JNIEnv* env, jint methodIndex) {
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr || info->myIsAgentThread) {
    return;
  }
  jint flags = methodFlagsUnlocked(methodIndex);
  bool filtered = (flags & MF_FILTERED) != 0;
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  bool skip = filtered && !filteredCalls.isEmpty() && filteredCalls.last();
  filteredCalls.push(filtered);
  if (skip) {
    return;  // inside a collapsed library call: no lock, no clock
  }
  tracedEntry(env, info, methodIndex, flags);
}

namespace {

// The part of an exit that records; out of line like tracedEntry.
__attribute__((noinline)) void tracedExit(ThreadInfo* info, jint methodIndex) {
  // The clock of this method as its flags say now; the flags of an open call can't change, since
  // filters are reloaded only while CPU profiling is off and stopping drops every shadow stack.
  bool isWallTime = (methodFlagsUnlocked(methodIndex) & MF_WALL_TIME) != 0;
  jlong now = probeClock(isWallTime);

  LockHolder holder(&ourLock, "Tracing(160)");
  if ((ourStatus & CPU_COUNTS_BIT) == 0 || !isMethodTracingActive() || info->myCurrentFrameIndex == -1) {
    return;
  }
  jint frame = info->myCurrentFrameIndex;
  KVector<TracedCall>& calls = info->myTracedCalls;
  jint parent;
  CPUProfilingRecord* record;
  bool callIsWallTime;
  if (!calls.isEmpty() && calls.last().myFrame == frame) {
    const TracedCall& call = calls.last();
    if (methodIndex != call.myMethodIndex) {
      // Some call ended without its exit probe; nothing on the shadow stack can be trusted.
      dropShadowStack(info, true);
      return;
    }
    parent = call.myParentFrame;
    record = call.myRecord;
    callIsWallTime = call.myIsWallTime;
    calls.pop();
  } else {
    // No traced call of ours describes the frame: the tree does.
    calls.clear();
    if (methodIndex != ourFrameStorage.getMethodIndex(frame)) {
      dropShadowStack(info, true);
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
    KASSERT_TEXT(!info->myEntryTimesNs.isEmpty(), "!threadInfo->myEntryTimesNs.empty()");
    jlong entryTime = info->myEntryTimesNs.pop();
    if (callIsWallTime != isWallTime) {
      now = callIsWallTime ? getTimeNs() : getCurrentThreadCPUTimeNs();
    }
    jlong delta = getTimeDeltaNs(now, entryTime, 1);
    record->time += delta > 0 ? delta : 0;
    record->myModificationStamp = ourDB->myModificationStamp;
    if (callIsWallTime) {
      info->myNeedsWallTimeCorrection = true;
    }
  }
}

}  // namespace

void methodExit(JNIEnv* env, jint methodIndex) {
  (void)env;
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr || info->myIsAgentThread || info->myFilteredCallsStack.isEmpty()) {
    return;
  }
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  bool popped = filteredCalls.pop();
  if (popped && !filteredCalls.isEmpty() && filteredCalls.last()) {
    return;  // the exit of a call that the entry collapsed into its filtered caller
  }
  tracedExit(info, methodIndex);
}

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpMethodEntry0(JNIEnv* env, jclass, jshort low,
                                                                                    jshort high) {
  methodEntry(env, methodIndexFromHalves(low, high));
}

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpMethodExit0(JNIEnv* env, jclass, jshort low,
                                                                                   jshort high) {
  methodExit(env, methodIndexFromHalves(low, high));
}

void JNICALL exception(jvmtiEnv*, JNIEnv*, jthread, jmethodID, jlocation, jobject, jmethodID, jlocation) {
  LockHolder holder(&ourLock, "Tracing(200)");
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr) {
    return;
  }
  if ((ourStatus & CPU_COUNTS_BIT) != 0) {
    dropShadowStack(info, true);
  }
}
