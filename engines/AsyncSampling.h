#ifndef KJP_ASYNCSAMPLING_H
#define KJP_ASYNCSAMPLING_H

#include <jni.h>

#include "engines/Engine.h"
#include "engines/SampleRing.h"

// Asynchronous CPU sampling: each profiled thread has a timer on its own CPU clock that
// signals that very thread every sampling period of CPU it burns. The handler walks the
// thread's Java frames with the JVM's asynchronous stack walk, which needs no safepoint, into
// the thread's SampleRing; the drainer thread turns the samples into the call tree and the
// CPU rows, like the safepoint sampler does. Threads that sleep, wait, park or block burn no
// CPU, so their timers stay silent.
extern const Engine ourAsyncSamplingEngine;

// The signal the timers send. SIGPROF is left alone by the JVM; a handler the application had
// installed before keeps getting every SIGPROF that isn't one of the agent's timers.
const int ASYNC_SAMPLING_SIGNAL = 27;  // SIGPROF on Linux

// Samples a thread's ring holds between two drains, and the frames a sample keeps (the top
// ones; a deeper stack hangs its innermost frames below "<truncated stack>"). 32 samples leave
// the drainer 32 ms of delay at a 1 ms period on a busy machine before samples merge; a ring is
// address space, of which a thread touches a page per sample of a shallow stack.
typedef SampleRingOf<32, 512> SampleRing;

// Why the asynchronous sampler cannot run here, or null when it can: the JVM's walk is missing,
// the kernel refuses per-thread CPU timers, or the signal's handler can't be installed.
const char* asyncSamplingUnavailableReason(bool haveStackWalk, bool timersWork, bool handlerInstalled);

// The pseudo-method that stands for a walk that found no Java frames, by the code the walk
// returned (0 or below): "<native>", "<unknown Java>", "<GC>", "<class loading>" or "<VM>".
const char* pseudoFrameName(jint walkResult);

// Under ourLock, from the start of CPU profiling: makes the sampler ready and gives every live
// thread its timer. False, after one warning line, where it can't run; the caller then samples
// the safepoint way.
bool startAsyncSampling(JNIEnv* env);
// Under ourLock: deletes every timer and books the samples still queued.
void stopAsyncSampling(JNIEnv* env);
// Whether the asynchronous sampler runs now.
bool isAsyncSamplingActive();

// The thread CPU time one timer expiry stands for: the sampling period.
jlong asyncSamplingPeriodNs();

#endif
