#include "engines/J2EEIndex.h"

#include <stdint.h>

#include "agent/KAssert.h"
#include "db/DB.h"
#include "engines/ThreadInfo.h"

J2EEIndex::J2EEIndex(DB* db) : myMap(1024), myDB(db) {}

J2EEIndex::~J2EEIndex() { clear(); }

jlong J2EEIndex::makeKey(jint runningNumber, jint frame, jint string, jint kind) {
  uint32_t hash = (static_cast<uint32_t>(frame) * 29u + static_cast<uint32_t>(string)) * 29u + static_cast<uint32_t>(kind);
  return static_cast<jlong>((static_cast<uint64_t>(static_cast<uint32_t>(runningNumber)) << 32) | hash);
}

jint J2EEIndex::getIndex(jint string, jint kind, jint frame, jint runningNumber) {
  jlong key = makeKey(runningNumber, frame, string, kind);
  DBTable<J2EERecord>* table = myDB->myJ2EETable;
  KVector<jint>* rows = nullptr;
  if (myMap.get(key, &rows)) {
    for (jint i = 0; i < rows->size(); i++) {
      jint row = rows->get(i);
      J2EERecord* record = table->getRecord(row, true);
      if (record->myThread == runningNumber && record->myFrame == frame && record->myStrID == string &&
          record->myKind == kind) {
        return row;
      }
    }
  } else {
    // Nearly every key has a single row; collisions are rare.
    rows = new KVector<jint>(1);
    myMap.put(key, rows);
  }
  jint row = table->getIndexPool().nextIndex();
  rows->push(row);
  J2EERecord* record = table->getRecord(row, true);
  record->myThread = runningNumber;
  record->myFrame = frame;
  record->myStrID = string;
  record->myKind = kind;
  record->myModificationStamp = myDB->myModificationStamp;
  return row;
}

template <class Match>
void J2EEIndex::collectKeys(Match matches, KVector<jlong>& keys) {
  for (jint i = 0; i < myMap._capacity; i++) {
    if (myMap._states[i] == KMAP_FULL && matches(static_cast<jint>(myMap._keys[i] >> 32))) {
      keys.push(myMap._keys[i]);
    }
  }
}

void J2EEIndex::zeroAndRelease(jint row) {
  J2EERecord* record = myDB->myJ2EETable->getRecord(row, true);
  record->myThread = 0;
  record->myFrame = 0;
  record->myStrID = 0;
  record->myKind = 0;
  record->myTimeNs = 0;
  record->myCount = 0;
  record->myModificationStamp = -myDB->myModificationStamp;
  myDB->myJ2EETable->getIndexPool().releaseIndex(row);
}

void J2EEIndex::clearThread(jint runningNumber) {
  KVector<jlong> keys(16);
  collectKeys([runningNumber](jint number) { return number == runningNumber; }, keys);
  for (jint k = 0; k < keys.size(); k++) {
    KVector<jint>* rows = nullptr;
    myMap.get(keys.get(k), &rows);
    for (jint i = 0; i < rows->size(); i++) {
      zeroAndRelease(rows->get(i));
    }
    myMap.remove(keys.get(k));
    delete rows;
  }
}

void J2EEIndex::mergeJ2EEIndex(KSet<jint>* threadRunningNumbersToCleanup) {
  KASSERT(threadRunningNumbersToCleanup);
  KVector<jlong> keys(16);
  collectKeys([threadRunningNumbersToCleanup](jint number) { return threadRunningNumbersToCleanup->contains(number); },
              keys);
  jint heir = ourOldestDeadThreads->myRunningNumber;
  DBTable<J2EERecord>* table = myDB->myJ2EETable;
  for (jint k = 0; k < keys.size(); k++) {
    KVector<jint>* rows = nullptr;
    myMap.get(keys.get(k), &rows);
    for (jint i = 0; i < rows->size(); i++) {
      J2EERecord* source = table->getRecord(rows->get(i), true);
      // getIndex may grow the map and allocate rows; the record pointers stay valid since
      // chunks never move.
      J2EERecord* target = table->getRecord(getIndex(source->myStrID, source->myKind, source->myFrame, heir), true);
      target->myTimeNs += source->myTimeNs;
      target->myCount += source->myCount;
      target->myModificationStamp = myDB->myModificationStamp;
      zeroAndRelease(rows->get(i));
    }
    myMap.remove(keys.get(k));
    delete rows;
  }
}

void J2EEIndex::fillIndexFromTable() {
  clear();
  DBTable<J2EERecord>* table = myDB->myJ2EETable;
  IndexPool& pool = table->getIndexPool();
  pool.clearIndexPool();
  jint capacity = table->getCapacity();
  for (jint index = 0; index < capacity; index++) {
    pool.nextIndex();
    const J2EERecord* record = table->getRecords().getExistingPtr(index);
    if (record == nullptr ||
        (record->myThread == 0 && record->myFrame == 0 && record->myStrID == 0 && record->myKind == 0)) {
      continue;
    }
    jlong key = makeKey(record->myThread, record->myFrame, record->myStrID, record->myKind);
    KVector<jint>* rows = nullptr;
    if (!myMap.get(key, &rows)) {
      rows = new KVector<jint>(10);
      myMap.put(key, rows);
    }
    rows->push(index);
  }
}

void J2EEIndex::clear() {
  for (jint i = 0; i < myMap._capacity; i++) {
    if (myMap._states[i] == KMAP_FULL) {
      delete myMap._values[i];
    }
  }
  myMap.init();
}
