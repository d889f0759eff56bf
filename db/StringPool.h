#ifndef KJP_STRINGPOOL_H
#define KJP_STRINGPOOL_H

#include <jni.h>

#include "agent/KMap.h"

class DB;

// Interns every text of the database: one row of the string table per distinct text, and
// records refer to texts by row index, 0 meaning none. The map's keys are the very copies the
// string rows point at; the pool owns and frees them. Long-running applications produce an
// unbounded stream of texts (SQL above all), so strings that no record refers to any more can
// be collected. No lock of its own: agent-side callers hold ourLock.
class StringPool {
 public:
  explicit StringPool(DB* db);
  ~StringPool();

  StringPool(const StringPool&) = delete;
  StringPool& operator=(const StringPool&) = delete;

  // The text's index; 0 for null, and 0 for an unknown text when 'create' is false. A known
  // text costs one hash lookup and no allocation.
  jint getDBIndex(const char* text, bool create);

  // Binds a text to a given index, replacing whatever text the row held. The UI uses it to
  // load strings that carry their index.
  void setDBIndex(const char* text, jint index);

  // Mark and sweep: frees every string that no string field of any table refers to, deleted
  // rows included, marks its row deleted at the current stamp and gives its index back.
  // Returns the number of strings collected.
  jint collectGarbageStrings();

  jint size() const { return myMap.size(); }

 private:
  KMap<const char*, jint> myMap;
  DB* myDB;
};

#endif
