#include "instrument/J2EEHelper.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"

// The run-time half of the catalogue: which loaded classes are J2EE classes. It asks the JVM,
// so it lives apart from the catalogue, which the class-file tools use without one.

namespace {

bool isCatalogueInterfaceSignature(const char* signature) { return J2EEHelper::ourAllInterfaceNames.contains(signature); }

}  // namespace

// Classes are still prepared while the JVM dies, and the JVM may enter its dead phase between
// any two of the questions below; a class it no longer answers for is simply not a J2EE class.
bool J2EEHelper::isClassImplementsSQLInterfaces(JNIEnv* env, jclass klass) {
  char* classSig = nullptr;
  if (ourJVMTI->GetClassSignature(klass, &classSig, nullptr) != JVMTI_ERROR_NONE || classSig == nullptr) {
    return false;
  }
  bool found = isCatalogueInterfaceSignature(classSig);
  deallocate(classSig);
  if (found) {
    return true;
  }

  jint interfaceCount = 0;
  jclass* interfaces = nullptr;
  if (ourJVMTI->GetImplementedInterfaces(klass, &interfaceCount, &interfaces) != JVMTI_ERROR_NONE) {
    return false;
  }
  for (jint i = 0; i < interfaceCount; i++) {
    if (!found) {
      char* sig = nullptr;
      if (ourJVMTI->GetClassSignature(interfaces[i], &sig, nullptr) == JVMTI_ERROR_NONE && sig != nullptr) {
        found = isCatalogueInterfaceSignature(sig) || isClassImplementsSQLInterfaces(env, interfaces[i]);
        deallocate(sig);
      }
    }
    env->DeleteLocalRef(interfaces[i]);
  }
  deallocate(interfaces);
  if (found) {
    return true;
  }

  jclass superclass = env->GetSuperclass(klass);
  if (superclass == nullptr) {
    return false;
  }
  bool result = isClassImplementsSQLInterfaces(env, superclass);
  env->DeleteLocalRef(superclass);
  return result;
}
