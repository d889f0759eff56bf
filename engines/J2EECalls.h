#ifndef KJP_J2EECALLS_H
#define KJP_J2EECALLS_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KVector.h"
#include "engines/KFrameStorage.h"

class ThreadInfo;

// What the J2EE probes report: SQL statements with their text, requests with their URI,
// request dispatching and JNDI lookups, each counted and timed per thread and call path in the
// j2ee table while CPU_J2EE_BIT is set.
//
// The call path of an event ends in the method that carries the probes (the driver's
// executeQuery, the servlet's service). Its time is what that path's CPU row grew by between
// the event's entry and exit, in the unit and clock of the CPU data.
//
// A probe passes J2EE method type 0 when the receiver's class only shares a catalogue method's
// name; every native then returns at once.

// The current thread's stack as GetStackTrace gives it, top first. The entry natives take it
// before ourLock: walking the stack is the costly part of an entry, and the other threads'
// J2EE calls and probes need not wait for it.
struct J2EEStack {
  jvmtiFrameInfo myFrames[KFrameStorage::MAX_STACK_DEPTH];
  jint myCount = 0;
};

// Takes the current thread's stack into 'stack'; false when the JVM refuses the walk (at its
// end). Needs no lock.
bool takeJ2EEStack(J2EEStack& stack);

// Opens a J2EE call of the current thread at its current call path, for the text 'string' (a
// string pool index) and 'kind' (the J2EE method type): counts it and remembers where the
// path's time stood. The path is that of 'stack', taken by this thread inside the same probe,
// or when null the stack walked now. Caller holds ourLock and has seen CPU_J2EE_BIT set.
void kjpJ2EEEntryImpl(JNIEnv* env, int string, int kind, const J2EEStack* stack = nullptr);

// Closes the innermost open J2EE call of the current thread and adds its time. Nothing happens
// without an open call. Caller holds ourLock and has seen CPU_J2EE_BIT set.
void kjpJ2EEExitImpl(JNIEnv* env);

// Drops, from the top of the thread's J2EE stacks and without time, the open calls whose frames
// are not on the path from 'currentFrame' to the root: an exception unwound them. Exception
// catches do it; without exception events (disableexceptions) J2EE entries and exits do it.
// Caller holds ourLock.
void dropUnwoundJ2EECalls(ThreadInfo* info, jint currentFrame);

// request.getRequestURI(), or null when the request is null, has no such method or the call
// throws; the exception is cleared, the application never sees it. Runs the application's code,
// so the caller must not hold ourLock. The caller deletes the local reference.
jstring getRequestURI(JNIEnv* env, jobject request);

// The call path the J2EE probes of the current thread book to, or -1 when it has none. With
// tracing on, filtered calls fold as tracing folds them, so that the path's CPU row is the one
// tracing times; 'filteredCalls', when not null, is refilled with one bit per call on the
// stack. Caller holds ourLock.
jint currentJ2EEFrame(JNIEnv* env, KVector<bool>* filteredCalls, const J2EEStack* stack = nullptr);

// The natives of the Callback class that the J2EE probes call, with the J2EE method type as the
// last argument. Entries report a text: the string itself (SQLEntry1, SQLEntry3), the text tagged
// on the statement or dispatcher (SQLEntry2) or the request's URI (ServletEntry). SQLExit1 tags
// the statement or dispatcher that was made with the text it was made for.
extern "C" {
JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Callback_kjpIsJ2EEClass(JNIEnv* env, jclass, jobject object);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpServletEntry(JNIEnv* env, jclass, jobject request,
                                                                        jshort kind);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpServletExit(JNIEnv* env, jclass, jobject, jshort kind);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLEntry1(JNIEnv* env, jclass, jobject text, jshort kind);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLEntry2(JNIEnv* env, jclass, jobject statement,
                                                                     jshort kind);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLEntry3(JNIEnv* env, jclass, jobject text, jshort kind);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLExit1(JNIEnv* env, jclass, jobject statement,
                                                                    jobject text, jshort kind);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLExit2(JNIEnv* env, jclass, jobject, jshort kind);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLExit3(JNIEnv* env, jclass, jobject, jshort kind);
}

#endif
