#include "agent/CoreInitialization.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "agent/CoreNatives.h"
#include "agent/EmbeddedClasses.h"
#include "agent/EngineEvents.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/Options.h"
#include "agent/PortCheck.h"
#include "db/DB.h"

jclass ourClassCoreGlobalRef = nullptr;

namespace {

const char* const CALLBACK_CLASS = "com/kestrix/runtime/Callback";
const char* const CALL_LOG_CLASS = "com/kestrix/runtime/CallLog";
const char* const CORE_INIT_SIGNATURE =
    "(ILjava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;IIZZZZZJZJIJI)Z";

jobject getSystemClassLoader(JNIEnv* env, jclass* classLoaderClass) {
  *classLoaderClass = findClass(env, "java/lang/ClassLoader");
  jmethodID getter = env->GetStaticMethodID(*classLoaderClass, "getSystemClassLoader", "()Ljava/lang/ClassLoader;");
  assertJNI(env);
  jobject loader = env->CallStaticObjectMethod(*classLoaderClass, getter);
  assertJNI(env);
  KASSERT_TEXT(loader != nullptr, "systemClassLoader");
  return loader;
}

void defineRuntimeClasses(JNIEnv* env, jobject loader) {
  for (int i = 0; i < ourEmbeddedClassCount; i++) {
    const EmbeddedClass& row = ourEmbeddedClasses[i];
    if (strcmp(row.myName, CALLBACK_CLASS) == 0 || strcmp(row.myName, CALL_LOG_CLASS) == 0) {
      continue;  // on the boot class path already, through the callback jar
    }
    jclass defined =
        env->DefineClass(row.myName, loader, reinterpret_cast<const jbyte*>(row.myBytes), row.mySize);
    if (env->ExceptionCheck() && isOptionalRuntimeClass(row.myName)) {
      env->ExceptionClear();
      continue;
    }
    assertJNI(env);
    env->DeleteLocalRef(defined);
  }
}

void registerNatives(JNIEnv* env, const JNINativeMethod* methods, jint count) {
  jint result = env->RegisterNatives(ourClassCoreGlobalRef, methods, count);
  assertJNI(env);
  KASSERT_TEXT(result == 0, "RegisterNatives");
}

bool callCoreInit(JNIEnv* env) {
  jmethodID init = env->GetStaticMethodID(ourClassCoreGlobalRef, "init", CORE_INIT_SIGNATURE);
  if (init == nullptr) {
    env->ExceptionClear();
  }
  KASSERT_TEXT(init != nullptr, "mid_init");

  jstring host = newStringUTF(env, ourOptions.myHost);
  KString sessionNameText = ourOptions.getSessionName();
  jstring sessionName = newStringUTF(env, sessionNameText);
  jstring snapshotDir = newStringUTF(env, ourOptions.myDir);
  jstring profilerUIPath = newStringUTF(env, ourOptions.myProfilerUIPath);
  jboolean result = env->CallStaticBooleanMethod(
      ourClassCoreGlobalRef, init, static_cast<jint>(ourOptions.myPort), host, sessionName, snapshotDir,
      profilerUIPath, static_cast<jint>(ourOptions.myIdePort), static_cast<jint>(ourOptions.myUsedMem),
      static_cast<jboolean>(!ourOptions.myDisableCounts), static_cast<jboolean>(!ourOptions.myDisableAlloc),
      static_cast<jboolean>(!ourOptions.myDisableJ2EE), static_cast<jboolean>(ourOptions.myOnlyLocal),
      static_cast<jboolean>(ourOptions.isHeapDumpOnOutOfMemoryErrorEnabled()),
      static_cast<jlong>(ourOptions.getXmxValue()), static_cast<jboolean>(ourOptions.myQuiet),
      static_cast<jlong>(ourDB->myStartTime), static_cast<jint>(ourOptions.myDelay), static_cast<jlong>(getpid()),
      static_cast<jint>(ourOptions.myTelemetryLimit));
  assertJNI(env);
  env->DeleteLocalRef(host);
  env->DeleteLocalRef(sessionName);
  env->DeleteLocalRef(snapshotDir);
  env->DeleteLocalRef(profilerUIPath);
  return result != JNI_FALSE;
}

}  // namespace

bool isOptionalRuntimeClass(const char* name) {
  // The classes that use java.lang.management, which a JVM may lack.
  return strcmp(name, "com/kestrix/runtime/TelemetryThreadJVMTI") == 0 ||
         strcmp(name, "com/kestrix/runtime/MemoryThresholdJVMTI") == 0 ||
         strcmp(name, "com/kestrix/runtime/MemoryThresholdJVMTI$1") == 0;
}

void initializeCore(JNIEnv* env) {
  jclass classLoaderClass = nullptr;
  jobject loader = getSystemClassLoader(env, &classLoaderClass);
  defineRuntimeClasses(env, loader);
  env->DeleteLocalRef(loader);
  env->DeleteLocalRef(classLoaderClass);

  jclass core = findClass(env, "com/kestrix/runtime/Core");
  ourClassCoreGlobalRef = static_cast<jclass>(env->NewGlobalRef(core));
  assertJNI(env);
  env->DeleteLocalRef(core);
  registerNatives(env, ourCoreNativeMethods, ourCoreNativeMethodCount);
  registerNatives(env, ourCoreSocketNativeMethods, ourCoreSocketNativeMethodCount);
  registerEngineCoreNatives(env, ourClassCoreGlobalRef);

  // The runtime opens its socket later, on a thread of its own: a port in use ends the start
  // here, as it would have there.
  if (ourOptions.myPort > 0 && !isPortFreeToListen(ourOptions.myHost, ourOptions.myOnlyLocal, ourOptions.myPort)) {
    fprintf(stderr, KJP_LOG_PREFIX "Cannot start: cannot listen on port %d\n", ourOptions.myPort);
    fflush(stderr);
    exit(-1);
  }
  if (!callCoreInit(env)) {
    exit(-1);  // Core.init has said why
  }
}

jlong getExitSnapshotFlags(jlong status, bool onExitMemory, bool onExitSnapshot) {
  bool measuring = (status & (ALLOCATION_RECORDING_BIT | CPU_TIMES_BIT | MONITORS_BIT)) != 0;
  if (!onExitMemory && !onExitSnapshot && !measuring) {
    return -1;
  }
  // Recorded allocations can only be shown with the objects they belong to.
  return onExitMemory || (status & ALLOCATION_RECORDING_BIT) != 0 ? 1 : 0;
}

void stopListening(JNIEnv* env) {
  if (ourClassCoreGlobalRef == nullptr) {
    return;
  }
  jmethodID stop = env->GetStaticMethodID(ourClassCoreGlobalRef, "stopListening", "()V");
  if (stop == nullptr) {
    env->ExceptionClear();
    return;
  }
  env->CallStaticVoidMethod(ourClassCoreGlobalRef, stop);
  env->ExceptionClear();
}

void captureSnapshotOnExit(JNIEnv* env, jlong status) {
  jlong flags = getExitSnapshotFlags(status, ourOptions.myOnExitMemory, ourOptions.myOnExitSnapshot);
  if (flags == -1) {
    return;
  }
  KASSERT(ourClassCoreGlobalRef != nullptr);
  jmethodID capture = env->GetStaticMethodID(ourClassCoreGlobalRef, "captureSnapshotOnExit", "(J)V");
  if (capture == nullptr) {
    env->ExceptionClear();
  }
  KASSERT_TEXT(capture != nullptr, "mid_captureSnapshotOnExit");
  env->CallStaticVoidMethod(ourClassCoreGlobalRef, capture, flags);
  assertJNI(env);
}
