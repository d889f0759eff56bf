#include "engines/KMethod.h"

#include <string.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/TextUtil.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/Filter.h"

KMap<jmethodID, jint> ourMethodID2MethodIndex(1000);
KMap<IntTriple, jint> ourMethodsByName(1000);

namespace {

const char* const CALLBACK_CLASS_NAME = "com.kestrix.runtime.Callback";
const char* const CALL_LOG_CLASS_NAME = "com.kestrix.runtime.CallLog";

}  // namespace

jint KMethod::getByName(const char* methodName, const char* methodSignature, const char* className) {
  StringPool* pool = ourDB->myStrPool;
  IntTriple key;
  key.myFirst = pool->getDBIndex(methodName, true);
  key.mySecond = pool->getDBIndex(methodSignature, true);
  key.myThird = pool->getDBIndex(className, true);
  jint known = 0;
  if (ourMethodsByName.get(key, &known) && known != 0) {
    return known;
  }
  jint index = ourDB->myMethodTable->getIndexPool().nextIndex();
  MethodRecord* record = ourDB->myMethodTable->getRecord(index, true);
  record->myNameStrID = key.myFirst;
  record->mySignatureStrID = key.mySecond;
  record->myClassNameStrID = key.myThird;
  record->myFlags = 0;
  Filter::applyFilters(record);
  // The agent's own probes and the wrappers it puts around natives are plumbing: a trace must
  // show the wrapped method, never the wrapper.
  if (strcmp(className, CALLBACK_CLASS_NAME) == 0 || strcmp(className, CALL_LOG_CLASS_NAME) == 0 ||
      strncmp(methodName, ourNativeMethodPrefix, strlen(ourNativeMethodPrefix)) == 0) {
    record->myFlags |= MF_HIDDEN;
  }
  record->myModificationStamp = ourDB->myModificationStamp;
  ourMethodsByName.put(key, index);
  return index;
}

jint getMethodByName(const char* classSignature, const char* methodName, const char* methodSignature) {
  KASSERT(classSignature);
  KASSERT(methodName);
  KASSERT(methodSignature);
  char* className = classSignature2fqName(classSignature);
  jint methodIndex = KMethod::getByName(methodName, methodSignature, className);
  delete[] className;
  KASSERT(methodIndex);
  return methodIndex;
}

jint getMethodByID(JNIEnv* env, jmethodID methodID) {
  KASSERT(methodID);
  jint known = 0;
  if (ourMethodID2MethodIndex.get(methodID, &known) && known != 0) {
    return known;
  }
  // A frame of another thread, taken at a safepoint and named after it, can belong to a class
  // that was unloaded in between; the JVM then refuses the method, which is no fault of ours.
  char* methodName = nullptr;
  char* methodSignature = nullptr;
  if (ourJVMTI->GetMethodName(methodID, &methodName, &methodSignature, nullptr) != JVMTI_ERROR_NONE) {
    return getMethodByName(UNLOADED_METHOD_CLASS, UNLOADED_METHOD_NAME, "()V");
  }
  KASSERT(methodName);
  KASSERT(methodSignature);
  jclass aClass = nullptr;
  char* classSignature = nullptr;
  if (ourJVMTI->GetMethodDeclaringClass(methodID, &aClass) != JVMTI_ERROR_NONE ||
      ourJVMTI->GetClassSignature(aClass, &classSignature, nullptr) != JVMTI_ERROR_NONE) {
    if (aClass != nullptr) {
      env->DeleteLocalRef(aClass);
    }
    deallocate(methodName);
    deallocate(methodSignature);
    return getMethodByName(UNLOADED_METHOD_CLASS, UNLOADED_METHOD_NAME, "()V");
  }
  KASSERT(classSignature);
  // The class-load hook never sees a hidden class (a lambda's, a method handle's), so its
  // methods carry no probes: tracing steps over them, and a walk of the stack that should give
  // the traced path (a J2EE call's while tracing) must too.
  jboolean modifiable = JNI_TRUE;
  bool hidden = ourJVMTI->IsModifiableClass(aClass, &modifiable) == JVMTI_ERROR_NONE && !modifiable;
  env->DeleteLocalRef(aClass);
  jint methodIndex = getMethodByName(classSignature, methodName, methodSignature);
  if (hidden) {
    MethodRecord* record = ourDB->myMethodTable->getRecord(methodIndex, true);
    if ((record->myFlags & MF_HIDDEN_CLASS) == 0) {
      record->myFlags |= MF_HIDDEN_CLASS;
      record->myModificationStamp = ourDB->myModificationStamp;
    }
  }
  deallocate(methodName);
  deallocate(methodSignature);
  deallocate(classSignature);
  ourMethodID2MethodIndex.put(methodID, methodIndex);
  return methodIndex;
}
