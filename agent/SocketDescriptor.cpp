#include "agent/SocketDescriptor.h"

namespace {

// Wrappers nest rarely more than once; the bound only guards against a delegate cycle.
const int MAX_DELEGATE_DEPTH = 8;

// The object in field 'name' of 'object', found on the object's own class or a superclass;
// null, with no exception pending, when there is no such field or it holds null.
jobject getObjectField(JNIEnv* env, jobject object, const char* name, const char* signature) {
  jclass klass = env->GetObjectClass(object);
  jfieldID field = env->GetFieldID(klass, name, signature);
  env->DeleteLocalRef(klass);
  if (field == nullptr) {
    env->ExceptionClear();
    return nullptr;
  }
  return env->GetObjectField(object, field);
}

jint getDescriptorInt(JNIEnv* env, jobject fileDescriptor) {
  jclass klass = env->GetObjectClass(fileDescriptor);
  jfieldID field = env->GetFieldID(klass, "fd", "I");
  env->DeleteLocalRef(klass);
  if (field == nullptr) {
    env->ExceptionClear();
    return -1;
  }
  return env->GetIntField(fileDescriptor, field);
}

}  // namespace

jint getSocketFD(JNIEnv* env, jobject socket) {
  if (socket == nullptr) {
    return -1;
  }
  jobject impl = getObjectField(env, socket, "impl", "Ljava/net/SocketImpl;");
  for (int depth = 0; impl != nullptr && depth < MAX_DELEGATE_DEPTH; depth++) {
    jobject delegate = getObjectField(env, impl, "delegate", "Ljava/net/SocketImpl;");
    if (delegate == nullptr) {
      break;
    }
    env->DeleteLocalRef(impl);
    impl = delegate;
  }
  if (impl == nullptr) {
    return -1;
  }
  jobject fileDescriptor = getObjectField(env, impl, "fd", "Ljava/io/FileDescriptor;");
  if (fileDescriptor == nullptr) {
    // An implementation that declares a field of that name of its own hides SocketImpl's,
    // and may keep the descriptor there or in the inherited one.
    jclass socketImplClass = env->FindClass("java/net/SocketImpl");
    if (socketImplClass == nullptr) {
      env->ExceptionClear();
    } else {
      jfieldID field = env->GetFieldID(socketImplClass, "fd", "Ljava/io/FileDescriptor;");
      if (field == nullptr) {
        env->ExceptionClear();
      } else {
        fileDescriptor = env->GetObjectField(impl, field);
      }
      env->DeleteLocalRef(socketImplClass);
    }
  }
  env->DeleteLocalRef(impl);
  if (fileDescriptor == nullptr) {
    return -1;
  }
  jint result = getDescriptorInt(env, fileDescriptor);
  env->DeleteLocalRef(fileDescriptor);
  return result;
}

extern "C" JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getSocketFD(JNIEnv* env, jclass, jobject socket) {
  return getSocketFD(env, socket);
}
