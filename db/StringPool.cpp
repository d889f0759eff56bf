#include "db/StringPool.h"

#include <stdio.h>

#include "agent/Clock.h"
#include "agent/KHelpers.h"
#include "agent/KSet.h"
#include "agent/Options.h"
#include "db/DB.h"

StringPool::StringPool(DB* db) : myMap(1000), myDB(db) {}

StringPool::~StringPool() {
  for (jint i = 0; i < myMap._capacity; i++) {
    if (myMap._states[i] == KMAP_FULL) {
      delete[] myMap._keys[i];
    }
  }
}

jint StringPool::getDBIndex(const char* text, bool create) {
  if (text == nullptr) {
    return 0;
  }
  jint index;
  if (myMap.get(text, &index)) {
    return index;
  }
  if (!create) {
    return 0;
  }
  char* copy = k_strdup(text);
  index = myDB->myStringTable->getIndexPool().nextIndex();
  myMap.put(copy, index);
  StringRecord* record = myDB->myStringTable->getRecord(index, true);
  record->myText = copy;
  record->myModificationStamp = myDB->myModificationStamp;
  return index;
}

void StringPool::setDBIndex(const char* text, jint index) {
  if (text == nullptr) {
    return;
  }
  char* copy = k_strdup(text);
  StringRecord* record = myDB->myStringTable->getRecord(index, true);
  if (record->myText != nullptr) {
    myMap.remove(record->myText);
    delete[] record->myText;
  }
  record->myText = copy;
  record->myModificationStamp = myDB->myModificationStamp;
  myMap.put(copy, index);
}

namespace {

// Adds a string field to the live set. 0 names no string and is never swept, since row 0 of
// the string table is never handed out.
inline void mark(KSet<jint>& live, jint stringIndex) {
  if (stringIndex != 0) {
    live.add(stringIndex);
  }
}

}  // namespace

jint StringPool::collectGarbageStrings() {
  jlong startNs = getTimeNs();
  DBTable<StringRecord>* strings = myDB->myStringTable;
  KSet<jint> live(strings->getCapacity());

  // Deleted rows mark too: a row sent as deleted may still be shown by the client with its
  // texts until the client drops it.
  myDB->myThreadTable->forEachStampedRecord([&](jint, ThreadRecord* r) {
    mark(live, r->myNameStrID);
    mark(live, r->myGroupStrID);
  });
  myDB->myMethodTable->forEachStampedRecord([&](jint, MethodRecord* r) {
    mark(live, r->myNameStrID);
    mark(live, r->mySignatureStrID);
    mark(live, r->myClassNameStrID);
  });
  myDB->myJ2EETable->forEachStampedRecord([&](jint, J2EERecord* r) { mark(live, r->myStrID); });
  myDB->myMonitorTable->forEachStampedRecord([&](jint, MonitorRecord* r) { mark(live, r->myClassNameStrID); });
  myDB->myInstanceCountsTable->forEachStampedRecord(
      [&](jint, InstanceCountsRecord* r) { mark(live, r->myClassNameStrID); });
  myDB->mySnapshotTable->forEachStampedRecord([&](jint, SnapshotRecord* r) { mark(live, r->myPathStrID); });
  myDB->myGenerationTable->forEachStampedRecord(
      [&](jint, GenerationRecord* r) { mark(live, r->myDescriptionStrID); });
  // A property value may be a plain number; taking it for a string index at worst keeps one
  // string too many. Names are marked on unstamped rows as well: the telemetry constants are
  // named at start-up and stay unstamped until their first value, and their names must
  // survive until then.
  DBTable<PropertyRecord>* properties = myDB->myPropertyTable;
  KIntChunkMap<PropertyRecord>& propertyRows = properties->getRecords();
  for (jint c = 0; c < propertyRows.getChunkCount(); c++) {
    const PropertyRecord* chunk = propertyRows.getChunk(c);
    for (jint i = 0; chunk != nullptr && i < KIntChunkMap<PropertyRecord>::CHUNK_SIZE; i++) {
      mark(live, chunk[i].myNameStrID);
    }
  }
  properties->forEachStampedRecord([&](jint, PropertyRecord* r) { mark(live, r->myValue); });
  myDB->myExceptionTable->forEachStampedRecord([&](jint, ExceptionRecord* r) { mark(live, r->myClassNameStrID); });

  jint collected = 0;
  jint stamp = myDB->myModificationStamp;
  strings->forEachStampedRecord([&](jint index, StringRecord* r) {
    // A row already deleted keeps its negative stamp and isn't collected twice.
    if (r->myText == nullptr || r->myModificationStamp <= 0 || live.contains(index)) {
      return;
    }
    myMap.remove(r->myText);
    delete[] r->myText;
    r->myText = nullptr;
    // The negative stamp is how the deletion reaches the client: its magnitude is above the
    // client's last stamp, so the next update sends the row with length -1.
    r->myModificationStamp = -stamp;
    strings->getIndexPool().releaseIndex(index);
    collected++;
  });

  if (ourOptions.myPrintStringGCTimes) {
    fprintf(stderr, "strings collected: %d time=%d\n", collected, static_cast<int>((getTimeNs() - startNs) / 1000000));
    fflush(stderr);
  }
  return collected;
}
