#include "instrument/ParkProbes.h"

#include <string.h>

#include <stdio.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KString.h"
#include "agent/Options.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassRewriter.h"
#include "classfile/CodeAttribute.h"
#include "classfile/MethodInfo.h"
#include "instrument/InsertionPass.h"
#include "instrument/InstrumentationRules.h"

namespace {

// Set when the hook has put the probes into LockSupport; guarded by ourLock, which the hook holds.
bool ourParkProbesInstalled = false;
bool ourParkProbesRefused = false;

const char* const LOCK_SUPPORT = "java/util/concurrent/locks/LockSupport";
const char* const CALLBACK_CLASS = "com/kestrix/runtime/Callback";
const unsigned char OP_ALOAD_0 = 0x2A;
const unsigned char OP_INVOKESTATIC = 0xB8;
const int PROBE_LENGTH = 4;  // aload_0; invokestatic #probe

// The blocker is the first argument of each: local 0 of a static method.
const char* const PROBED_METHODS[][2] = {
    {"park", "(Ljava/lang/Object;)V"},
    {"parkNanos", "(Ljava/lang/Object;J)V"},
    {"parkUntil", "(Ljava/lang/Object;J)V"},
};

int writeProbe(int probeRef, unsigned char* buffer, int offset) {
  buffer[offset] = OP_ALOAD_0;
  buffer[offset + 1] = OP_INVOKESTATIC;
  buffer[offset + 2] = static_cast<unsigned char>(probeRef >> 8);
  buffer[offset + 3] = static_cast<unsigned char>(probeRef);
  return PROBE_LENGTH;
}

class ParkProbeSet : public ProbeSet {
 public:
  ParkProbeSet(int entryRef, int exitRef) : myEntryRef(entryRef), myExitRef(exitRef) {}

  void visit(InsertionPass& pass, const unsigned char* code, int, int index, int length) override {
    if (code[index] >= 0xAC && code[index] <= 0xB1) {
      pass.addSite(0, index, length, 0, PROBE_LENGTH);
    }
  }
  int insertBefore(const InsertionSite&, unsigned char* buffer, int offset) override {
    return writeProbe(myExitRef, buffer, offset);
  }
  int insertAfter(const InsertionSite&, unsigned char*, int) override { return 0; }
  int getEntryCodeLength() override { return PROBE_LENGTH; }
  void insertEntryCode(unsigned char* buffer, int offset) override { writeProbe(myEntryRef, buffer, offset); }

 private:
  int myEntryRef;
  int myExitRef;
};

void addParkProbes(ClassFile& classFile, void*) {
  KString callback(CALLBACK_CLASS);
  KString descriptor("(Ljava/lang/Object;)V");
  int entryRef = classFile.findOrCreateMethodRef(callback, KString("kjpParkEntry"), descriptor);
  int exitRef = classFile.findOrCreateMethodRef(callback, KString("kjpParkExit"), descriptor);
  KVector<MethodInfo*>& methods = classFile.getMethods();
  for (int i = 0; i < methods.size(); i++) {
    MethodInfo* method = methods[i];
    if (method->getCodeAttribute() == nullptr || !method->isStatic() ||
        !isProbedParkMethod(method->getName().get(), method->getDescriptor().get())) {
      continue;
    }
    ParkProbeSet probes(entryRef, exitRef);
    InsertionPass pass(classFile, method, probes);
    // A method too long for its probes stays as it was; LockSupport's are a few bytes.
    pass.run(nullptr, 65536 - PROBE_LENGTH, 1);
  }
}

}  // namespace

bool isProbedParkMethod(const char* name, const char* descriptor) {
  for (const auto& probed : PROBED_METHODS) {
    if (strcmp(name, probed[0]) == 0 && strcmp(descriptor, probed[1]) == 0) {
      return true;
    }
  }
  return false;
}

bool instrumentParkProbes(const char* className, KVector<unsigned char>& input, KVector<unsigned char>& output) {
  if (className == nullptr || strcmp(className, LOCK_SUPPORT) != 0) {
    return false;
  }
  bool done = ClassRewriter::rewrite(className, input, output, addParkProbes, nullptr);
  ourParkProbesInstalled = ourParkProbesInstalled || done;
  return done;
}

namespace {

// The class file of LockSupport as the JDK ships it, through the system class loader, or
// null; a Java exception on the way is cleared.
jbyteArray readLockSupportClassFile(JNIEnv* env) {
  jclass loaderClass = env->FindClass("java/lang/ClassLoader");
  jclass streamClass = env->FindClass("java/io/InputStream");
  jbyteArray bytes = nullptr;
  if (loaderClass != nullptr && streamClass != nullptr) {
    jmethodID getResource = env->GetStaticMethodID(loaderClass, "getSystemResourceAsStream",
                                                   "(Ljava/lang/String;)Ljava/io/InputStream;");
    jmethodID readAll = env->GetMethodID(streamClass, "readAllBytes", "()[B");
    jmethodID close = env->GetMethodID(streamClass, "close", "()V");
    jstring name = env->NewStringUTF("java/util/concurrent/locks/LockSupport.class");
    jobject stream = getResource != nullptr && readAll != nullptr && close != nullptr && name != nullptr
                         ? env->CallStaticObjectMethod(loaderClass, getResource, name)
                         : nullptr;
    if (stream != nullptr && !env->ExceptionCheck()) {
      bytes = static_cast<jbyteArray>(env->CallObjectMethod(stream, readAll));
      env->CallVoidMethod(stream, close);
    }
    if (env->ExceptionCheck()) {
      env->ExceptionClear();
      bytes = nullptr;
    }
    env->DeleteLocalRef(stream);
    env->DeleteLocalRef(name);
  }
  env->ExceptionClear();
  env->DeleteLocalRef(loaderClass);
  env->DeleteLocalRef(streamClass);
  return bytes;
}

void refuse(const char* reason) {
  ourParkProbesRefused = true;
  if (!ourOptions.myQuiet) {
    fprintf(stderr, KJP_LOG_PREFIX "Waits on java.util.concurrent locks are not recorded: %s\n", reason);
    fflush(stderr);
  }
}

}  // namespace

void installParkProbes(JNIEnv* env) {
  if (ourParkProbesInstalled || ourParkProbesRefused || isFlagUsed() || currentPhase() != JVMTI_PHASE_LIVE) {
    return;
  }
  jclass lockSupport = env->FindClass(LOCK_SUPPORT);
  jbyteArray bytes = lockSupport != nullptr ? readLockSupportClassFile(env) : nullptr;
  env->ExceptionClear();
  if (bytes == nullptr) {
    env->DeleteLocalRef(lockSupport);
    refuse("the class file of LockSupport cannot be read");
    return;
  }
  jint length = env->GetArrayLength(bytes);
  unsigned char* classBytes = static_cast<unsigned char*>(allocate(length));
  env->GetByteArrayRegion(bytes, 0, length, reinterpret_cast<jbyte*>(classBytes));
  jvmtiClassDefinition definition;
  definition.klass = lockSupport;
  definition.class_byte_count = length;
  definition.class_bytes = classBytes;
  // The hook sees the redefinition and puts the probes in.
  jvmtiError error = ourJVMTI->RedefineClasses(1, &definition);
  deallocate(classBytes);
  env->DeleteLocalRef(bytes);
  env->DeleteLocalRef(lockSupport);
  if (error != JVMTI_ERROR_NONE || !ourParkProbesInstalled) {
    refuse("LockSupport cannot be redefined");
  }
}
