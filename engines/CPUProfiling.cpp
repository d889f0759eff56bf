#include "engines/CPUProfiling.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/KString.h"
#include "agent/LifecycleEvents.h"
#include "agent/Options.h"
#include "engines/Filter.h"
#include "engines/ThreadInfo.h"
#include "engines/Tracing.h"
#include "engines/TracingGate.h"
#include "snapshot/SnapshotFile.h"

void (*ourRedefineCallback)(JNIEnv* env) = nullptr;

namespace {

void redefineCallback(JNIEnv* env) {
  if (ourRedefineCallback != nullptr) {
    ourRedefineCallback(env);
  }
}

}  // namespace

jint startCPUProfilingWithSpecs(JNIEnv* env, jlong mode, const char* filters, const char* wallTimeSpec) {
  LockHolder holder(&ourLock, "CPUProfiling(30)");
  TracingGate::Closure stillTracing;
  if ((ourStatus & CPU_TIMES_BIT) != 0) {
    return 3;
  }
  KString filterText(filters == nullptr ? "" : filters);
  KString wallTimeText = wallTimeSpec == nullptr ? Filter::readWallTimeSpecFromFile(nullptr) : KString(wallTimeSpec);
  Filter::reloadFilters(filterText, wallTimeText);
  // The threads' callee caches hold method flags that may have just changed.
  forEachLiveThread([&](ThreadInfo* info) { info->myCallees.clear(); });
  if ((mode & CPU_TIMES_BIT) == 0) {
    throwException(env, "(mode & ProfilingModes::CPU_TIMES_BIT) != 0", static_cast<int>(mode), 0);
    return 0;
  }
  if ((mode & ~CPU_PROFILING) != 0) {
    throwException(env, "(mode & ~ProfilingModes::CPU_PROFILING) == 0", static_cast<int>(mode), 0);
    return 0;
  }
  ourStatus |= mode;
  ourContainsInvocations = (ourStatus & CPU_COUNTS_BIT) != 0;
  if ((mode & CPU_COUNTS_BIT) != 0) {
    check_JVMTI_error(ourJVMTI->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_EXCEPTION, nullptr));
    redefineCallback(env);
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
  if ((ourStatus & CPU_COUNTS_BIT) == 0) {
    ourStatus &= ~CPU_PROFILING;
    return;
  }
  check_JVMTI_error(ourJVMTI->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_EXCEPTION, nullptr));
  if (ourLinuxFastThreadCPUTimeSupported) {
    forEachLiveThread([&](ThreadInfo* info) { dropShadowStack(info, false); });
  }
  ourStatus &= ~CPU_PROFILING;
  redefineCallback(env);
}

jlong commandLineCPUMode(bool tracing, bool sampling, bool noJ2EE) {
  jlong mode = tracing ? (CPU_TIMES_BIT | CPU_COUNTS_BIT) : sampling ? CPU_TIMES_BIT : 0;
  if (mode != 0 && !noJ2EE) {
    mode |= CPU_J2EE_BIT;
  }
  return mode;
}

void startCPUProfilingFromCommandLine(JNIEnv* env) {
  jlong mode = commandLineCPUMode(ourOptions.myTracing, ourOptions.mySampling, ourOptions.myNoJ2EE);
  if (mode == 0) {
    return;
  }
  KString filters = Filter::readFilterSpecOnStartup();
  KString wallTimeSpec = Filter::readWallTimeSpecOnStartup();
  jint result = startCPUProfilingWithSpecs(env, mode, filters.get(), wallTimeSpec.get());
  reportStartResult(result, "CPU profiling is started", "Cannot start CPU profiling");
}
