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

// Between VM Init and VM Death the phase is live and stays so; HotSpot's GetPhase moves the
// calling thread into the VM and back, which costs more than the rest of a collapsed call, so the
// probes ask for it only outside that window.
inline bool isBetweenInitAndDeath() { return ourVMInitCalled && !ourVMDeathCalled; }

// getThreadInfoJVMTI(null) without its phase check once the start phase, whose threads all map
// to the pseudo-thread, lies behind.
inline ThreadInfo* currentThreadInfo() {
  if (!ourVMInitCalled) {
    return getThreadInfoJVMTI(nullptr);
  }
  void* data = nullptr;
  if (ourJVMTI->GetThreadLocalStorage(nullptr, &data) != JVMTI_ERROR_NONE) {
    return nullptr;
  }
  return static_cast<ThreadInfo*>(data);
}

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
  if (isBetweenInitAndDeath()) {
    return true;
  }
  jvmtiPhase phase;
  check_JVMTI_error(ourJVMTI->GetPhase(&phase));
  if (phase != JVMTI_PHASE_LIVE) {
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
}

void methodEntry(JNIEnv* env, jint methodIndex) {
  ThreadInfo* info = currentThreadInfo();
  if (info == nullptr || info->myIsAgentThread) {
    return;
  }
  bool filtered = (methodFlagsUnlocked(methodIndex) & MF_FILTERED) != 0;
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  bool skip = filtered && !filteredCalls.isEmpty() && filteredCalls.last();
  filteredCalls.push(filtered);
  if (skip) {
    return;  // inside a collapsed library call: no lock, no clock
  }

  LockHolder holder(&ourLock, "Tracing(120)");
  if ((ourStatus & CPU_COUNTS_BIT) == 0 || !isMethodTracingActive()) {
    return;
  }
  bool timing = isTiming();
  jint frame;
  if (info->myCurrentFrameIndex == -1) {
    // The shadow stack is lost or was never known: rebuild it from the real stack, which
    // includes this method, and refill the bit stack to match.
    frame = ourFrameStorage.fillCurrentFrameJVMTI(env, !canInstrumentNativeMethods(), &filteredCalls);
    KASSERT_TEXT(frame != -1, "currentFrameIndex != -1");
    if (timing) {
      info->myCurrentFrameIndex = frame;
      restoreStackTrace(info, true);
    }
  } else {
    frame = ourFrameStorage.getChild(info->myCurrentFrameIndex, methodIndex);
    KASSERT_TEXT(frame != -1, "currentFrameIndex != -1");
    if (timing) {
      info->myEntryTimesNs.push(getMethodTimeNs(methodIndex));
    }
  }
  KASSERT_TEXT(frame != 0, "currentFrameIndex != 0");
  info->myCurrentFrameIndex = frame;
  CPUProfilingRecord* record = info->getCPUProfilingRecord(frame, true);
  record->count++;
  record->myModificationStamp = ourDB->myModificationStamp;
}

void methodExit(JNIEnv* env, jint methodIndex) {
  (void)env;
  ThreadInfo* info = currentThreadInfo();
  if (info == nullptr || info->myIsAgentThread || info->myFilteredCallsStack.isEmpty()) {
    return;
  }
  KVector<bool>& filteredCalls = info->myFilteredCallsStack;
  bool popped = filteredCalls.pop();
  if (popped && !filteredCalls.isEmpty() && filteredCalls.last()) {
    return;  // the exit of a call that the entry collapsed into its filtered caller
  }

  LockHolder holder(&ourLock, "Tracing(160)");
  if ((ourStatus & CPU_COUNTS_BIT) == 0 || !isMethodTracingActive() || info->myCurrentFrameIndex == -1) {
    return;
  }
  jint frame = info->myCurrentFrameIndex;
  if (methodIndex != ourFrameStorage.getMethodIndex(frame)) {
    // Some call ended without its exit probe; nothing on the shadow stack can be trusted.
    dropShadowStack(info, true);
    return;
  }
  info->myCurrentFrameIndex = ourFrameStorage.getParent(frame);
  if (isTiming()) {
    CPUProfilingRecord* record = info->getCPUProfilingRecord(frame, true);
    KASSERT_TEXT(!info->myEntryTimesNs.isEmpty(), "!threadInfo->myEntryTimesNs.empty()");
    jlong entryTime = info->myEntryTimesNs.pop();
    bool isWall = (methodFlags(methodIndex) & MF_WALL_TIME) != 0;
    jlong now = isWall ? getTimeNs() : getCurrentThreadCPUTimeNs();
    record->time += getTimeDeltaNs(now, entryTime, 1);
    record->myModificationStamp = ourDB->myModificationStamp;
    if (isWall) {
      info->myNeedsWallTimeCorrection = true;
    }
  }
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
