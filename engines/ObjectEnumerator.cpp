#include "engines/ObjectEnumerator.h"

#include "agent/KAssert.h"
#include "engines/ThreadInfo.h"

ObjectEnumerator* ourObjectEnumerator = nullptr;

jint ObjectEnumerator::store_allocation_info(const ThreadInfo* info, jint frame) {
  LockHolder holder(&myLock, "ObjectEnumerator(10)");
  KASSERT_TEXT(info != nullptr, "thread");
  DBTable<AllocatorRecord>* table = ourDB->myAllocatorTable;
  jint index = table->getIndexPool().nextIndex();
  AllocatorRecord* record = table->getRecord(index, true);
  record->myThread = info->myRunningNumber;
  record->myFrame = frame;
  record->myObjectIndex = 0;
  record->myModificationStamp = ourDB->myModificationStamp;
  return index;
}

void ObjectEnumerator::return_tag_to_pool(jint pureTag) {
  LockHolder holder(&myLock, "ObjectEnumerator(23)");
  KASSERT(pureTag > 0);
  DBTable<AllocatorRecord>* table = ourDB->myAllocatorTable;
  AllocatorRecord* record = table->getRecord(pureTag, true);
  record->myThread = 0;
  record->myFrame = 0;
  record->myObjectIndex = 0;
  // A negative stamp marks the row deleted, so that readers of the table skip it.
  record->myModificationStamp = -ourDB->myModificationStamp;
  table->getIndexPool().releaseIndex(pureTag);
}

void ObjectEnumerator::setObjectIndex(jint pureTag, jint objectIndex) {
  LockHolder holder(&myLock, "ObjectEnumerator(36)");
  KASSERT(pureTag > 0);
  ourDB->myAllocatorTable->getRecord(pureTag, true)->myObjectIndex = objectIndex;
}

AllocatorRecord* ObjectEnumerator::getAllocator(jint pureTag) {
  LockHolder holder(&myLock, "ObjectEnumerator(42)");
  KASSERT(pureTag > 0);
  DBTable<AllocatorRecord>* table = ourDB->myAllocatorTable;
  if (pureTag >= table->getCapacity()) {
    return nullptr;
  }
  return table->getRecord(pureTag, true);
}

void ObjectEnumerator::clearAllocators() {
  LockHolder holder(&myLock, "ObjectEnumerator(52)");
  ourDB->myAllocatorTable->forEachStampedRecord([](jint, AllocatorRecord* record) {
    record->myThread = 0;
    record->myFrame = 0;
  });
}
