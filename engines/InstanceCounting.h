#ifndef KJP_INSTANCECOUNTING_H
#define KJP_INSTANCECOUNTING_H

#include <jni.h>

#include "agent/KLock.h"
#include "agent/KVector.h"

class DB;

// Live instances and their shallow bytes of one class.
struct SizeAndCount {
  jlong mySize;
  jint myCount;
};

// The instance counts table: one row per loaded class, with the number and total shallow size
// of its live instances. A class's row index is its tag on ourJVMTI4, given the first time a
// pass meets the class. Gathering walks the heap outside ourLock; the rows are written under it,
// by table writing, through updateDatabase.
//
// One counting at a time: a counting holds its own lock from construction to destruction, so
// that two of them never hand out the same row or name a row twice. Nobody may hold ourLock
// while making one.
class InstanceCounting {
 public:
  // Gathers nothing unless 'tables' has the instance counts table's bit and 'db' is the
  // agent's own database.
  InstanceCounting(JNIEnv* env, DB* db, jint tables);
  ~InstanceCounting();
  InstanceCounting(const InstanceCounting&) = delete;
  InstanceCounting& operator=(const InstanceCounting&) = delete;

  // Tags classes not met before and counts every live object by its class.
  void gatherClassInstanceStatistics(JNIEnv* env);

  // Writes the gathered figures into the table: names of new classes, and counts and sizes of
  // every row whose figures changed, a class without instances left reading 0. Stamps only
  // the rows it changes. Nothing without a gathering. Caller holds ourLock.
  void updateDatabase();

  bool hasGathered() const { return myFigures != nullptr; }

 private:
  static jint JNICALL countObject(jlong classTag, jlong size, jlong* tagPtr, jint length, void* userData);

  DB* myDB;
  bool myWanted;
  LockHolder myTurn;
  // By class row index, myFigureCount of them; owned, null unless gathered.
  SizeAndCount* myFigures;
  jint myFigureCount;
  // Rows given to classes new in this pass, and their names (new[] texts, owned).
  KVector<jint>* myNewRows;
  KVector<char*>* myNewNames;
};

#endif
