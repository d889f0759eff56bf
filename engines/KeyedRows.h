#ifndef KJP_KEYEDROWS_H
#define KJP_KEYEDROWS_H

#include <jni.h>

#include "agent/KAssert.h"
#include "agent/KMap.h"
#include "agent/KSet.h"
#include "agent/KVector.h"
#include "db/DB.h"

// The rows of a per-thread table, found by a key whose first part is the thread's running
// number (monitor and exception rows). A Key has a jint myThread, a copy with another thread,
// withThread(jint), and fill(Record*), which writes its fields into a new row; kmap_hashCode,
// kmap_equal and kmap_isNull are declared beside it. Everything runs under ourLock.
template <class Key, class Record>
class KeyedRows {
 public:
  KeyedRows(jint initialCapacity, DBTable<Record>* DB::*table) : myKeys(initialCapacity), myTable(table) {}

  // The row of 'key', made, filled and stamped when it is new.
  jint findOrCreate(const Key& key) {
    jint row = 0;
    if (myKeys.get(key, &row) && row != 0) {
      return row;
    }
    DBTable<Record>* table = ourDB->*myTable;
    row = table->getIndexPool().nextIndex();
    myKeys.put(key, row);
    Record* record = table->getRecord(row, true);
    key.fill(record);
    record->myModificationStamp = ourDB->myModificationStamp;
    return row;
  }

  Record* record(jint row) { return (ourDB->*myTable)->getRecord(row, true); }

  // Moves the rows of the threads in 'folded' to the heir's rows with the same key otherwise:
  // 'add' adds a source row's figures to the target, which is stamped; the source row is
  // zeroed, marked deleted at the current stamp and its index given back.
  template <class Add>
  void mergeThreads(KSet<jint>* folded, jint heir, Add add) {
    KASSERT_TEXT(folded, "threadRunningNumbersToCleanup");
    KVector<Key> keys(10);
    for (jint i = 0; i < myKeys._capacity; i++) {
      if (myKeys._states[i] == KMAP_FULL && folded->contains(myKeys._keys[i].myThread)) {
        keys.push(myKeys._keys[i]);
      }
    }
    DBTable<Record>* table = ourDB->*myTable;
    for (jint i = 0; i < keys.size(); i++) {
      const Key& key = keys.get(i);
      jint sourceRow = 0;
      myKeys.get(key, &sourceRow);
      myKeys.remove(key);
      jint targetRow = findOrCreate(key.withThread(heir));
      Record* target = table->getRecord(targetRow, true);
      Record* source = table->getRecord(sourceRow, true);
      add(target, source);
      target->myModificationStamp = ourDB->myModificationStamp;
      *source = Record{};
      source->myModificationStamp = -ourDB->myModificationStamp;
      table->getIndexPool().releaseIndex(sourceRow);
    }
  }

  // Forgets every key and empties the table; the clear is published to clients.
  void clear(jint tableID) {
    myKeys.init();
    ourDB->getTable(tableID)->clearTable();
    ourDB->noteTableCleared(tableID);
  }

  jint size() const { return myKeys.size(); }

 private:
  KMap<Key, jint> myKeys;
  DBTable<Record>* DB::*myTable;
};

#endif
