#ifndef KJP_MONITORS_H
#define KJP_MONITORS_H

#include <jni.h>

#include "engines/Engine.h"

// Monitor profiling: how long threads block on Java monitors and wait in Object.wait.
extern const Engine ourMonitorEngine;

namespace Monitors {

// getTimeNs() when recording last began or its data was last cleared; 0 if it never began.
// Together with ourMonitorRecordingLastNs it gives the recording's duration, which the
// client needs to put the blocked times in proportion.
extern volatile jlong ourMonitorRecordingStartNs;
// getTimeNs() when recording last ended.
extern volatile jlong ourMonitorRecordingLastNs;

// Whether the four monitor events (contended enter and entered, wait and waited) have their
// handlers among the agent's event callbacks; set when the engine hands them over at load.
// While it is false, starting and stopping monitor profiling only changes the status bit, the
// probes and the times, since an event without a handler must not be switched on.
extern bool ourMonitorEventHandlersInstalled;

// Starts monitor profiling: ERRORCODE_OK, or ERRORCODE_ALREADY_STARTED when it runs. Takes ourLock.
jint start(JNIEnv* env);
// Stops it; nothing happens when it doesn't run. Takes ourLock.
void stop(JNIEnv* env);

}  // namespace Monitors

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearMonitorData(JNIEnv* env, jclass);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startMonitorProfiling(JNIEnv* env, jclass);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopMonitorProfiling(JNIEnv* env, jclass);
}

#endif
