#include "engines/InstanceCounting.h"

#include <jvmti.h>
#include <string.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/TextUtil.h"
#include "db/DB.h"
#include "db/StringPool.h"

namespace {

// Serialises countings with each other; taken before ourLock, never inside it.
KLock ourCountingLock;

const jint NEW_CLASSES_CAPACITY = 10000;

}  // namespace

InstanceCounting::InstanceCounting(JNIEnv*, DB* db, jint tables)
    : myDB(db),
      myWanted(db == ourDB && (tables & (1 << INSTANCECOUNTS_TABLE_ID)) != 0),
      myTurn(&ourCountingLock, "InstanceCounting(21)"),
      myFigures(nullptr),
      myFigureCount(0),
      myNewRows(nullptr),
      myNewNames(nullptr) {}

InstanceCounting::~InstanceCounting() {
  if (myNewNames != nullptr) {
    for (jint i = 0; i < myNewNames->size(); i++) {
      delete[] myNewNames->get(i);
    }
  }
  delete myNewNames;
  delete myNewRows;
  delete[] myFigures;
}

void InstanceCounting::gatherClassInstanceStatistics(JNIEnv* env) {
  if (!myWanted || ourJVMTI4 == nullptr || (ourIsJRockit && ourVMDeathCalled)) {
    return;
  }
  myNewRows = new KVector<jint>(NEW_CLASSES_CAPACITY);
  myNewNames = new KVector<char*>(NEW_CLASSES_CAPACITY);
  IndexPool& rows = myDB->myInstanceCountsTable->getIndexPool();
  jint count = 0;
  jclass* classes = nullptr;
  // A capture or a table update that runs on as the JVM dies (a periodic capture, a client's
  // request) finds JVMTI refusing everything: then nothing is counted, and the counts of the
  // last pass stay as they are.
  if (!check_JVMTI_alive(ourJVMTI4->GetLoadedClasses(&count, &classes))) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    jlong tag = 0;
    if (ourJVMTI4->GetTag(classes[i], &tag) != JVMTI_ERROR_NONE) {
      tag = -1;  // dying under the pass: neither named nor counted
    }
    if (tag == 0) {
      char* signature = nullptr;
      if (ourJVMTI4->GetClassSignature(classes[i], &signature, nullptr) == JVMTI_ERROR_NONE) {
        jint row = rows.nextIndex();
        if (ourJVMTI4->SetTag(classes[i], row) == JVMTI_ERROR_NONE) {
          myNewRows->push(row);
          myNewNames->push(classSignature2fqName(signature));
        }
        deallocate(signature);
      }
    }
    env->DeleteLocalRef(classes[i]);
  }
  deallocate(classes);

  // Rows are handed out by this pass only, so every tag the walk can meet is below the end
  // of the table as it stands now.
  jint end = myDB->myInstanceCountsTable->getCapacity();
  for (jint i = 0; i < myNewRows->size(); i++) {
    if (myNewRows->get(i) >= end) {
      end = myNewRows->get(i) + 1;
    }
  }
  myFigureCount = end;
  myFigures = new SizeAndCount[end];
  memset(myFigures, 0, sizeof(SizeAndCount) * static_cast<size_t>(end));
  jvmtiHeapCallbacks callbacks;
  memset(&callbacks, 0, sizeof(callbacks));
  callbacks.heap_iteration_callback = countObject;
  if (!check_JVMTI_alive(ourJVMTI4->IterateThroughHeap(JVMTI_HEAP_FILTER_CLASS_UNTAGGED, nullptr, &callbacks,
                                                        this))) {
    // No walk, no figures: zeros would tell every class's instances gone.
    delete[] myFigures;
    myFigures = nullptr;
  }
}

jint JNICALL InstanceCounting::countObject(jlong classTag, jlong size, jlong*, jint, void* userData) {
  InstanceCounting* counting = static_cast<InstanceCounting*>(userData);
  if (classTag > 0 && classTag < counting->myFigureCount) {
    SizeAndCount& figures = counting->myFigures[classTag];
    figures.myCount++;
    figures.mySize += size;
  }
  return JVMTI_VISIT_OBJECTS;
}

void InstanceCounting::updateDatabase() {
  if (myFigures == nullptr) {
    return;
  }
  DBTable<InstanceCountsRecord>* table = myDB->myInstanceCountsTable;
  jint stamp = myDB->myModificationStamp;
  for (jint i = 0; i < myNewRows->size(); i++) {
    InstanceCountsRecord* record = table->getRecord(myNewRows->get(i), true);
    record->myClassNameStrID = myDB->myStrPool->getDBIndex(myNewNames->get(i), true);
    record->myModificationStamp = stamp;
  }
  jint capacity = table->getCapacity();
  for (jint row = 1; row < capacity; row++) {
    SizeAndCount figures = {0, 0};
    if (row < myFigureCount) {
      figures = myFigures[row];
    }
    InstanceCountsRecord* record = table->getRecord(row, figures.myCount != 0);
    if (record == nullptr) {
      continue;
    }
    if (record->myCount != figures.myCount || record->mySize != figures.mySize) {
      record->myCount = figures.myCount;
      record->mySize = figures.mySize;
      record->myModificationStamp = stamp;
    }
  }
}
