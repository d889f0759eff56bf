#ifndef KJP_LIFECYCLEEVENTS_H
#define KJP_LIFECYCLEEVENTS_H

#include <jni.h>
#include <jvmti.h>

// The JVMTI event callbacks of the JVM's life and of its threads' lives.
void JNICALL vmStart(jvmtiEnv* jvmti, JNIEnv* env);
void JNICALL vmInit(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void JNICALL vmDeath(jvmtiEnv* jvmti, JNIEnv* env);
void JNICALL threadStart(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void JNICALL threadEnd(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);

#endif
