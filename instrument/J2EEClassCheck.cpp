#include "instrument/J2EEHelper.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"

// The run-time half of the catalogue: which loaded classes are J2EE classes. It asks the JVM,
// so it lives apart from the catalogue, which the class-file tools use without one.

// Classes are still prepared while the JVM dies, and the JVM may enter its dead phase between
// any two of the questions below; a class it no longer answers for is simply not a J2EE class.
bool J2EEHelper::isClassImplementsSQLInterfaces(JNIEnv* env, jclass klass) { return methodTypesOf(env, klass) != 0; }

jint J2EEHelper::methodTypesOf(JNIEnv* env, jclass klass) {
  char* classSig = nullptr;
  if (ourJVMTI->GetClassSignature(klass, &classSig, nullptr) != JVMTI_ERROR_NONE || classSig == nullptr) {
    return 0;
  }
  jint types = methodTypesOfInterface(classSig);
  deallocate(classSig);

  // Every supertype counts: a class may be a JDBC connection and a JNDI context at once.
  jint interfaceCount = 0;
  jclass* interfaces = nullptr;
  if (ourJVMTI->GetImplementedInterfaces(klass, &interfaceCount, &interfaces) != JVMTI_ERROR_NONE) {
    return types;
  }
  for (jint i = 0; i < interfaceCount; i++) {
    types |= methodTypesOf(env, interfaces[i]);
    env->DeleteLocalRef(interfaces[i]);
  }
  deallocate(interfaces);

  jclass superclass = env->GetSuperclass(klass);
  if (superclass != nullptr) {
    types |= methodTypesOf(env, superclass);
    env->DeleteLocalRef(superclass);
  }
  return types;
}
