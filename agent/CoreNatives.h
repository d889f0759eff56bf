#ifndef KJP_CORENATIVES_H
#define KJP_CORENATIVES_H

#include <jni.h>

#include "engines/Engine.h"

// The natives of com/kestrix/runtime/Core that belong to no engine, through which the Java
// runtime reads the agent's status, sets properties, stores telemetry, asks for table updates
// and takes snapshots. The engines serve the natives that start, stop and clear them (see
// Engine::myCoreNatives). They run on the runtime's threads (requests, telemetry, the capture
// timer) and serialise on ourLock where they touch shared state.

// The rows that initializeCore registers on Core, besides the engines' own.
extern const JNINativeMethod ourCoreNativeMethods[];
extern const jint ourCoreNativeMethodCount;

// The same registration for the socket helper the request thread needs on every JVM.
extern const JNINativeMethod ourCoreSocketNativeMethods[];
extern const jint ourCoreSocketNativeMethodCount;

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_createMarker(JNIEnv* env, jclass, jint port, jint type);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_disableStackTelemetry(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_enableStackTelemetry(JNIEnv* env, jclass);
JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_getDatabaseStatistics(JNIEnv* env, jclass);
JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_getHostID(JNIEnv* env, jclass);
JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getProcessCPUTimeNs(JNIEnv* env, jclass);
JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getStatus(JNIEnv* env, jclass);
JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_getUptimeMs(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_setProperty(JNIEnv* env, jclass, jstring name, jstring value);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_storeTelemetryRecord(JNIEnv* env, jclass, jintArray constants,
                                                                         jintArray values);
}

#endif
