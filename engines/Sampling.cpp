#include "engines/Sampling.h"

#include "agent/CPUTime.h"
#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "agent/AgentThread.h"
#include "agent/Options.h"
#include "db/DB.h"
#include "engines/KFrameStorage.h"
#include "engines/ThreadInfo.h"
#include "engines/TracingGate.h"

namespace {

const jlong IDLE_POLL_MS = 100;

jint methodFlagsOfFrame(jint frame) {
  return ourDB->myMethodTable->getRecord(ourFrameStorage.getMethodIndex(frame), true)->myFlags;
}

// The ThreadInfo of a captured thread when it is alive and one of the profiled ones.
ThreadInfo* profiledThread(const jvmtiStackInfo& stackInfo) {
  if ((stackInfo.state & JVMTI_THREAD_STATE_ALIVE) == 0) {
    return nullptr;
  }
  ThreadInfo* info = getThreadInfoJVMTI(stackInfo.thread);
  if (info == nullptr || info->myIsAgentThread) {
    return nullptr;
  }
  return info;
}

// The stacks of all threads; false while the JVM is not live, when there are none to take.
bool takeAllStacks(jvmtiStackInfo** stacks, jint* threadCount) {
  *stacks = nullptr;
  *threadCount = 0;
  jvmtiError error = ourJVMTI->GetAllStackTraces(SAMPLER_MAX_FRAMES, stacks, threadCount);
  if (error == JVMTI_ERROR_WRONG_PHASE) {
    return false;
  }
  check_JVMTI_error(error);
  return true;
}

void releaseStacks(JNIEnv* env, jvmtiStackInfo* stacks, jint threadCount) {
  for (jint i = 0; i < threadCount; i++) {
    env->DeleteLocalRef(stacks[i].thread);
  }
  deallocate(stacks);
}

}  // namespace

jint skipHiddenFrames(jint frame) {
  while (frame != 0 && frame != -1 && (methodFlagsOfFrame(frame) & MF_HIDDEN) != 0) {
    frame = ourFrameStorage.getParent(frame);
  }
  return frame;
}

void chargeSample(ThreadInfo* info, jint frame, jlong cpu, jlong* wall) {
  jlong delta = info->myLastCPUTimeNs == 0 ? 0 : cpu - info->myLastCPUTimeNs;
  info->myLastCPUTimeNs = cpu;
  if ((methodFlagsOfFrame(frame) & MF_WAIT) != 0) {
    return;  // idle since the last sample, whatever the clock says
  }
  if (delta > *wall) {
    *wall = delta;
  }
  for (; frame != 0 && frame != -1; frame = ourFrameStorage.getParent(frame)) {
    // From a wall-time method upwards the thread was busy for the whole interval, burning CPU
    // or not, so its callers get the interval too.
    if ((methodFlagsOfFrame(frame) & MF_WALL_TIME) != 0) {
      info->myNeedsWallTimeCorrection = true;
      delta = *wall;
    }
    CPUProfilingRecord* record = info->getCPUProfilingRecord(frame, true);
    if (delta >= 1 && delta <= MAX_SAMPLE_DELTA_NS) {
      record->time += delta;
      record->myModificationStamp = ourDB->myModificationStamp;
    }
  }
}

void samplingPass(JNIEnv* env, jlong wall) {
  LockHolder holder(&ourLock, "Sampling(80)");
  // Tracing with a fast thread clock times every call exactly; samples would only add noise.
  // The asynchronous sampler, when it runs, takes the samples instead.
  if ((ourStatus & CPU_TIMES_BIT) == 0 || (ourStatus & CPU_ASYNC_BIT) != 0 ||
      ((ourStatus & CPU_COUNTS_BIT) != 0 && tracingReadsThreadClock())) {
    return;
  }
  jvmtiStackInfo* stacks;
  jint threadCount;
  if (!takeAllStacks(&stacks, &threadCount)) {
    return;
  }
  // Traced calls move the threads' frames without ourLock.
  TracingGate::Closure framesStill((ourStatus & CPU_COUNTS_BIT) != 0);
  for (jint i = 0; i < threadCount; i++) {
    ThreadInfo* info = profiledThread(stacks[i]);
    if (info == nullptr) {
      continue;
    }
    // A traced thread is charged where its stack is, not where its probes got to: they may log
    // calls that the agent reads later.
    jint frame = (ourStatus & CPU_COUNTS_BIT) == 0
                     ? ourFrameStorage.fillCurrentFrameJVMTIFromStackInfo(env, stacks[i], nullptr)
                     : ourFrameStorage.fillTracedFrameFromStack(env, stacks[i].frame_buffer, stacks[i].frame_count);
    frame = skipHiddenFrames(frame);
    if (frame == 0 || frame == -1) {
      continue;
    }
    chargeSample(info, frame, getThreadCPUTimeNs(static_cast<long>(info->myThreadID)), &wall);
  }
  releaseStacks(env, stacks, threadCount);
}

void JNICALL sampler_thread_entry(jvmtiEnv* jvmti, JNIEnv* env, void*) {
  KASSERT(jvmti == ourJVMTI);
  KASSERT(ourJVMTISamplerLock);
  // Held for good: the monitor is only a sleep that the JVM knows about, and nobody else
  // ever enters it.
  check_JVMTI_error(jvmti->RawMonitorEnter(ourJVMTISamplerLock));
  for (;;) {
    while ((ourStatus & CPU_TIMES_BIT) == 0) {
      jvmti->RawMonitorWait(ourJVMTISamplerLock, IDLE_POLL_MS);
    }
    // Each pass is charged the wall time since the previous one, the pass itself included: on a
    // loaded machine a safepoint walk of all stacks can take a tenth of the period, and a thread
    // in a wall-time method was busy all that while too.
    jlong last = getTimeNs();
    while ((ourStatus & CPU_TIMES_BIT) != 0) {
      // A period of 0 means no timeout, and nothing notifies: sampling then never runs.
      jvmti->RawMonitorWait(ourJVMTISamplerLock, static_cast<jlong>(ourOptions.mySamplingPeriod));
      jlong now = getTimeNs();
      samplingPass(env, now - last);
      last = now;
    }
  }
}

void startSamplerThread(JNIEnv* env) {
  jthread thread = createAgentThread(env, "KJPAgent-CPUSampler");
  check_JVMTI_error(ourJVMTI->RunAgentThread(thread, sampler_thread_entry, nullptr, JVMTI_THREAD_MAX_PRIORITY));
  env->DeleteLocalRef(thread);
}

void sampleThreadStatusesJVMTI(JNIEnv* env, jint* op_startIndex, jint* op_threadCount) {
  KASSERT(op_startIndex);
  KASSERT(op_threadCount);
  *op_startIndex = 0;
  *op_threadCount = 0;
  LockHolder holder(&ourLock, "Sampling(140)");
  jvmtiStackInfo* stacks;
  jint threadCount;
  if (!takeAllStacks(&stacks, &threadCount)) {
    return;
  }
  DBTable<ThreadStateRecord>* table = ourDB->myThreadStateTable;
  for (jint i = 0; i < threadCount; i++) {
    ThreadInfo* info = profiledThread(stacks[i]);
    if (info == nullptr) {
      continue;
    }
    jint frame = skipHiddenFrames(ourFrameStorage.fillCurrentFrameJVMTIFromStackInfo(env, stacks[i], nullptr));
    if (frame == -1) {
      frame = 0;
    }
    jint index = table->getIndexPool().nextIndex();
    if (*op_threadCount == 0) {
      *op_startIndex = index;
    }
    (*op_threadCount)++;
    ThreadStateRecord* record = table->getRecord(index, true);
    record->myThread = info->myRunningNumber;
    record->myFrame = frame;
    record->myState = stacks[i].state;
    record->myCPUTimeNs = getThreadCPUTimeNs(static_cast<long>(info->myThreadID));
    record->myModificationStamp = ourDB->myModificationStamp;
  }
  releaseStacks(env, stacks, threadCount);
}

void enableStackTelemetry() {
  LockHolder holder(&ourLock, "Sampling(175)");
  ourStatus |= STACK_TELEMETRY;
}

void disableStackTelemetry() {
  LockHolder holder(&ourLock, "Sampling(180)");
  ourStatus &= ~STACK_TELEMETRY;
}
