#include "engines/Generations.h"

#include <jvmti.h>
#include <string.h>

#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/ObjectEnumerator.h"

namespace {

jint ourCurrentGenerationID = 0;

jint JNICALL markUnmarkedObject(jlong, jlong, jlong* tagPtr, jint, void* userData) {
  jlong tag = *tagPtr;
  if (getGenerationOfTag(tag) == 0) {
    *tagPtr = makeAllocationTag(getAllocatorRowOfTag(tag), *static_cast<jint*>(userData));
  }
  return JVMTI_VISIT_OBJECTS;
}

// Old IBM JVMs leave classes out of heap walks.
void markUnmarkedClasses(JNIEnv* env, jint generation) {
  jint count = 0;
  jclass* classes = nullptr;
  if (!check_JVMTI_alive(ourJVMTI->GetLoadedClasses(&count, &classes))) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    jlong tag = 0;
    check_JVMTI_error(ourJVMTI->GetTag(classes[i], &tag));
    if (getGenerationOfTag(tag) == 0) {
      check_JVMTI_error(ourJVMTI->SetTag(classes[i], makeAllocationTag(getAllocatorRowOfTag(tag), generation)));
    }
    env->DeleteLocalRef(classes[i]);
  }
  deallocate(classes);
}

}  // namespace

namespace Generations {

jint getCurrentGenerationID() { return ourCurrentGenerationID; }

jint startGeneration(jint type, const KString& description) {
  DBTable<GenerationRecord>* table = ourDB->myGenerationTable;
  jint generation = table->getIndexPool().nextIndex();
  ourCurrentGenerationID = generation;
  GenerationRecord* record = table->getRecord(generation, true);
  record->myType = type;
  record->myDescriptionStrID = ourDB->myStrPool->getDBIndex(description.get(), true);
  record->myUptimeMs = ourUptimeProvider.getUptimeMs();
  record->myModificationStamp = ourDB->myModificationStamp;
  return generation;
}

void markMemory(JNIEnv* env, jint type, const KString& description) {
  LockHolder holder(&ourLock, "Generations(48)");
  jint generation = startGeneration(type, description);
  // Every object, tagged or not: the walk that visits each once at a safepoint.
  jvmtiHeapCallbacks callbacks;
  memset(&callbacks, 0, sizeof(callbacks));
  callbacks.heap_iteration_callback = markUnmarkedObject;
  // A mark asked for as the JVM dies marks nothing: no capture can show it any more.
  if (check_JVMTI_alive(ourJVMTI->IterateThroughHeap(0, nullptr, &callbacks, &generation)) && ourIsIBM) {
    markUnmarkedClasses(env, generation);
  }
}

}  // namespace Generations
