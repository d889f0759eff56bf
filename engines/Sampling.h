#ifndef KJP_SAMPLING_H
#define KJP_SAMPLING_H

#include <jni.h>
#include <jvmti.h>

class ThreadInfo;

// Frames per thread that one GetAllStackTraces call captures.
const jint SAMPLER_MAX_FRAMES = 10000;
// Sample intervals outside 1 ns .. this are clock glitches, not time spent.
const jlong MAX_SAMPLE_DELTA_NS = 99999999999LL;

// Body of the "KJPAgent-CPUSampler" agent thread: sleeps on ourJVMTISamplerLock, and while
// CPU times are collected charges each thread's CPU time since the previous pass to every
// frame on its stack. Never returns.
void JNICALL sampler_thread_entry(jvmtiEnv* jvmti, JNIEnv* env, void* arg);

// Starts the sampler thread at VM init, whether or not sampling runs yet.
void startSamplerThread(JNIEnv* env);

// One pass over all threads, charging 'wall' (the measured length of the wait before it) to
// wall-time frames. Takes ourLock.
void samplingPass(JNIEnv* env, jlong wall);

// Steps of a pass for one thread whose top frame is known (hidden frames already left) and
// whose thread CPU clock reads 'cpu': charges the time since its previous sample to 'frame'
// and every frame above it. 'wall' may be raised and stays raised for the rest of the pass.
void chargeSample(ThreadInfo* info, jint frame, jlong cpu, jlong* wall);

// The first non-hidden frame at or above 'frame'; 0 or -1 when there is none.
jint skipHiddenFrames(jint frame);

// Writes one thread-state row per live profiled thread for the stack telemetry and reports the
// first row and the count (0 and 0 when nothing was written). Caller holds ourLock.
void sampleThreadStatusesJVMTI(JNIEnv* env, jint* op_startIndex, jint* op_threadCount);

// The stack telemetry switch, a bit of ourStatus.
void enableStackTelemetry();
void disableStackTelemetry();

#endif
