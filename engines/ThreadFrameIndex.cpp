#include "engines/ThreadFrameIndex.h"

#include "engines/ThreadInfo.h"

ThreadFrameIndex::ThreadFrameIndex(DB* db) : myMaps(10), myDB(db) {}

ThreadFrameIndex::~ThreadFrameIndex() { clearThreadFrameIndex(); }

KIntChunkMap<jint>* ThreadFrameIndex::makeMap(jint threadSlot) {
  while (myMaps.size() <= threadSlot) {
    myMaps.push(nullptr);
  }
  KIntChunkMap<jint>* map = myMaps.get(threadSlot);
  if (map == nullptr) {
    map = new KIntChunkMap<jint>(FRAME_MAP_CAPACITY, -1);
    myMaps.set(threadSlot, map);
  }
  return map;
}

jint ThreadFrameIndex::createTFI(jint* slotInMap, jint threadSlot, jint frame) {
  DBTable<ThreadFrameRecord>* table = myDB->myThreadFrameTable;
  jint tfi = table->getIndexPool().nextIndex();
  ThreadFrameRecord* record = table->getRecord(tfi, true);
  record->myThreadIndexForTFI = threadSlot;
  record->myFrameID = frame;
  record->myModificationStamp = myDB->myModificationStamp;
  *slotInMap = tfi;
  return tfi;
}

void ThreadFrameIndex::changeThread(jint threadSlot) {
  KASSERT_TEXT(threadSlot >= 0, "index >= 0");
  if (threadSlot >= myMaps.size() || myMaps.get(threadSlot) == nullptr) {
    return;
  }
  // The heir's figures now include time that was measured on other threads' clocks.
  ourOldestDeadThreads->myNeedsWallTimeCorrection = true;
  dropSlot(threadSlot, ourOldestDeadThreads->myIndexForTFI);
}

void ThreadFrameIndex::clearThread(ThreadInfo* info) {
  jint threadSlot = info->myIndexForTFI;
  KASSERT_TEXT(threadSlot >= 0, "index >= 0");
  if (threadSlot >= myMaps.size() || myMaps.get(threadSlot) == nullptr) {
    return;
  }
  dropSlot(threadSlot, -1);
}

void ThreadFrameIndex::dropSlot(jint threadSlot, jint heirSlot) {
  KIntChunkMap<jint>* map = myMaps.get(threadSlot);
  DBTable<ThreadFrameRecord>* threadFrames = myDB->myThreadFrameTable;
  DBTable<CPUProfilingRecord>* cpu = myDB->myCPUProfilingTable;
  DBTable<AllocInfoRecord>* allocs = myDB->myAllocInfoTable;
  jint deletedStamp = -myDB->myModificationStamp;

  jint chunkCount = map->getChunkCount();
  for (jint c = 0; c < chunkCount; c++) {
    jint* chunk = map->getChunk(c);
    if (chunk == nullptr) {
      continue;
    }
    for (jint i = 0; i < KIntChunkMap<jint>::CHUNK_SIZE; i++) {
      jint tfi = chunk[i];
      if (tfi == -1) {
        continue;
      }
      jint frame = (c << KIntChunkMap<jint>::CHUNK_SHIFT) + i;

      ThreadFrameRecord* pair = threadFrames->getRecord(tfi, true);
      pair->myThreadIndexForTFI = 0;
      pair->myFrameID = 0;
      pair->myModificationStamp = deletedStamp;

      // The heir's pair is made only when there are figures to take over.
      jint target = -1;
      if (tfi < cpu->getCapacity()) {
        CPUProfilingRecord* source = cpu->getRecord(tfi, true);
        if (heirSlot != -1) {
          target = getTFI(heirSlot, frame, true);
          CPUProfilingRecord* heir = cpu->getRecord(target, true);
          heir->time += source->time;
          heir->count += source->count;
          heir->myModificationStamp = myDB->myModificationStamp;
        }
        source->time = 0;
        source->count = 0;
        source->myModificationStamp = deletedStamp;
      }
      if (tfi < allocs->getCapacity()) {
        AllocInfoRecord* source = allocs->getRecord(tfi, true);
        if (heirSlot != -1) {
          if (target == -1) {
            target = getTFI(heirSlot, frame, true);
          }
          AllocInfoRecord* heir = allocs->getRecord(target, true);
          heir->myCount += source->myCount;
          heir->mySize += source->mySize;
          heir->myModificationStamp = myDB->myModificationStamp;
        }
        source->myCount = 0;
        source->mySize = 0;
        source->myModificationStamp = deletedStamp;
      }
      threadFrames->getIndexPool().releaseIndex(tfi);
    }
  }
  delete map;
  myMaps.set(threadSlot, nullptr);
}

void ThreadFrameIndex::clearThreadFrameIndex() {
  for (jint i = 0; i < myMaps.size(); i++) {
    delete myMaps.get(i);
  }
  myMaps.clear();
}

jlong ThreadFrameIndex::getAllocatedBytes() const {
  jlong bytes = static_cast<jlong>(myMaps.capacity()) * 8 + 8;
  for (jint i = 0; i < myMaps.size(); i++) {
    const KIntChunkMap<jint>* map = myMaps.get(i);
    if (map != nullptr) {
      bytes += static_cast<jlong>(map->getChunkCount()) * 8 +
               static_cast<jlong>(map->getAllocatedChunkCount()) * KIntChunkMap<jint>::CHUNK_SIZE *
                   static_cast<jlong>(sizeof(jint));
    }
  }
  return bytes;
}

void ThreadFrameIndex::fillIndexFromTable() {
  clearThreadFrameIndex();
  DBTable<ThreadFrameRecord>* table = myDB->myThreadFrameTable;
  IndexPool& pool = table->getIndexPool();
  pool.clearIndexPool();
  jint capacity = table->getCapacity();
  for (jint index = 0; index < capacity; index++) {
    // Every row is taken from the pool, empty or not, so that the pool ends above the table.
    pool.nextIndex();
    // A row filled through the natives may not be stamped yet; its fields decide.
    const ThreadFrameRecord* record = table->getRecords().getExistingPtr(index);
    if (record == nullptr || (record->myThreadIndexForTFI == 0 && record->myFrameID == 0)) {
      continue;
    }
    *makeMap(record->myThreadIndexForTFI)->getPtr(record->myFrameID, true) = index;
  }
}
