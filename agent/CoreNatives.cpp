#include "agent/CoreNatives.h"

#include "agent/ApplicationMarkers.h"
#include "agent/CPUTime.h"
#include "agent/Clock.h"
#include "agent/HostID.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/SocketDescriptor.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/AllocationEntry.h"
#include "engines/CPUProfiling.h"
#include "engines/Monitors.h"
#include "engines/ObjectEnumerator.h"
#include "engines/Sampling.h"
#include "engines/ThreadInfo.h"
#include "engines/TracingGate.h"
#include "snapshot/SnapshotCapture.h"
#include "snapshot/TableStream.h"

namespace {

// The monitor events, in the order they are switched on and off.
const jvmtiEvent MONITOR_EVENTS[] = {
    JVMTI_EVENT_MONITOR_CONTENDED_ENTER,
    JVMTI_EVENT_MONITOR_CONTENDED_ENTERED,
    JVMTI_EVENT_MONITOR_WAIT,
    JVMTI_EVENT_MONITOR_WAITED,
};

void switchMonitorEvents(jvmtiEventMode mode) {
  if (!Monitors::ourMonitorEventHandlersInstalled) {
    return;
  }
  for (jvmtiEvent event : MONITOR_EVENTS) {
    check_JVMTI_error(ourJVMTI->SetEventNotificationMode(mode, event, nullptr));
  }
}

void redefineCallbackAfterStatusChange(JNIEnv* env) {
  if (ourRedefineCallback != nullptr) {
    ourRedefineCallback(env);
  }
}

// The table's rows go, and the clear is published so that a client drops what it holds of
// the table instead of waiting for deletions that will never come row by row.
void clearTableAndNote(jint tableID) {
  ourDB->getTable(tableID)->clearTable();
  ourDB->noteTableCleared(tableID);
}

JNINativeMethod row(const char* name, const char* signature, void* function) {
  return JNINativeMethod{const_cast<char*>(name), const_cast<char*>(signature), function};
}

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearAllocationData(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(70)");
  ourObjectEnumerator->clearAllocators();
  clearTableAndNote(ALLOCINFO_TABLE_ID);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearCPUData(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(76)");
  TracingGate::Closure stillTracing;
  forEachLiveThread([&](ThreadInfo* info) { info->clearCPUAndJ2EEInfo(); });
  ourOldestDeadThreads->clearCPUAndJ2EEInfo();
  clearTableAndNote(CPUPROFILING_TABLE_ID);
  clearTableAndNote(J2EE_TABLE_ID);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearExceptions(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(89)");
  // Exception telemetry keeps no data in this build; there is nothing to clear yet.
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearMonitorData(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(94)");
  Monitors::ourMonitorRecordingStartNs = getTimeNs();
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_createMarker(JNIEnv* env, jclass, jint port, jint type) {
  createMarker(port, type);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_disableStackTelemetry(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(103)");
  ourStatus &= ~STACK_TELEMETRY;
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_enableStackTelemetry(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(108)");
  ourStatus |= STACK_TELEMETRY;
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEach(JNIEnv* env, jclass) {
  return ourAllocationRecordingSettings.myRecordEach;
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEachEnabled(JNIEnv* env,
                                                                                                      jclass) {
  return ourAllocationRecordingSettings.myRecordEachEnabled ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimit(JNIEnv* env, jclass) {
  return ourAllocationRecordingSettings.mySizeLimit;
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimitEnabled(JNIEnv* env,
                                                                                                     jclass) {
  return ourAllocationRecordingSettings.mySizeLimitEnabled ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_getDatabaseStatistics(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(131)");
  return newStringUTF(env, ourDB->getStatistics());
}

JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_getHostID(JNIEnv* env, jclass) {
  return newStringUTF(env, getHostID());
}

JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getProcessCPUTimeNs(JNIEnv* env, jclass) {
  // Without a process-wide clock the figure is a sum over the known threads, read under the lock.
  LockHolder holder(&ourLock, "CoreNatives(141)");
  return getProcessCPUTimeNs();
}

JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getStatus(JNIEnv* env, jclass) { return ourStatus; }

JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getUptimeMs(JNIEnv* env, jclass) {
  return ourUptimeProvider.getUptimeMs();
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_markMemory(JNIEnv* env, jclass, jint type, jstring description) {
  LockHolder holder(&ourLock, "CoreNatives(152)");
  // Object generations aren't recorded by this build: a mark has nothing to stamp yet.
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_setProperty(JNIEnv* env, jclass, jstring name, jstring value) {
  KString nameText = createUTFKStringFromJString(env, name);
  KString valueText = createUTFKStringFromJString(env, value);
  LockHolder holder(&ourLock, "CoreNatives(159)");
  jint valueIndex = value == nullptr ? 0 : ourDB->myStrPool->getDBIndex(valueText.get(), true);
  ourDB->setProperty(nameText.get(), valueIndex);
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startAllocationRecording(JNIEnv* env, jclass,
                                                                             jboolean recordEachEnabled,
                                                                             jint recordEach,
                                                                             jboolean sizeLimitEnabled,
                                                                             jint sizeLimit) {
  LockHolder holder(&ourLock, "CoreNatives(168)");
  if ((ourStatus & ALLOCATION_RECORDING_BIT) != 0) {
    return ERRORCODE_ALREADY_STARTED;
  }
  ourAllocationRecordingSettings.myRecordEachEnabled = recordEachEnabled != JNI_FALSE;
  ourAllocationRecordingSettings.myRecordEach = recordEach;
  ourAllocationRecordingSettings.mySizeLimitEnabled = sizeLimitEnabled != JNI_FALSE;
  ourAllocationRecordingSettings.mySizeLimit = sizeLimit;
  ourStatus |= ALLOCATION_RECORDING_BIT;
  redefineCallbackAfterStatusChange(env);
  check_JVMTI_error(ourJVMTI->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_VM_OBJECT_ALLOC, nullptr));
  return ERRORCODE_OK;
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startCPUProfiling(JNIEnv* env, jclass, jlong mode,
                                                                      jstring filters, jstring wallTimeSpec) {
  return startCPUProfiling(env, mode, filters, wallTimeSpec);
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startMonitorProfiling(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(188)");
  if ((ourStatus & MONITORS_BIT) != 0) {
    return ERRORCODE_ALREADY_STARTED;
  }
  ourStatus |= MONITORS_BIT;
  switchMonitorEvents(JVMTI_ENABLE);
  Monitors::ourMonitorRecordingStartNs = getTimeNs();
  return ERRORCODE_OK;
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopAllocationRecording(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(199)");
  if ((ourStatus & ALLOCATION_RECORDING_BIT) == 0) {
    return;
  }
  ourStatus &= ~ALLOCATION_RECORDING_BIT;
  check_JVMTI_error(ourJVMTI->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_VM_OBJECT_ALLOC, nullptr));
  redefineCallbackAfterStatusChange(env);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopCPUProfiling(JNIEnv* env, jclass) { stopCPUProfiling(env); }

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopMonitorProfiling(JNIEnv* env, jclass) {
  LockHolder holder(&ourLock, "CoreNatives(211)");
  if ((ourStatus & MONITORS_BIT) == 0) {
    return;
  }
  switchMonitorEvents(JVMTI_DISABLE);
  ourStatus &= ~MONITORS_BIT;
  Monitors::ourMonitorRecordingLastNs = getTimeNs();
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_storeTelemetryRecord(JNIEnv* env, jclass, jintArray constants,
                                                                         jintArray values) {
  jint constantCount = constants == nullptr ? 0 : env->GetArrayLength(constants);
  jint valueCount = values == nullptr ? 0 : env->GetArrayLength(values);
  jint* constantValues = constants == nullptr ? nullptr : env->GetIntArrayElements(constants, nullptr);
  jint* telemetryValues = values == nullptr ? nullptr : env->GetIntArrayElements(values, nullptr);
  {
    // Held through the thread-state sampling too, so that a sample and its row agree.
    LockHolder holder(&ourLock, "CoreNatives(227)");
    TelemetryRecord* record = ourDB->storeTelemetryValues(constantValues, constantCount, telemetryValues, valueCount);
    jint threadStateStart = -1;
    jint threadStateCount = 0;
    if ((ourStatus & STACK_TELEMETRY) != 0) {
      sampleThreadStatusesJVMTI(env, &threadStateStart, &threadStateCount);
    }
    record->myValues[TELE_THREAD_STATE_COUNT] = threadStateCount;
    record->myValues[TELE_THREAD_STATE_START_INDEX] = threadStateStart;
    record->myValues[TELE_UPTIME_DS] = static_cast<jint>(ourUptimeProvider.getUptimeMs() / 100);
  }
  if (constantValues != nullptr) {
    env->ReleaseIntArrayElements(constants, constantValues, JNI_ABORT);
  }
  if (telemetryValues != nullptr) {
    env->ReleaseIntArrayElements(values, telemetryValues, JNI_ABORT);
  }
}

}  // extern "C"

const JNINativeMethod ourCoreNativeMethods[] = {
    row("addSnapshotInfo", "(Ljava/lang/String;J)V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_addSnapshotInfo)),
    row("captureSnapshot", "(Ljava/lang/String;IJ)Ljava/lang/String;",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_captureSnapshot)),
    row("clearAllocationData", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_clearAllocationData)),
    row("clearCPUData", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_clearCPUData)),
    row("clearExceptions", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_clearExceptions)),
    row("clearMonitorData", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_clearMonitorData)),
    row("createMarker", "(II)V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_createMarker)),
    row("disableStackTelemetry", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_disableStackTelemetry)),
    row("enableStackTelemetry", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_enableStackTelemetry)),
    row("findSnapshot", "(Ljava/lang/String;)Z", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_findSnapshot)),
    row("getAllocationRecordingSettingsRecordEach", "()I",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEach)),
    row("getAllocationRecordingSettingsRecordEachEnabled", "()Z",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEachEnabled)),
    row("getAllocationRecordingSettingsSizeLimit", "()I",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimit)),
    row("getAllocationRecordingSettingsSizeLimitEnabled", "()Z",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimitEnabled)),
    row("getDatabaseStatistics", "()Ljava/lang/String;",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getDatabaseStatistics)),
    row("getHostID", "()Ljava/lang/String;", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getHostID)),
    row("getProcessCPUTimeNs", "()J", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getProcessCPUTimeNs)),
    row("getStatus", "()J", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getStatus)),
    row("getUptimeMs", "()J", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getUptimeMs)),
    row("markMemory", "(ILjava/lang/String;)V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_markMemory)),
    row("setProperty", "(Ljava/lang/String;Ljava/lang/String;)V",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_setProperty)),
    row("startAllocationRecording", "(ZIZI)I",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_startAllocationRecording)),
    row("startCPUProfiling", "(JLjava/lang/String;Ljava/lang/String;)I",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_startCPUProfiling)),
    row("startMonitorProfiling", "()I", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_startMonitorProfiling)),
    row("stopAllocationRecording", "()V",
        reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_stopAllocationRecording)),
    row("stopCPUProfiling", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_stopCPUProfiling)),
    row("stopMonitorProfiling", "()V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_stopMonitorProfiling)),
    row("storeTelemetryRecord", "([I[I)V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_storeTelemetryRecord)),
    row("writeTables", "(II[I)V", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_writeTables)),
};
const jint ourCoreNativeMethodCount = static_cast<jint>(sizeof(ourCoreNativeMethods) / sizeof(ourCoreNativeMethods[0]));

const JNINativeMethod ourCoreSocketNativeMethods[] = {
    row("getSocketFD", "(Ljava/net/Socket;)I", reinterpret_cast<void*>(Java_com_kestrix_runtime_Core_getSocketFD)),
};
const jint ourCoreSocketNativeMethodCount =
    static_cast<jint>(sizeof(ourCoreSocketNativeMethods) / sizeof(ourCoreSocketNativeMethods[0]));
