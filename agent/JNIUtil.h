#ifndef KJP_JNI_UTIL_H
#define KJP_JNI_UTIL_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KString.h"

// Helpers for the strings, classes and exceptions that cross between the agent and Java, and
// the two checks that turn a JVM failure into the end of the process.

// A Java string from modified UTF-8 text. Null text gives null; so does a failed conversion,
// whose pending exception is cleared without a report: the caller degrades instead.
jstring newStringUTF(JNIEnv* env, const char* text);
jstring newStringUTF(JNIEnv* env, const KString& text);
// The same for UTF-16 text of the given length.
jstring newString(JNIEnv* env, const unsigned short* text, int length);

// The string's modified UTF-8 bytes; a null jstring gives the empty string.
KString createUTFKStringFromJString(JNIEnv* env, jstring text);
// The string's UTF-16 values; a null jstring gives the empty string.
KWString createKWStringFromJString(JNIEnv* env, jstring text);

// FindClass, then the JNI check. With the debugJNI option it first names the class on stdout.
jclass findClass(JNIEnv* env, const char* name);

// Throws java.lang.RuntimeException with the message. The class is looked up once and kept as
// a global reference.
void throwException(JNIEnv* env, const char* message);
// The same with the message followed by " (a, b)".
void throwException(JNIEnv* env, const char* message, int a, int b);

// JVMTI memory of ourJVMTI; a failure ends the process.
void* allocate(long size);
void deallocate(void* memory);

// Ends the process unless 'error' is JVMTI_ERROR_NONE, naming the error and the call site.
void check_JVMTI_error_impl(jvmtiError error, const char* file, int line);
#define check_JVMTI_error(error) check_JVMTI_error_impl((error), __FILE__, __LINE__)

// For work that a client's request or an agent thread may still be doing as the JVM dies: true
// when the call succeeded, false when the JVM refused it for having died since its death event
// (the caller then drops its work, which nobody can receive any more); any other error ends the
// process as check_JVMTI_error does.
bool check_JVMTI_alive_impl(jvmtiError error, const char* file, int line);
#define check_JVMTI_alive(error) check_JVMTI_alive_impl((error), __FILE__, __LINE__)

// After a JNI call that must not fail: if an exception is pending, names the call site,
// describes and clears the exception and exits with status -1.
void assertJNI_impl(JNIEnv* env, const char* file, int line);
#define assertJNI(env) assertJNI_impl((env), __FILE__, __LINE__)

// Visits every object of the heap, tagged or not, with IterateOverHeap on 'jvmti'.
void iterateOverHeapEither(jvmtiEnv* jvmti, jvmtiHeapObjectCallback callback, void* userData);

#endif
