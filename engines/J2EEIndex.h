#ifndef KJP_J2EEINDEX_H
#define KJP_J2EEINDEX_H

#include <jni.h>

#include "agent/KMap.h"
#include "agent/KSet.h"
#include "agent/KVector.h"

class DB;

// Finds the j2ee row of an event: (thread running number, frame, string, kind). The key of
// the map holds the running number in its high half and a hash of the other three in its low
// half, so per-thread work finds a thread's entries by walking the map; the value lists every
// row with that key, and hash collisions are told apart by comparing the row's fields.
// All operations run under ourLock, or on the UI side on the UI's own thread.
class J2EEIndex {
 public:
  explicit J2EEIndex(DB* db);
  ~J2EEIndex();

  J2EEIndex(const J2EEIndex&) = delete;
  J2EEIndex& operator=(const J2EEIndex&) = delete;

  // The event's row, made and stamped when missing.
  jint getIndex(jint string, jint kind, jint frame, jint runningNumber);

  // Drops every row of the thread: zeroed, marked deleted at the current stamp, index freed.
  void clearThread(jint runningNumber);

  // Folds the rows of the given dead threads into "<Oldest dead threads>".
  void mergeJ2EEIndex(KSet<jint>* threadRunningNumbersToCleanup);

  // Rebuilds the index from the table, for a database loaded from a snapshot. Every row is
  // drawn from the pool, empty or not, so new rows never reuse a row of the file.
  void fillIndexFromTable();

  // Forgets every entry; the rows stay as they are.
  void clear();

  jint size() const { return myMap.size(); }

  static jlong makeKey(jint runningNumber, jint frame, jint string, jint kind);

 private:
  // Collects the keys whose running number 'matches' accepts; the caller then changes the
  // map, which a walk over its slots could not survive.
  template <class Match>
  void collectKeys(Match matches, KVector<jlong>& keys);
  void zeroAndRelease(jint row);

  KMap<jlong, KVector<jint>*> myMap;
  DB* myDB;
};

#endif
