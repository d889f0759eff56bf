#include "engines/CPUProfiling.h"

#include "agent/CPUTime.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/KString.h"
#include "agent/Options.h"
#include "agent/StartReport.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/AsyncSampling.h"
#include "engines/CallLogs.h"
#include "engines/Filter.h"
#include "engines/Sampling.h"
#include "engines/ThreadInfo.h"
#include "engines/Tracing.h"
#include "engines/TracingGate.h"
#include "engines/WallTimeCorrector.h"
#include "snapshot/SnapshotFile.h"

namespace {

// The mode with the source of its times made explicit: sampling keeps the asynchronous bit if
// given; tracing gets the sampled-times bit or the clock bit, as tracingTimesSampledFor decides,
// and ourTracingTimesSampled follows.
jlong resolveTimeSource(jlong mode) {
  if ((mode & CPU_COUNTS_BIT) == 0) {
    return mode & ~(CPU_SAMPLED_TIMES_BIT | CPU_CLOCK_TIMES_BIT);
  }
  bool sampled = tracingTimesSampledFor(mode, ourLinuxFastThreadCPUTimeSupported, ourThreadClockReadNs);
  ourTracingTimesSampled = sampled && ourLinuxFastThreadCPUTimeSupported;
  mode &= ~(CPU_SAMPLED_TIMES_BIT | CPU_CLOCK_TIMES_BIT);
  return mode | (sampled ? CPU_SAMPLED_TIMES_BIT : CPU_CLOCK_TIMES_BIT);
}

}  // namespace

const char* timeSourceName(jlong status) {
  if ((status & CPU_COUNTS_BIT) != 0 && (status & CPU_SAMPLED_TIMES_BIT) == 0) {
    return TIMES_FROM_CLOCK;
  }
  return (status & CPU_ASYNC_BIT) != 0 ? TIMES_FROM_ASYNC_SAMPLES : TIMES_FROM_SAFEPOINT_SAMPLES;
}

jint startCPUProfilingWithSpecs(JNIEnv* env, jlong mode, const char* filters, const char* wallTimeSpec) {
  LockHolder holder(&ourLock, "CPUProfiling(30)");
  TracingGate::Closure stillTracing;
  if ((ourStatus & CPU_TIMES_BIT) != 0) {
    return ERRORCODE_ALREADY_STARTED;
  }
  KString filterText(filters == nullptr ? "" : filters);
  KString wallTimeText = wallTimeSpec == nullptr ? Filter::readWallTimeSpecFromFile(nullptr) : KString(wallTimeSpec);
  Filter::reloadFilters(filterText, wallTimeText);
  // The reader of the snapshot can then say which calls were folded, and why.
  ourDB->setProperty(FILTERS_PROPERTY, ourDB->myStrPool->getDBIndex(filterText.get(), true));
  // The threads' callee caches hold method flags that may have just changed.
  forEachLiveThread([&](ThreadInfo* info) { info->myCallees.clear(); });
  if ((mode & CPU_TIMES_BIT) == 0) {
    throwException(env, "(mode & ProfilingModes::CPU_TIMES_BIT) != 0", static_cast<int>(mode), 0);
    return 0;
  }
  if ((mode & ~(CPU_PROFILING | CPU_TIME_SOURCE)) != 0) {
    throwException(env, "(mode & ~ProfilingModes::CPU_PROFILING) == 0", static_cast<int>(mode), 0);
    return 0;
  }
  if ((mode & CPU_CLOCK_TIMES_BIT) != 0 && (mode & (CPU_SAMPLED_TIMES_BIT | CPU_ASYNC_BIT)) != 0) {
    throwException(env, "times come from the clock or from samples, not both");
    return 0;
  }
  mode = resolveTimeSource(mode);
  ourStatus |= mode;
  if ((mode & CPU_ASYNC_BIT) != 0 && !startAsyncSampling(env)) {
    ourStatus &= ~CPU_ASYNC_BIT;
  }
  ourDB->setProperty(TIMES_PROPERTY, ourDB->myStrPool->getDBIndex(timeSourceName(ourStatus), true));
  ourContainsInvocations = (ourStatus & CPU_COUNTS_BIT) != 0;
  if ((mode & CPU_COUNTS_BIT) != 0) {
    if (exceptionEventsWanted()) {
      check_JVMTI_alive(ourJVMTI->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_EXCEPTION, nullptr));
    }
    redefineCallbackAfterStatusChange(env);
  }
  return 0;
}

jint startCPUProfiling(JNIEnv* env, jlong mode, jstring filters, jstring wallTimeSpec) {
  KString filterText = createUTFKStringFromJString(env, filters);
  if (wallTimeSpec == nullptr) {
    return startCPUProfilingWithSpecs(env, mode, filterText.get(), nullptr);
  }
  KString wallTimeText = createUTFKStringFromJString(env, wallTimeSpec);
  return startCPUProfilingWithSpecs(env, mode, filterText.get(), wallTimeText.get());
}

void stopCPUProfiling(JNIEnv* env) {
  LockHolder holder(&ourLock, "CPUProfiling(60)");
  TracingGate::Closure stillTracing;
  if ((ourStatus & CPU_TIMES_BIT) == 0) {
    return;
  }
  stopAsyncSampling(env);
  if ((ourStatus & CPU_COUNTS_BIT) == 0) {
    ourStatus &= ~(CPU_PROFILING | CPU_TIME_SOURCE);
    return;
  }
  if (exceptionEventsWanted()) {
    check_JVMTI_alive(ourJVMTI->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_EXCEPTION, nullptr));
  }
  // With sampled times the entry times are not times: the stacks go without charging anything,
  // so that a later start that reads the clock never takes them for times.
  if (ourLinuxFastThreadCPUTimeSupported) {
    forEachLiveThread([&](ThreadInfo* info) { dropShadowStack(info, false); });
  }
  CallLogs::releaseAll();
  ourTracingTimesSampled = false;
  ourStatus &= ~(CPU_PROFILING | CPU_TIME_SOURCE);
  redefineCallbackAfterStatusChange(env);
}

jlong commandLineTimeSource(bool asyncSampling, int tracingTimes) {
  jlong bits = asyncSampling ? CPU_ASYNC_BIT : 0;
  if (tracingTimes == Options::TRACING_TIMES_SAMPLED) {
    bits |= CPU_SAMPLED_TIMES_BIT;
  } else if (tracingTimes == Options::TRACING_TIMES_CLOCK) {
    bits |= CPU_CLOCK_TIMES_BIT;
  }
  return bits;
}

jlong commandLineCPUMode(bool tracing, bool sampling, bool noJ2EE) {
  jlong mode = tracing ? (CPU_TIMES_BIT | CPU_COUNTS_BIT) : sampling ? CPU_TIMES_BIT : 0;
  if (mode != 0 && !noJ2EE) {
    mode |= CPU_J2EE_BIT;
  }
  return mode;
}

void startCPUProfilingFromCommandLine(JNIEnv* env) {
  jlong mode = commandLineCPUMode(ourOptions.myTracing, ourOptions.mySampling || ourOptions.myAsyncSampling,
                                  ourOptions.myNoJ2EE);
  if (mode == 0) {
    return;
  }
  mode |= commandLineTimeSource(ourOptions.myAsyncSampling, ourOptions.myTracingTimes);
  KString filters = Filter::readFilterSpecOnStartup();
  KString wallTimeSpec = Filter::readWallTimeSpecOnStartup();
  jint result = startCPUProfilingWithSpecs(env, mode, filters.get(), wallTimeSpec.get());
  reportStartResult(result, "CPU profiling is started", "Cannot start CPU profiling");
}

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearCPUData(JNIEnv*, jclass) {
  LockHolder holder(&ourLock, "CPUProfiling(103)");
  TracingGate::Closure stillTracing;
  forEachLiveThread([&](ThreadInfo* info) { info->clearCPUAndJ2EEInfo(); });
  ourOldestDeadThreads->clearCPUAndJ2EEInfo();
  clearTableAndNote(CPUPROFILING_TABLE_ID);
  clearTableAndNote(J2EE_TABLE_ID);
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startCPUProfiling(JNIEnv* env, jclass, jlong mode,
                                                                      jstring filters, jstring wallTimeSpec) {
  return startCPUProfiling(env, mode, filters, wallTimeSpec);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopCPUProfiling(JNIEnv* env, jclass) { stopCPUProfiling(env); }

}  // extern "C"

namespace {

void addCapabilities(jvmtiCapabilities* capabilities) {
  // Tracing hears of throws, which unwind frames past their exit probes.
  capabilities->can_generate_exception_events = exceptionEventsWanted() ? 1 : 0;
}

void setEventHandlers(jvmtiEventCallbacks* callbacks) {
  // Switched on only while calls are counted.
  callbacks->Exception = exception;
}

const JNINativeMethod CORE_NATIVES[] = {
    nativeRow("clearCPUData", "()V", Java_com_kestrix_runtime_Core_clearCPUData),
    nativeRow("startCPUProfiling", "(JLjava/lang/String;Ljava/lang/String;)I",
              Java_com_kestrix_runtime_Core_startCPUProfiling),
    nativeRow("stopCPUProfiling", "()V", Java_com_kestrix_runtime_Core_stopCPUProfiling),
};

const JNINativeMethod CALLBACK_NATIVES[] = {
    nativeRow("kjpMethodEntry0", "(SS)V", Java_com_kestrix_runtime_Callback_kjpMethodEntry0),
    nativeRow("kjpMethodExit0", "(SS)V", Java_com_kestrix_runtime_Callback_kjpMethodExit0),
    nativeRow("kjpCallLogEvent0", "(II)V", Java_com_kestrix_runtime_Callback_kjpCallLogEvent0),
};

// The mark that asks for a wall-time correction goes with the ThreadInfo, and writeTables
// corrects only live threads and the folded ones, so a thread that ends after a wall-timed
// call is corrected now or its callers stay below it.
void threadEnded(ThreadInfo* info) {
  // The thread's last traced calls are still in its log.
  CallLogs::release(info);
  WallTimeCorrector::correctThread(info);
}

// A wall-timed method can leave its CPU-timed callers smaller than itself; the callers are
// raised before anyone reads the times.
void beforeTablesWritten(JNIEnv*, jint tableMask) {
  if ((tableMask & (1 << CPUPROFILING_TABLE_ID)) == 0) {
    return;
  }
  WallTimeCorrector corrector;
  forEachLiveThread([&](ThreadInfo* info) { corrector.scheduleForCorrection(info); });
  if (ourOldestDeadThreads != nullptr) {
    corrector.scheduleForCorrection(ourOldestDeadThreads);
  }
  corrector.correctWallTimes();
}

}  // namespace

const Engine ourCPUEngine = {
    "cpu",
    addCapabilities,
    setEventHandlers,
    EventList{nullptr, 0},
    startCPUProfilingFromCommandLine,
    startSamplerThread,
    nativeList(CORE_NATIVES),
    nativeList(CALLBACK_NATIVES),
    nullptr,
    threadEnded,
    nullptr,
    beforeTablesWritten,
};
