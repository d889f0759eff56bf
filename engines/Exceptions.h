#ifndef KJP_EXCEPTIONS_H
#define KJP_EXCEPTIONS_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KSet.h"
#include "engines/Engine.h"

class ThreadInfo;

// Exception telemetry: how many exceptions of which class each thread threw at which call
// path and caught at which. A throw that will be caught waits for its catch; an uncaught one
// is booked at once with catch frame 0. A rethrown exception object counts once, at its last
// catch, with its first throw path: the tag on the object remembers the row it was counted
// in. Its events are on from load, so the figures are collected from the start.
extern const Engine ourExceptionEngine;

namespace Exceptions {

// The throw of 'exception' (null books it under "<unknown>") on the thread. Caller holds ourLock.
void handleException(JNIEnv* env, ThreadInfo* info, jobject exception, bool willBeCaught);
// The catch of 'exception' on the thread: books the pending throw, if any, at the catching path.
// With the catching method, a catching path that the throw's path already shows is taken from
// there. Caller holds ourLock.
void handleExceptionCatch(JNIEnv* env, ThreadInfo* info, jobject exception, jmethodID catchMethod = nullptr);

// Folds the rows of the dead threads in the set into the pseudo-thread of the oldest ones.
void mergeExceptionUsage(KSet<jint>* threadRunningNumbersToCleanup);

// Forgets every row, pending throw and tag.
void cleanupExceptionUsage();

}  // namespace Exceptions

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearExceptions(JNIEnv* env, jclass);
}

#endif
