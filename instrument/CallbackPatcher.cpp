#include "instrument/CallbackPatcher.h"

#include <stdio.h>
#include <string.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "agent/KString.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassRewriter.h"
#include "classfile/CodeAttribute.h"
#include "classfile/MethodInfo.h"
#include "engines/CallLogs.h"
#include "instrument/ClassLoadHook.h"
#include "instrument/InstrumentationRules.h"

namespace {

const char* const CALLBACK_CLASS_NAME = "com/kestrix/runtime/Callback";
const char* const CALL_LOG_CLASS_NAME = "com/kestrix/runtime/CallLog";
const int PUBLIC_STATIC = 9;
const unsigned char OP_INVOKESTATIC = 0xB8;
const unsigned char OP_IRETURN = 0xAC;
const unsigned char OP_RETURN = 0xB1;

// The class files of version 49 and below are verified by type inference; from 50 on a
// branch target needs a stack map frame.
const int LAST_VERSION_WITHOUT_FRAMES = 49;

unsigned char high(int index) { return static_cast<unsigned char>(index >> 8); }
unsigned char low(int index) { return static_cast<unsigned char>(index); }

// The code of a probe method, found (or, in a class without it, made with the body that the
// class as compiled has) by name and descriptor.
CodeAttribute* probeMethodCode(ClassFile& classFile, const char* name, const char* descriptor) {
  int index = classFile.findOrCreateMethod(KString(name), KString(descriptor), PUBLIC_STATIC);
  MethodInfo* method = classFile.getMethods()[index];
  CodeAttribute* code = method->getCodeAttribute();
  if (code == nullptr) {
    classFile.findOrCreateUtf8(CodeAttribute::NAME);
    code = method->createCodeAttribute();
    code->incMaxLocalsCount(2);  // (SS) and (Ljava/lang/Object;I) both take two slots
    if (descriptor[strlen(descriptor) - 1] == 'I') {
      const unsigned char minusOne[] = {0x02, OP_IRETURN};  // iconst_m1; ireturn
      code->setCode(minusOne, sizeof(minusOne));
      code->incMaxStackCount(1);
    }
  }
  return code;
}

// The code of a probe method that must be in the class; the class as built always has it.
CodeAttribute* existingProbeMethodCode(ClassFile& classFile, const char* name, const char* descriptor,
                                       const char* missingText) {
  MethodInfo* method = classFile.findMethod(KString(name), KString(descriptor));
  CodeAttribute* code = method != nullptr ? method->getCodeAttribute() : nullptr;
  if (code == nullptr) {
    printf("%s\n", missingText);
    fflush(stdout);
    KASSERT(0);
  }
  return code;
}

// Both flag bodies branch. The class comes from the runtime as compiled for Java 8 (version
// 52), where that branch would need a stack map frame. The bodies have no other branch and
// the class no other code that needs frames, so instead of building one the class goes to
// the JVM as version 49, whose verifier infers the types itself.
void lowerVersionForFlagBodies(KVector<unsigned char>& bytes) {
  if (bytes.size() < 8) {
    return;  // the reader refuses it anyway
  }
  int major = (bytes[6] << 8) | bytes[7];
  if (major > LAST_VERSION_WITHOUT_FRAMES) {
    bytes.set(6, high(LAST_VERSION_WITHOUT_FRAMES));
    bytes.set(7, low(LAST_VERSION_WITHOUT_FRAMES));
  }
}

// getstatic flag; ifeq to the return; load both arguments; invokestatic native; return.
void setVoidFlagBody(CodeAttribute* code, int fieldRef, int nativeRef) {
  const unsigned char body[] = {0xB2, high(fieldRef), low(fieldRef), 0x99, 0x00, 0x08, 0x1A, 0x1B,
                                OP_INVOKESTATIC, high(nativeRef), low(nativeRef), OP_RETURN};
  code->setCode(body, sizeof(body));
  code->incMaxStackCount(2);
}

void editWithFlags(ClassFile& classFile, void* context) {
  bool useFlags = *static_cast<bool*>(context);
  CodeAttribute* entry = probeMethodCode(classFile, "kjpMethodEntry", "(SS)V");
  CodeAttribute* exit = probeMethodCode(classFile, "kjpMethodExit", "(SS)V");
  CodeAttribute* init = probeMethodCode(classFile, "kjpInit", "(Ljava/lang/Object;I)I");
  if (!useFlags) {
    return;
  }
  KString className(classFile.getSignature());
  int entryNative = classFile.findOrCreateMethodRef(className, KString("kjpMethodEntry0"), KString("(SS)V"));
  int exitNative = classFile.findOrCreateMethodRef(className, KString("kjpMethodExit0"), KString("(SS)V"));
  int initNative =
      classFile.findOrCreateMethodRef(className, KString("kjpInit0"), KString("(Ljava/lang/Object;I)I"));
  classFile.findOrCreateField(KString("ourKJPMethodEntryExit"), KString("Z"), PUBLIC_STATIC);
  int entryExitFlag = classFile.findOrCreateFieldRef(className, KString("ourKJPMethodEntryExit"), KString("Z"));
  classFile.findOrCreateField(KString("ourKJPAlloc"), KString("Z"), PUBLIC_STATIC);
  int allocFlag = classFile.findOrCreateFieldRef(className, KString("ourKJPAlloc"), KString("Z"));

  setVoidFlagBody(entry, entryExitFlag, entryNative);
  setVoidFlagBody(exit, entryExitFlag, exitNative);
  // getstatic flag; ifeq to iconst_m1; aload_0; iload_1; invokestatic native; ireturn;
  // iconst_m1; ireturn.
  const unsigned char initBody[] = {0xB2, high(allocFlag), low(allocFlag), 0x99, 0x00, 0x09, 0x2A,
                                    0x1B, OP_INVOKESTATIC, high(initNative), low(initNative), OP_IRETURN,
                                    0x02, OP_IRETURN};
  init->setCode(initBody, sizeof(initBody));
  init->incMaxStackCount(1);
}

// iload_0 (or aload_0); iload_1; invokestatic native; the return.
void setForwardingBody(CodeAttribute* code, unsigned char firstLoad, int nativeRef, unsigned char returnOpcode) {
  const unsigned char body[] = {firstLoad, 0x1B, OP_INVOKESTATIC, high(nativeRef), low(nativeRef), returnOpcode};
  code->setCode(body, sizeof(body));
  code->incMaxStackCount(2);
}

// kjpMethodEntry and kjpMethodExit forward their two halves to the static methods 'entryName'
// and 'exitName' of 'targetClass'.
void forwardEntryAndExit(ClassFile& classFile, const KString& targetClass, const char* entryName,
                         const char* exitName) {
  KString descriptor("(SS)V");
  CodeAttribute* entry = existingProbeMethodCode(classFile, "kjpMethodEntry", "(SS)V", "kjpMethodEntry(SS) not found");
  setForwardingBody(entry, 0x1A, classFile.findOrCreateMethodRef(targetClass, KString(entryName), descriptor),
                    OP_RETURN);
  CodeAttribute* exit = existingProbeMethodCode(classFile, "kjpMethodExit", "(SS)V", "kjpMethodExit() not found");
  setForwardingBody(exit, 0x1A, classFile.findOrCreateMethodRef(targetClass, KString(exitName), descriptor),
                    OP_RETURN);
}

void enableInvocationCounting(ClassFile& classFile, void*) {
  forwardEntryAndExit(classFile, KString(classFile.getSignature()), "kjpMethodEntry0", "kjpMethodExit0");
}

// The same probes forwarding to the call log, which records a call without leaving Java.
void enableLoggedInvocationCounting(ClassFile& classFile, void*) {
  forwardEntryAndExit(classFile, KString(CALL_LOG_CLASS_NAME), "entry", "exit");
}

void enableAllocations(ClassFile& classFile, void*) {
  CodeAttribute* init = existingProbeMethodCode(classFile, "kjpInit", "(Ljava/lang/Object;I)I",
                                                "kjpInit(Ljava/lang/Object;I) not found");
  KString className(classFile.getSignature());
  int initNative = classFile.findOrCreateMethodRef(className, KString("kjpInit0"), KString("(Ljava/lang/Object;I)I"));
  setForwardingBody(init, 0x2A, initNative, OP_IRETURN);
}

// aload_0; invokestatic native; return.
void setParkBody(ClassFile& classFile, const char* probe, const char* native) {
  KString descriptor("(Ljava/lang/Object;)V");
  CodeAttribute* code = existingProbeMethodCode(classFile, probe, descriptor.get(), "park probe not found");
  int nativeRef = classFile.findOrCreateMethodRef(KString(classFile.getSignature()), KString(native), descriptor);
  const unsigned char body[] = {0x2A, OP_INVOKESTATIC, high(nativeRef), low(nativeRef), OP_RETURN};
  code->setCode(body, sizeof(body));
  code->incMaxStackCount(1);
}

void enableParkProbes(ClassFile& classFile, void*) {
  setParkBody(classFile, "kjpParkEntry", "kjpParkEntry0");
  setParkBody(classFile, "kjpParkExit", "kjpParkExit0");
}

void copyBytes(const KVector<unsigned char>& from, KVector<unsigned char>& to) {
  to.clear();
  for (int i = 0; i < from.size(); i++) {
    to.push(from[i]);
  }
}

}  // namespace

bool patchCallback(KVector<unsigned char>& input, KVector<unsigned char>& output, bool useFlags) {
  KASSERT(input.size() > 0);
  KASSERT(output.size() == 0);
  if (!useFlags) {
    return ClassRewriter::rewrite(CALLBACK_CLASS_NAME, input, output, editWithFlags, &useFlags);
  }
  KVector<unsigned char> lowered(input.size());
  copyBytes(input, lowered);
  lowerVersionForFlagBodies(lowered);
  return ClassRewriter::rewrite(CALLBACK_CLASS_NAME, lowered, output, editWithFlags, &useFlags);
}

bool patchCallbackToEnableInvocationCounting(KVector<unsigned char>& input, KVector<unsigned char>& output) {
  KASSERT(input.size() > 0);
  KASSERT(output.size() == 0);
  return ClassRewriter::rewrite(CALLBACK_CLASS_NAME, input, output, enableInvocationCounting, nullptr);
}

bool patchCallbackToEnableLoggedInvocationCounting(KVector<unsigned char>& input, KVector<unsigned char>& output) {
  KASSERT(input.size() > 0);
  KASSERT(output.size() == 0);
  return ClassRewriter::rewrite(CALLBACK_CLASS_NAME, input, output, enableLoggedInvocationCounting, nullptr);
}

bool patchCallbackToEnableAllocations(KVector<unsigned char>& input, KVector<unsigned char>& output) {
  KASSERT(input.size() > 0);
  KASSERT(output.size() == 0);
  return ClassRewriter::rewrite(CALLBACK_CLASS_NAME, input, output, enableAllocations, nullptr);
}

bool patchCallbackToEnableParkProbes(KVector<unsigned char>& input, KVector<unsigned char>& output) {
  KASSERT(input.size() > 0);
  KASSERT(output.size() == 0);
  return ClassRewriter::rewrite(CALLBACK_CLASS_NAME, input, output, enableParkProbes, nullptr);
}


void redefineCallback(JNIEnv* env) {
  LockHolder holder(&ourLock, "Instrumentation(368)");
  jclass callbackClass = findClass(env, CALLBACK_CLASS_NAME);
  jlong status = ourStatus;
  if (isFlagUsed()) {
    jfieldID entryExitFlag = env->GetStaticFieldID(callbackClass, "ourKJPMethodEntryExit", "Z");
    KASSERT_TEXT(entryExitFlag != nullptr, "field");
    env->SetStaticBooleanField(callbackClass, entryExitFlag, (status & CPU_COUNTS_BIT) != 0 ? JNI_TRUE : JNI_FALSE);
    jfieldID allocFlag = env->GetStaticFieldID(callbackClass, "ourKJPAlloc", "Z");
    KASSERT_TEXT(allocFlag != nullptr, "field");
    env->SetStaticBooleanField(callbackClass, allocFlag,
                               (status & ALLOCATION_RECORDING_BIT) != 0 ? JNI_TRUE : JNI_FALSE);
    env->DeleteLocalRef(callbackClass);
    return;
  }

  // Each of the states is built from the class as the hook first prepared it, so that
  // switching a mode off is the same operation as switching it on.
  KASSERT_TEXT(ourCallbackBytes.size() > 0, "ourCallbackBytes.size() > 0");
  KVector<unsigned char> bytes(ourCallbackBytes.size());
  copyBytes(ourCallbackBytes, bytes);
  if ((status & CPU_COUNTS_BIT) != 0) {
    KVector<unsigned char> patched(bytes.size() + 64);
    bool logged = (status & CPU_SAMPLED_TIMES_BIT) != 0 && CallLogs::prepare(env);
    if (logged ? patchCallbackToEnableLoggedInvocationCounting(bytes, patched)
               : patchCallbackToEnableInvocationCounting(bytes, patched)) {
      copyBytes(patched, bytes);
    }
  }
  if ((status & ALLOCATION_RECORDING_BIT) != 0) {
    KVector<unsigned char> patched(bytes.size() + 64);
    if (patchCallbackToEnableAllocations(bytes, patched)) {
      copyBytes(patched, bytes);
    }
  }
  if ((status & MONITORS_BIT) != 0) {
    KVector<unsigned char> patched(bytes.size() + 64);
    if (patchCallbackToEnableParkProbes(bytes, patched)) {
      copyBytes(patched, bytes);
    }
  }

  unsigned char* classBytes = static_cast<unsigned char*>(allocate(bytes.size()));
  memcpy(classBytes, bytes.getArray(), static_cast<size_t>(bytes.size()));
  jvmtiClassDefinition definition;
  definition.klass = callbackClass;
  definition.class_byte_count = bytes.size();
  definition.class_bytes = classBytes;
  check_JVMTI_error(ourJVMTI->RedefineClasses(1, &definition));
  deallocate(classBytes);
  env->DeleteLocalRef(callbackClass);
}
