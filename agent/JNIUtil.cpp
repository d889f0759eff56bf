#include "agent/JNIUtil.h"

#include <stdio.h>
#include <stdlib.h>

#include <atomic>

#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/Options.h"

namespace {

// java.lang.RuntimeException, held as a global reference from the first throw on. Threads
// racing on the first throw may each make a reference; any of them serves, and the few bytes
// of a surplus reference are not worth a lock on this path.
std::atomic<jclass> ourRuntimeExceptionClass(nullptr);

jstring clearFailure(JNIEnv* env, jstring result) {
  if (env->ExceptionCheck()) {
    env->ExceptionClear();
    return nullptr;
  }
  return result;
}

}  // namespace

jstring newStringUTF(JNIEnv* env, const char* text) {
  if (text == nullptr) {
    return nullptr;
  }
  return clearFailure(env, env->NewStringUTF(text));
}

jstring newStringUTF(JNIEnv* env, const KString& text) { return newStringUTF(env, text.get()); }

jstring newString(JNIEnv* env, const unsigned short* text, int length) {
  if (text == nullptr) {
    return nullptr;
  }
  return clearFailure(env, env->NewString(reinterpret_cast<const jchar*>(text), length));
}

KString createUTFKStringFromJString(JNIEnv* env, jstring text) {
  if (text == nullptr) {
    return KString();
  }
  const char* utf = env->GetStringUTFChars(text, nullptr);
  if (utf == nullptr) {
    return KString();
  }
  KString result(utf);
  env->ReleaseStringUTFChars(text, utf);
  return result;
}

KWString createKWStringFromJString(JNIEnv* env, jstring text) {
  if (text == nullptr) {
    return KWString();
  }
  jsize length = env->GetStringLength(text);
  const jchar* chars = env->GetStringChars(text, nullptr);
  if (chars == nullptr) {
    return KWString();
  }
  // The JVM's characters are not terminated; KWString wants a terminated source.
  unsigned short* copy = new unsigned short[length + 1];
  for (jsize i = 0; i < length; i++) {
    copy[i] = chars[i];
  }
  copy[length] = 0;
  env->ReleaseStringChars(text, chars);
  KWString result(copy, static_cast<int>(length));
  delete[] copy;
  return result;
}

jclass findClass(JNIEnv* env, const char* name) {
  if (ourOptions.myDebugJNI) {
    fprintf(stdout, "findClass: %s\n", name);
    fflush(stdout);
  }
  jclass result = env->FindClass(name);
  assertJNI(env);
  return result;
}

void throwException(JNIEnv* env, const char* message) {
  jclass runtimeException = ourRuntimeExceptionClass.load(std::memory_order_acquire);
  if (runtimeException == nullptr) {
    jclass local = findClass(env, "java/lang/RuntimeException");
    runtimeException = static_cast<jclass>(env->NewGlobalRef(local));
    env->DeleteLocalRef(local);
    ourRuntimeExceptionClass.store(runtimeException, std::memory_order_release);
  }
  env->ThrowNew(runtimeException, message);
}

void throwException(JNIEnv* env, const char* message, int a, int b) {
  char numbers[40];
  snprintf(numbers, sizeof(numbers), " (%d, %d)", a, b);
  KString text(message, numbers);
  throwException(env, text.get());
}

void* allocate(long size) {
  unsigned char* memory = nullptr;
  check_JVMTI_error(ourJVMTI->Allocate(static_cast<jlong>(size), &memory));
  return memory;
}

void deallocate(void* memory) { check_JVMTI_error(ourJVMTI->Deallocate(static_cast<unsigned char*>(memory))); }

void check_JVMTI_error_impl(jvmtiError error, const char* file, int line) {
  if (error == JVMTI_ERROR_NONE) {
    return;
  }
  char* name = nullptr;
  if (ourJVMTI == nullptr || ourJVMTI->GetErrorName(error, &name) != JVMTI_ERROR_NONE) {
    name = nullptr;
  }
  fprintf(stderr, "ERROR: JVMTI error err=%d(%s) in %s:%d\n", static_cast<int>(error),
          name != nullptr ? name : "unknown", file, line);
  fflush(stderr);
  if (name != nullptr) {
    ourJVMTI->Deallocate(reinterpret_cast<unsigned char*>(name));
  }
  KASSERT(error == JVMTI_ERROR_NONE);
}

bool check_JVMTI_alive_impl(jvmtiError error, const char* file, int line) {
  if (error == JVMTI_ERROR_WRONG_PHASE && ourVMDeathCalled) {
    return false;
  }
  check_JVMTI_error_impl(error, file, line);
  return true;
}

void assertJNI_impl(JNIEnv* env, const char* file, int line) {
  if (env->ExceptionOccurred() == nullptr) {
    return;
  }
  fprintf(stderr, "assertJNI failed %s %d\n", file, line);
  fflush(stderr);
  env->ExceptionDescribe();
  env->ExceptionClear();
  exit(-1);
}

void iterateOverHeapEither(jvmtiEnv* jvmti, jvmtiHeapObjectCallback callback, void* userData) {
  if (ourIsJRockit) {
    // This JVM does not accept the combined filter: visit tagged objects, then the rest.
    check_JVMTI_error(jvmti->IterateOverHeap(JVMTI_HEAP_OBJECT_TAGGED, callback, userData));
    check_JVMTI_error(jvmti->IterateOverHeap(JVMTI_HEAP_OBJECT_UNTAGGED, callback, userData));
  } else {
    check_JVMTI_error(jvmti->IterateOverHeap(JVMTI_HEAP_OBJECT_EITHER, callback, userData));
  }
}
