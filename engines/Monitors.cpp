#include "engines/Monitors.h"

#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/Options.h"
#include "agent/StartReport.h"

namespace Monitors {

volatile jlong ourMonitorRecordingStartNs = 0;
volatile jlong ourMonitorRecordingLastNs = 0;
bool ourMonitorEventHandlersInstalled = false;

namespace {

// The monitor events, in the order they are switched on and off.
const jvmtiEvent MONITOR_EVENTS[] = {
    JVMTI_EVENT_MONITOR_CONTENDED_ENTER,
    JVMTI_EVENT_MONITOR_CONTENDED_ENTERED,
    JVMTI_EVENT_MONITOR_WAIT,
    JVMTI_EVENT_MONITOR_WAITED,
};

void switchMonitorEvents(jvmtiEventMode mode) {
  if (!ourMonitorEventHandlersInstalled) {
    return;
  }
  for (jvmtiEvent event : MONITOR_EVENTS) {
    check_JVMTI_error(ourJVMTI->SetEventNotificationMode(mode, event, nullptr));
  }
}

}  // namespace

jint start() {
  LockHolder holder(&ourLock, "Monitors(37)");
  if ((ourStatus & MONITORS_BIT) != 0) {
    return ERRORCODE_ALREADY_STARTED;
  }
  ourStatus |= MONITORS_BIT;
  switchMonitorEvents(JVMTI_ENABLE);
  ourMonitorRecordingStartNs = getTimeNs();
  return ERRORCODE_OK;
}

void stop() {
  LockHolder holder(&ourLock, "Monitors(48)");
  if ((ourStatus & MONITORS_BIT) == 0) {
    return;
  }
  switchMonitorEvents(JVMTI_DISABLE);
  ourStatus &= ~MONITORS_BIT;
  ourMonitorRecordingLastNs = getTimeNs();
}

}  // namespace Monitors

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearMonitorData(JNIEnv*, jclass) {
  LockHolder holder(&ourLock, "Monitors(62)");
  Monitors::ourMonitorRecordingStartNs = getTimeNs();
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startMonitorProfiling(JNIEnv*, jclass) {
  return Monitors::start();
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopMonitorProfiling(JNIEnv*, jclass) { Monitors::stop(); }

}  // extern "C"

namespace {

void addCapabilities(jvmtiCapabilities* capabilities) {
  capabilities->can_generate_monitor_events = 1;
  capabilities->can_get_monitor_info = 1;
}

void startFromOptions(JNIEnv*) {
  if (!ourOptions.myMonitors) {
    return;
  }
  jint result = Monitors::start();
  reportStartResult(result, "Monitor profiling is started", "Cannot start monitor profiling");
}

const JNINativeMethod CORE_NATIVES[] = {
    nativeRow("clearMonitorData", "()V", Java_com_kestrix_runtime_Core_clearMonitorData),
    nativeRow("startMonitorProfiling", "()I", Java_com_kestrix_runtime_Core_startMonitorProfiling),
    nativeRow("stopMonitorProfiling", "()V", Java_com_kestrix_runtime_Core_stopMonitorProfiling),
};

}  // namespace

const Engine ourMonitorEngine = {
    "monitors",
    addCapabilities,
    nullptr,
    EventList{nullptr, 0},
    startFromOptions,
    nullptr,
    nativeList(CORE_NATIVES),
    NativeList{nullptr, 0},
    nullptr,
    nullptr,
};
