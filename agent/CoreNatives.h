#ifndef KJP_CORENATIVES_H
#define KJP_CORENATIVES_H

#include <jni.h>

// The natives of com/kestrix/runtime/Core, through which the Java runtime drives the agent:
// starting and stopping measurements, clearing data, properties, telemetry, table updates and
// snapshots. They run on the runtime's threads (requests, telemetry, the capture timer) and
// serialise on ourLock where they touch shared state. Natives with an int result return
// ERRORCODE_OK or ERRORCODE_ALREADY_STARTED, the codes the Java side knows.

const jint ERRORCODE_OK = 0;
const jint ERRORCODE_ALREADY_STARTED = 3;

// The rows that initializeCore registers on Core.
extern const JNINativeMethod ourCoreNativeMethods[];
extern const jint ourCoreNativeMethodCount;

// The same registration for the socket helper the request thread needs on every JVM.
extern const JNINativeMethod ourCoreSocketNativeMethods[];
extern const jint ourCoreSocketNativeMethodCount;

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearAllocationData(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearCPUData(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearExceptions(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearMonitorData(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_createMarker(JNIEnv* env, jclass, jint port, jint type);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_disableStackTelemetry(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_enableStackTelemetry(JNIEnv* env, jclass);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEach(JNIEnv* env, jclass);
JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEachEnabled(JNIEnv* env,
                                                                                                      jclass);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimit(JNIEnv* env, jclass);
JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimitEnabled(JNIEnv* env,
                                                                                                     jclass);
JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_getDatabaseStatistics(JNIEnv* env, jclass);
JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_getHostID(JNIEnv* env, jclass);
JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getProcessCPUTimeNs(JNIEnv* env, jclass);
JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getStatus(JNIEnv* env, jclass);
JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getUptimeMs(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_markMemory(JNIEnv* env, jclass, jint type, jstring description);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_setProperty(JNIEnv* env, jclass, jstring name, jstring value);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startAllocationRecording(JNIEnv* env, jclass,
                                                                             jboolean recordEachEnabled,
                                                                             jint recordEach,
                                                                             jboolean sizeLimitEnabled,
                                                                             jint sizeLimit);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startCPUProfiling(JNIEnv* env, jclass, jlong mode,
                                                                      jstring filters, jstring wallTimeSpec);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startMonitorProfiling(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopAllocationRecording(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopCPUProfiling(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopMonitorProfiling(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_storeTelemetryRecord(JNIEnv* env, jclass, jintArray constants,
                                                                         jintArray values);
}

#endif
