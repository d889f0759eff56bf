#ifndef KJP_CPUPROFILING_H
#define KJP_CPUPROFILING_H

#include <jni.h>

#include "engines/Engine.h"

// The CPU engine: tracing and sampling, their start, stop and clear, and its Core natives.
extern const Engine ourCPUEngine;

// The property that holds the filter text of the last start of CPU profiling.
const char* const FILTERS_PROPERTY = "kjp.cpu.filters";

// Starting and stopping CPU profiling. The runtime's Core natives and vmInit call these; the
// mode is a set of the CPU bits of ourStatus (times, counts, j2ee).

// Returns 0, or 3 when CPU profiling already runs. Reloads the filter lists from 'filters'
// (null meaning none) and 'wallTimeSpec' (null meaning the user's wall-time file or the
// default). A mode without the times bit, or with bits beyond the CPU ones, raises a
// RuntimeException in 'env' and returns 0.
jint startCPUProfiling(JNIEnv* env, jlong mode, jstring filters, jstring wallTimeSpec);
// The same with the lists as texts, for callers that hold no Java strings.
jint startCPUProfilingWithSpecs(JNIEnv* env, jlong mode, const char* filters, const char* wallTimeSpec);

// Stops CPU profiling, closing the open traced calls of every live thread.
void stopCPUProfiling(JNIEnv* env);

// Starts the CPU mode asked for on the command line ("tracing" or "sampling", with j2ee unless
// "noj2ee"), reading the filter and wall-time lists of the options, and reports the outcome.
// Does nothing when neither was asked for.
void startCPUProfilingFromCommandLine(JNIEnv* env);

// The mode bits for the command-line options; 0 when no CPU mode was asked for.
jlong commandLineCPUMode(bool tracing, bool sampling, bool noJ2EE);
// The bits that say where the times come from: "asyncsampling", and "tracingtimes=" as one of
// the Options::TRACING_TIMES_ values.
jlong commandLineTimeSource(bool asyncSampling, int tracingTimes);

// The property that says where the CPU times of the last start came from, and its values: the
// thread clock at every traced call, samples of all stacks at safepoints, samples of per-thread
// CPU timers.
const char* const TIMES_PROPERTY = "kjp.cpu.times";
const char* const TIMES_FROM_CLOCK = "clock";
const char* const TIMES_FROM_SAFEPOINT_SAMPLES = "safepoint samples";
const char* const TIMES_FROM_ASYNC_SAMPLES = "async samples";
// The value of TIMES_PROPERTY for a status word.
const char* timeSourceName(jlong status);

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearCPUData(JNIEnv* env, jclass);
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startCPUProfiling(JNIEnv* env, jclass, jlong mode,
                                                                      jstring filters, jstring wallTimeSpec);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopCPUProfiling(JNIEnv* env, jclass);
}

#endif
