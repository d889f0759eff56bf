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
#include "engines/Engine.h"
#include "engines/Sampling.h"
#include "snapshot/SnapshotCapture.h"
#include "snapshot/TableStream.h"
#include "snapshot/TransferGuard.h"

extern "C" {

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

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_setProperty(JNIEnv* env, jclass, jstring name, jstring value) {
  KString nameText = createUTFKStringFromJString(env, name);
  KString valueText = createUTFKStringFromJString(env, value);
  LockHolder holder(&ourLock, "CoreNatives(159)");
  jint valueIndex = value == nullptr ? 0 : ourDB->myStrPool->getDBIndex(valueText.get(), true);
  ourDB->setProperty(nameText.get(), valueIndex);
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
    nativeRow("addSnapshotInfo", "(Ljava/lang/String;J)V", Java_com_kestrix_runtime_Core_addSnapshotInfo),
    nativeRow("captureSnapshot", "(Ljava/lang/String;IJ)Ljava/lang/String;",
        Java_com_kestrix_runtime_Core_captureSnapshot),
    nativeRow("createMarker", "(II)V", Java_com_kestrix_runtime_Core_createMarker),
    nativeRow("disableStackTelemetry", "()V", Java_com_kestrix_runtime_Core_disableStackTelemetry),
    nativeRow("enableStackTelemetry", "()V", Java_com_kestrix_runtime_Core_enableStackTelemetry),
    nativeRow("findSnapshot", "(Ljava/lang/String;)Z", Java_com_kestrix_runtime_Core_findSnapshot),
    nativeRow("getDatabaseStatistics", "()Ljava/lang/String;",
        Java_com_kestrix_runtime_Core_getDatabaseStatistics),
    nativeRow("getHostID", "()Ljava/lang/String;", Java_com_kestrix_runtime_Core_getHostID),
    nativeRow("getProcessCPUTimeNs", "()J", Java_com_kestrix_runtime_Core_getProcessCPUTimeNs),
    nativeRow("getStatus", "()J", Java_com_kestrix_runtime_Core_getStatus),
    nativeRow("getUptimeMs", "()J", Java_com_kestrix_runtime_Core_getUptimeMs),
    nativeRow("setProperty", "(Ljava/lang/String;Ljava/lang/String;)V",
        Java_com_kestrix_runtime_Core_setProperty),
    nativeRow("storeTelemetryRecord", "([I[I)V", Java_com_kestrix_runtime_Core_storeTelemetryRecord),
    nativeRow("writeTables", "(II[I)V", Java_com_kestrix_runtime_Core_writeTables),
    nativeRow("sealSnapshot", "(Ljava/lang/String;)V", Java_com_kestrix_runtime_Core_sealSnapshot),
    nativeRow("openSnapshotForTransfer", "(Ljava/lang/String;Ljava/io/FileDescriptor;)J",
              Java_com_kestrix_runtime_Core_openSnapshotForTransfer),
};
const jint ourCoreNativeMethodCount = static_cast<jint>(sizeof(ourCoreNativeMethods) / sizeof(ourCoreNativeMethods[0]));

const JNINativeMethod ourCoreSocketNativeMethods[] = {
    nativeRow("getSocketFD", "(Ljava/net/Socket;)I", Java_com_kestrix_runtime_Core_getSocketFD),
};
const jint ourCoreSocketNativeMethodCount =
    static_cast<jint>(sizeof(ourCoreSocketNativeMethods) / sizeof(ourCoreSocketNativeMethods[0]));
