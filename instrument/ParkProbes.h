#ifndef KJP_PARKPROBES_H
#define KJP_PARKPROBES_H

#include <jni.h>

#include "agent/KVector.h"

// Threads that wait for a java.util.concurrent lock (ReentrantLock, read-write locks,
// semaphores, latches, anything built on AbstractQueuedSynchronizer) park in LockSupport with
// the lock as their blocker. LockSupport's park, parkNanos and parkUntil that take a blocker get
// a probe at entry and before each return, Callback.kjpParkEntry and kjpParkExit with the
// blocker, so that monitor profiling sees these waits as it sees blocks on monitors. The
// probes' bodies are empty unless monitor profiling runs, which leaves nothing to pay.
//
// For java/util/concurrent/locks/LockSupport, writes the probed class to 'output' (empty)
// and returns true; for any other class, or one that can't be rewritten, returns false with
// 'output' empty.
bool instrumentParkProbes(const char* className, KVector<unsigned char>& input, KVector<unsigned char>& output);

// LockSupport is loaded while the JVM starts, before the class-load hook sees classes, so the
// probes usually arrive later: the first time monitor profiling starts, the class is redefined
// from its own class file, and the hook adds them then. Does nothing once they are in, and on
// JVMs that never redefine classes. Runs Java code: the caller must not hold ourLock. A JVM
// that refuses gets one warning line, and parks stay unrecorded.
void installParkProbes(JNIEnv* env);

// Whether a method of LockSupport, by name and descriptor, takes the park probes.
bool isProbedParkMethod(const char* name, const char* descriptor);

#endif
