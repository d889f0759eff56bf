#ifndef KJP_J2EERECORDING_H
#define KJP_J2EERECORDING_H

#include <jni.h>
#include <jvmti.h>

#include "engines/Engine.h"

class ThreadInfo;

// The J2EE engine's events: classes that may take J2EE probes are marked as they are
// prepared, exceptions that unwind open J2EE calls drop them, and the J2EE rows of folded
// threads move to the pseudo-thread. It records while CPU_J2EE_BIT is set, which CPU
// profiling starts and stops.
extern const Engine ourJ2EEEngine;

// JVMTI ClassPrepare: a class that implements one of the J2EE catalogue's interfaces is marked
// with tag 1 on ourJVMTI6, which the J2EE probes ask at run time.
void JNICALL markJ2EEClass(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jclass klass);

// Keeps in mind that a method of the class 'className' (internal form) took J2EE probes, and
// so carries MF_J2EE, until the class is prepared: markJ2EEClass then takes the flag back
// from the methods of a class that implements none of the catalogue's interfaces, so that
// method filters fold them as any other (every close() of the JDK's streams takes probes).
// Caller holds ourLock.
void noteJ2EEProbedMethod(const char* className, jint methodIndex);

// JVMTI ExceptionCatch: frames may have been unwound past the exits of open J2EE calls.
void JNICALL exception_catch(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                             jobject exception);

// Drops the open J2EE calls of the current thread whose frames are no longer on its stack,
// with their times. Caller holds ourLock.
void trimUnwoundJ2EECalls(JNIEnv* env, ThreadInfo* info);

#endif
