#ifndef KJP_ALLOCATIONRECORDING_H
#define KJP_ALLOCATIONRECORDING_H

#include <jni.h>
#include <jvmti.h>

#include "engines/AllocationEntry.h"
#include "engines/Engine.h"

// The allocation recording engine: starting, stopping and clearing it, the events through
// which allocations and frees reach it, and its Core natives. What happens to one allocation
// is in AllocationEntry.
extern const Engine ourAllocationEngine;

namespace AllocationRecording {

// Starts recording with 'settings': ERRORCODE_OK, or ERRORCODE_ALREADY_STARTED (and nothing
// changes) when it already runs. Takes ourLock.
jint start(JNIEnv* env, const AllocationRecordingSettings& settings);
// Stops recording; nothing happens when it doesn't run. Takes ourLock.
void stop(JNIEnv* env);

}  // namespace AllocationRecording

// JVMTI ObjectFree: a recorded object is gone, and its allocator row is free again. Runs on
// whatever thread the JVM reports from, and must not take ourLock.
void JNICALL objectFree(jvmtiEnv* jvmti, jlong tag);

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearAllocationData(JNIEnv* env, jclass);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEach(JNIEnv* env, jclass);
JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEachEnabled(JNIEnv* env,
                                                                                                      jclass);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimit(JNIEnv* env, jclass);
JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimitEnabled(JNIEnv* env,
                                                                                                     jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_markMemory(JNIEnv* env, jclass, jint type, jstring description);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startAllocationRecording(JNIEnv* env, jclass,
                                                                             jboolean recordEachEnabled,
                                                                             jint recordEach,
                                                                             jboolean sizeLimitEnabled,
                                                                             jint sizeLimit);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopAllocationRecording(JNIEnv* env, jclass);
}

#endif
