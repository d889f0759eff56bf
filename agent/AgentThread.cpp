#include "agent/AgentThread.h"

#include "agent/JNIUtil.h"

jthread createAgentThread(JNIEnv* env, const char* name) {
  jclass threadClass = env->FindClass("java/lang/Thread");
  assertJNI(env);
  jmethodID constructor = env->GetMethodID(threadClass, "<init>", "(Ljava/lang/String;)V");
  assertJNI(env);
  jstring threadName = env->NewStringUTF(name);
  assertJNI(env);
  jthread thread = env->NewObject(threadClass, constructor, threadName);
  assertJNI(env);
  env->DeleteLocalRef(threadName);
  env->DeleteLocalRef(threadClass);
  return thread;
}
