#ifndef KJP_EXCEPTIONS_H
#define KJP_EXCEPTIONS_H

#include <jni.h>

#include "engines/Engine.h"

// Exception telemetry: which exceptions are thrown and caught where, per thread.
extern const Engine ourExceptionEngine;

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearExceptions(JNIEnv* env, jclass);
}

#endif
