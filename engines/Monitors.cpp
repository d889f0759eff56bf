#include "engines/Monitors.h"

#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/Options.h"
#include "agent/StartReport.h"
#include "db/DB.h"
#include "engines/MonitorUsage.h"
#include "instrument/ParkProbes.h"

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
    check_JVMTI_alive(ourJVMTI->SetEventNotificationMode(mode, event, nullptr));
  }
}

}  // namespace

jint start(JNIEnv* env) {
  // Before the lock: it runs Java code the first time.
  installParkProbes(env);
  LockHolder holder(&ourLock, "Monitors(37)");
  if ((ourStatus & MONITORS_BIT) != 0) {
    return ERRORCODE_ALREADY_STARTED;
  }
  ourStatus |= MONITORS_BIT;
  switchMonitorEvents(JVMTI_ENABLE);
  // The park probes of java.util.concurrent's locks.
  redefineCallbackAfterStatusChange(env);
  ourMonitorRecordingStartNs = getTimeNs();
  return ERRORCODE_OK;
}

void stop(JNIEnv* env) {
  LockHolder holder(&ourLock, "Monitors(48)");
  if ((ourStatus & MONITORS_BIT) == 0) {
    return;
  }
  switchMonitorEvents(JVMTI_DISABLE);
  ourStatus &= ~MONITORS_BIT;
  redefineCallbackAfterStatusChange(env);
  ourMonitorRecordingLastNs = getTimeNs();
}

}  // namespace Monitors

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearMonitorData(JNIEnv*, jclass) {
  LockHolder holder(&ourLock, "Monitors(62)");
  Monitors::ourMonitorRecordingStartNs = getTimeNs();
  Monitors::cleanupMonitorUsage();
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startMonitorProfiling(JNIEnv* env, jclass) {
  return Monitors::start(env);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopMonitorProfiling(JNIEnv* env, jclass) {
  Monitors::stop(env);
}

}  // extern "C"

namespace {

void addCapabilities(jvmtiCapabilities* capabilities) {
  capabilities->can_generate_monitor_events = 1;
  capabilities->can_get_monitor_info = 1;
}

void setEventHandlers(jvmtiEventCallbacks* callbacks) {
  callbacks->MonitorContendedEnter = Monitors::monitorContendedEnter;
  callbacks->MonitorContendedEntered = Monitors::monitorContendedEntered;
  callbacks->MonitorWait = Monitors::monitorWait;
  callbacks->MonitorWaited = Monitors::monitorWaited;
  Monitors::ourMonitorEventHandlersInstalled = true;
}

void startFromOptions(JNIEnv* env) {
  if (!ourOptions.myMonitors) {
    return;
  }
  jint result = Monitors::start(env);
  reportStartResult(result, "Monitor profiling is started", "Cannot start monitor profiling");
}

const JNINativeMethod CORE_NATIVES[] = {
    nativeRow("clearMonitorData", "()V", Java_com_kestrix_runtime_Core_clearMonitorData),
    nativeRow("startMonitorProfiling", "()I", Java_com_kestrix_runtime_Core_startMonitorProfiling),
    nativeRow("stopMonitorProfiling", "()V", Java_com_kestrix_runtime_Core_stopMonitorProfiling),
};

const JNINativeMethod CALLBACK_NATIVES[] = {
    nativeRow("kjpParkEntry0", "(Ljava/lang/Object;)V", Java_com_kestrix_runtime_Callback_kjpParkEntry0),
    nativeRow("kjpParkExit0", "(Ljava/lang/Object;)V", Java_com_kestrix_runtime_Callback_kjpParkExit0),
};

// The client puts the blocked times in proportion to how long recording ran: until now while
// it runs, until its stop otherwise.
void beforeTablesWritten(JNIEnv*, jint tableMask) {
  if ((tableMask & (1 << MONITOR_TABLE_ID)) == 0 || Monitors::ourMonitorRecordingStartNs == 0) {
    return;
  }
  jlong end = (ourStatus & MONITORS_BIT) != 0 ? getTimeNs() : Monitors::ourMonitorRecordingLastNs;
  jlong duration = end - Monitors::ourMonitorRecordingStartNs;
  ourDB->setProperty("kjp.monitor.profiling.duration.ns.low", static_cast<jint>(duration));
  ourDB->setProperty("kjp.monitor.profiling.duration.ns.high", static_cast<jint>(duration >> 32));
}

}  // namespace

const Engine ourMonitorEngine = {
    "monitors",
    addCapabilities,
    setEventHandlers,
    EventList{nullptr, 0},
    startFromOptions,
    nullptr,
    nativeList(CORE_NATIVES),
    nativeList(CALLBACK_NATIVES),
    nullptr,
    nullptr,
    Monitors::mergeMonitorUsage,
    beforeTablesWritten,
};
