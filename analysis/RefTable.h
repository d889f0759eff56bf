#ifndef KJP_REFTABLE_H
#define KJP_REFTABLE_H

#include <jni.h>

#include "analysis/BigIntArray64.h"

// The references of every object, as an adjacency list in compressed form: each object's
// references stand consecutively in one big array, and a second array gives, two ints per
// object, where its run starts and how long it is. A run is reserved once, when the object is
// created, and then filled position by position; a position left 0 is no reference.
class RefTable {
 public:
  RefTable(JNIEnv* env, const char* name, jint objectCount);
  ~RefTable();
  RefTable(const RefTable&) = delete;
  RefTable& operator=(const RefTable&) = delete;

  // Reserves 'count' slots at the next free slot for 'object'.
  void createRefs(jint object, jint count);

  jint getRefCount(jint object) const { return myStartAndCount[2 * object + 1]; }

  void setRef(jint object, jint target, jint position) {
    KASSERT(position >= 0 && position < getRefCount(object));
    myRefs.set(myStartAndCount[2 * object] + position, target);
  }

  jint getRef(jint object, jint position) const { return myRefs.get(myStartAndCount[2 * object] + position); }

  // The run of 'object'; an object with no references gets an empty one.
  void initReferenceIterator(BigIntArrayIterator* iterator, jint object) {
    jint start = myStartAndCount[2 * object];
    iterator->init(&myRefs, start, start + myStartAndCount[2 * object + 1]);
  }

  // Only reports, when page-file debugging is on, which arrays the named step is done with.
  void unmapRefTable(const char* reason) const;

  // The start-and-count array, two ints per object, and its length.
  jint* getStartAndCount() { return myStartAndCount; }
  jint getStartAndCountLength() const { return myStartAndCountLength; }
  BigIntArray64& getRefs() { return myRefs; }
  jint getNextFreeSlot() const { return myNextFree; }
  // After a bulk load of both arrays: the slot after the last run.
  void recomputeNextFreeSlot();

 private:
  jint* myStartAndCount;
  jint myStartAndCountLength;
  BigIntArray64 myRefs;
  jint myNextFree;
};

#endif
