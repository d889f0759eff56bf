#include "instrument/ClassLoadHook.h"

#include <stdio.h>
#include <string.h>

#include <new>

#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "agent/KString.h"
#include "agent/Options.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/ClassRewriter.h"
#include "classfile/CodeAttribute.h"
#include "classfile/MethodInfo.h"
#include "db/records/MethodRecord.h"
#include "instrument/CallbackPatcher.h"
#include "instrument/InstrumentationRules.h"
#include "instrument/MethodIDProvider.h"
#include "instrument/ParkProbes.h"
#include "instrument/TracingInstrumentation.h"

bool ourCallbackSeen = false;
KVector<unsigned char>& ourCallbackBytes = *new KVector<unsigned char>(2048);

namespace {

const char* const CALLBACK_CLASS_NAME = "com/kestrix/runtime/Callback";

// Stateless: the numbering lives in the database.
const MethodIDProvider ourMethodIDProvider;

void copyBytes(const KVector<unsigned char>& from, KVector<unsigned char>& to) {
  to.clear();
  for (int i = 0; i < from.size(); i++) {
    to.push(from[i]);
  }
}

bool sameBytes(const KVector<unsigned char>& a, const KVector<unsigned char>& b) {
  return a.size() == b.size() && memcmp(a.getArray(), b.getArray(), static_cast<size_t>(a.size())) == 0;
}

// Runs one patch on 'bytes' in place; a class the patch cannot handle stays as it was.
void applyPatch(bool (*patch)(KVector<unsigned char>&, KVector<unsigned char>&), KVector<unsigned char>& bytes) {
  KVector<unsigned char> patched(bytes.size() + 256);
  if (patch(bytes, patched)) {
    copyBytes(patched, bytes);
  }
}

// The callback class at its first load: its probe bodies prepared, that state kept for
// every later redefinition, and the bodies of the modes asked for on the command line
// switched on at once, since no redefinition happens before the first probe runs.
void prepareCallbackClass(KVector<unsigned char>& bytes) {
  ourCallbackSeen = true;
  KVector<unsigned char> prepared(bytes.size() + 256);
  if (patchCallback(bytes, prepared, isFlagUsed())) {
    copyBytes(prepared, bytes);
  }
  copyBytes(bytes, ourCallbackBytes);
  if (ourOptions.myTracing && !isFlagUsed()) {
    applyPatch(patchCallbackToEnableInvocationCounting, bytes);
  }
  if (ourOptions.myAllocAtStart && !isFlagUsed()) {
    applyPatch(patchCallbackToEnableAllocations, bytes);
  }
  if (ourOptions.myMonitors && !isFlagUsed()) {
    applyPatch(patchCallbackToEnableParkProbes, bytes);
  }
}

void flagMethodsNotInstrumented(ClassFile& classFile, void* context) {
  const MethodIDProvider* provider = static_cast<const MethodIDProvider*>(context);
  KString className(classFile.getSignature());
  KVector<MethodInfo*>& methods = classFile.getMethods();
  for (int i = 0; i < methods.size(); i++) {
    MethodInfo* method = methods[i];
    if (method->getCodeAttribute() == nullptr) {
      continue;
    }
    jint methodIndex =
        provider->getMethodID(className.get(), method->getName().get(), method->getDescriptor().get());
    provider->addMethodFlags(methodIndex, MF_NOT_INSTRUMENTED);
  }
}

}  // namespace

void markAllMethodsAsNotInstrumented(const MethodIDProvider* provider, KVector<unsigned char>& input) {
  KASSERT(provider);
  // The written class is thrown away: only the method rows are wanted.
  KVector<unsigned char> unused(input.size() > 0 ? input.size() : 1);
  ClassRewriter::rewrite(nullptr, input, unused, flagMethodsNotInstrumented, const_cast<MethodIDProvider*>(provider));
}

bool isClass(const unsigned char* data, int length, const char* name) {
  KASSERT(name);
  size_t nameLength = strlen(name);
  if (data == nullptr || length <= 0 || memmem(data, static_cast<size_t>(length), name, nameLength) == nullptr) {
    return false;
  }
  KVector<unsigned char> bytes(length);
  for (int i = 0; i < length; i++) {
    bytes.push(data[i]);
  }
  try {
    DataInput in(bytes);
    ClassFile classFile(in);
    return classFile.getSignature() == KString(name);
  } catch (const ClassFormatError&) {
    return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void JNICALL class_file_load_hook_handler(jvmtiEnv* jvmti, JNIEnv* env, jclass classBeingRedefined, jobject loader,
                                          const char* name, jobject protectionDomain, jint classDataLength,
                                          const unsigned char* classData, jint* newClassDataLength,
                                          unsigned char** newClassData) {
  LockHolder holder(&ourLock, "Instrumentation(132)");
  *newClassDataLength = 0;
  *newClassData = nullptr;
  if (ourVMDeathCalled) {
    return;
  }
  const char* className = name != nullptr ? name : "<NULL>";

  if (classData == nullptr || classDataLength < 4 || classData[0] != 0xCA || classData[1] != 0xFE ||
      classData[2] != 0xBA || classData[3] != 0xBE) {
    if (ourOptions.myPrintInstrTimes) {
      fprintf(stderr, "instrumentation of class %s - not a CAFEBABE - skipping\n", className);
      fflush(stderr);
    }
    return;
  }

  jlong startNs = getTimeNs();
  KVector<unsigned char> bytes(classDataLength > 4096 ? classDataLength : 4096);
  for (jint i = 0; i < classDataLength; i++) {
    bytes.push(classData[i]);
  }

  // A new IBM JVM loads classes before VM Start that must not refer to any other class yet.
  if (ourIsIBM && ourIsMustang && !ourVMStartCalled) {
    markAllMethodsAsNotInstrumented(&ourMethodIDProvider, bytes);
    if (ourOptions.myPrintInstrTimes) {
      fprintf(stderr, "instrumentation of class '%s' - no VMStart event yet - skipping\n", className);
      fflush(stderr);
    }
    return;
  }

  bool changed = false;
  if (!ourCallbackSeen && name != nullptr && strcmp(name, CALLBACK_CLASS_NAME) == 0) {
    prepareCallbackClass(bytes);
    changed = true;
  }

  KVector<unsigned char> instrumented(bytes.size() + 1024);
  if (instrumentForTracingAllocationJ2EE(&ourMethodIDProvider, name, bytes, instrumented, !ourOptions.myDisableAlloc,
                                         !ourOptions.myDisableCounts, !ourOptions.myDisableJ2EE)) {
    if (!sameBytes(bytes, instrumented)) {
      changed = true;
      copyBytes(instrumented, bytes);
    }
  }
  KVector<unsigned char> parkProbed(bytes.size() + 64);
  if (instrumentParkProbes(name, bytes, parkProbed)) {
    changed = true;
    copyBytes(parkProbed, bytes);
  }

  if (ourOptions.myPrintInstrTimes) {
    fprintf(stderr, "instrumentation of class '%s' has taken %d ms changed=%s\n", className,
            static_cast<int>((getTimeNs() - startNs) / 1000000), changed ? "true" : "false");
    fflush(stderr);
  }

  if (changed) {
    // The JVM frees the new bytes itself, so they must come from its allocator.
    unsigned char* result = static_cast<unsigned char*>(allocate(bytes.size()));
    memcpy(result, bytes.getArray(), static_cast<size_t>(bytes.size()));
    *newClassDataLength = bytes.size();
    *newClassData = result;
  }
}
