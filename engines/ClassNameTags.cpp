#include "engines/ClassNameTags.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/TextUtil.h"
#include "db/DB.h"
#include "db/StringPool.h"

namespace {

jlong tagOf(jvmtiEnv* tags, jobject object) {
  jlong tag = 0;
  if (tags == nullptr || tags->GetTag(object, &tag) != JVMTI_ERROR_NONE) {
    return 0;
  }
  return tag;
}

void setTag(jvmtiEnv* tags, jobject object, jlong tag) {
  if (tags != nullptr) {
    check_JVMTI_error(tags->SetTag(object, tag));
  }
}

jint internClassName(jclass klass) {
  char* signature = nullptr;
  check_JVMTI_error(ourJVMTI->GetClassSignature(klass, &signature, nullptr));
  KASSERT_TEXT(signature != nullptr, "classSig");
  char* name = classSignature2fqName(signature);
  deallocate(signature);
  jint index = ourDB->myStrPool->getDBIndex(name, true);
  delete[] name;
  return index;
}

jvmtiIterationControl JNICALL untag(jlong, jlong, jlong* tag, void*) {
  *tag = 0;
  return JVMTI_ITERATION_CONTINUE;
}

}  // namespace

jint getClassNameStrID(JNIEnv* env, jvmtiEnv* tags, jobject object, bool tagObject) {
  if (tagObject) {
    jlong known = tagOf(tags, object);
    if (known != 0) {
      return static_cast<jint>(known);
    }
  }
  jclass klass = env->GetObjectClass(object);
  jint index = static_cast<jint>(tagOf(tags, klass));
  if (index == 0) {
    index = internClassName(klass);
    setTag(tags, klass, index);
  }
  env->DeleteLocalRef(klass);
  if (tagObject) {
    setTag(tags, object, index);
  }
  return index;
}

void clearAllTags(jvmtiEnv* tags) {
  if (tags != nullptr) {
    check_JVMTI_alive(tags->IterateOverHeap(JVMTI_HEAP_OBJECT_TAGGED, untag, nullptr));
  }
}
