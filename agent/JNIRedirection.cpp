#include "agent/JNIRedirection.h"

#include <stdarg.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "engines/AllocationEntry.h"

const JNINativeInterface_* ourSavedJNIFunctions = nullptr;

namespace {

template <typename T>
T reportAllocation(JNIEnv* env, T object) {
  if (object != nullptr) {
    jni_object_alloc_handler(env, object);
  }
  return object;
}

jclass JNICALL redirectedDefineClass(JNIEnv* env, const char* name, jobject loader, const jbyte* bytes, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->DefineClass(env, name, loader, bytes, length));
}

jobject JNICALL redirectedAllocObject(JNIEnv* env, jclass klass) {
  return reportAllocation(env, ourSavedJNIFunctions->AllocObject(env, klass));
}

jobject JNICALL redirectedNewObjectV(JNIEnv* env, jclass klass, jmethodID constructor, va_list arguments) {
  return reportAllocation(env, ourSavedJNIFunctions->NewObjectV(env, klass, constructor, arguments));
}

// The variadic form can't forward its arguments as they are; it hands them over as a va_list.
jobject JNICALL redirectedNewObject(JNIEnv* env, jclass klass, jmethodID constructor, ...) {
  va_list arguments;
  va_start(arguments, constructor);
  jobject result = ourSavedJNIFunctions->NewObjectV(env, klass, constructor, arguments);
  va_end(arguments);
  return reportAllocation(env, result);
}

jobject JNICALL redirectedNewObjectA(JNIEnv* env, jclass klass, jmethodID constructor, const jvalue* arguments) {
  return reportAllocation(env, ourSavedJNIFunctions->NewObjectA(env, klass, constructor, arguments));
}

jstring JNICALL redirectedNewString(JNIEnv* env, const jchar* characters, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewString(env, characters, length));
}

jstring JNICALL redirectedNewStringUTF(JNIEnv* env, const char* text) {
  return reportAllocation(env, ourSavedJNIFunctions->NewStringUTF(env, text));
}

jobjectArray JNICALL redirectedNewObjectArray(JNIEnv* env, jsize length, jclass elementClass, jobject initialElement) {
  return reportAllocation(env, ourSavedJNIFunctions->NewObjectArray(env, length, elementClass, initialElement));
}

jbooleanArray JNICALL redirectedNewBooleanArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewBooleanArray(env, length));
}

jbyteArray JNICALL redirectedNewByteArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewByteArray(env, length));
}

jcharArray JNICALL redirectedNewCharArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewCharArray(env, length));
}

jshortArray JNICALL redirectedNewShortArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewShortArray(env, length));
}

jintArray JNICALL redirectedNewIntArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewIntArray(env, length));
}

jlongArray JNICALL redirectedNewLongArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewLongArray(env, length));
}

jfloatArray JNICALL redirectedNewFloatArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewFloatArray(env, length));
}

jdoubleArray JNICALL redirectedNewDoubleArray(JNIEnv* env, jsize length) {
  return reportAllocation(env, ourSavedJNIFunctions->NewDoubleArray(env, length));
}

}  // namespace

void redirectJNIFunctions() {
  // Two copies from the JVM: one stays as it is and serves the replacements, the other is
  // edited and installed. Neither is ever given back, since the JVM uses the installed one
  // and the replacements the saved one until the process ends.
  jniNativeInterface* saved = nullptr;
  check_JVMTI_error(ourJVMTI->GetJNIFunctionTable(&saved));
  ourSavedJNIFunctions = saved;
  jniNativeInterface* redirected = nullptr;
  check_JVMTI_error(ourJVMTI->GetJNIFunctionTable(&redirected));

  redirected->DefineClass = redirectedDefineClass;
  redirected->AllocObject = redirectedAllocObject;
  redirected->NewObject = redirectedNewObject;
  redirected->NewObjectV = redirectedNewObjectV;
  redirected->NewObjectA = redirectedNewObjectA;
  redirected->NewString = redirectedNewString;
  redirected->NewStringUTF = redirectedNewStringUTF;
  redirected->NewObjectArray = redirectedNewObjectArray;
  redirected->NewBooleanArray = redirectedNewBooleanArray;
  redirected->NewByteArray = redirectedNewByteArray;
  redirected->NewCharArray = redirectedNewCharArray;
  redirected->NewShortArray = redirectedNewShortArray;
  redirected->NewIntArray = redirectedNewIntArray;
  redirected->NewLongArray = redirectedNewLongArray;
  redirected->NewFloatArray = redirectedNewFloatArray;
  redirected->NewDoubleArray = redirectedNewDoubleArray;
  check_JVMTI_error(ourJVMTI->SetJNIFunctionTable(redirected));
}
