#ifndef KJP_CLASSEVENTS_H
#define KJP_CLASSEVENTS_H

#include <jni.h>
#include <jvmti.h>

class ThreadInfo;

// JVMTI ClassPrepare: the class object counts as an allocation, and a class that implements
// one of the J2EE catalogue's interfaces is marked with tag 1 on ourJVMTI6, which the J2EE
// probes ask at run time.
void JNICALL classPrepare(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jclass klass);

// JVMTI ObjectFree: a recorded object is gone, and its allocator row is free again. Runs on
// whatever thread the JVM reports from, and must not take ourLock.
void JNICALL objectFree(jvmtiEnv* jvmti, jlong tag);

// JVMTI ExceptionCatch: frames may have been unwound past the exits of open J2EE calls.
void JNICALL exception_catch(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                             jobject exception);

// Drops the open J2EE calls of the current thread whose frames are no longer on its stack,
// with their times. Caller holds ourLock.
void trimUnwoundJ2EECalls(JNIEnv* env, ThreadInfo* info);

#endif
