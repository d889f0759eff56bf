#ifndef KJP_OBJECTSTORAGE_H
#define KJP_OBJECTSTORAGE_H

#include <jni.h>
#include <stdint.h>

#include "analysis/BigIntArray64.h"
#include "analysis/RefTable.h"

// A bit set over object indices, as the UI passes them in int arrays: bit i is in int i >> 5.
inline bool isMarked(const jint* bits, jint index) { return (bits[index >> 5] & (1 << (index & 31))) != 0; }
inline void setMark(jint* bits, jint index) { bits[index >> 5] |= (1 << (index & 31)); }
inline void clearMark(jint* bits, jint index) { bits[index >> 5] &= ~(1 << (index & 31)); }

// The object graph of one heap snapshot in the analysing process: per-object facts in parallel
// paged arrays indexed by the object index of the file (1 and up; 0 is no object), and the
// references in a RefTable. No object costs a heap allocation of its own, which is what lets a
// heap of hundreds of millions of objects fit.
//
// Every object that has a class keeps the class at position 0 of its references; an instance's
// fields and an object array's elements follow from position 1. Classes are GC roots in the
// snapshots this system writes, so the extra reference never changes who dominates whom, and it
// lets a reopened index answer the class of any object without the heap records.
//
// Built once, then analysed and queried, from one thread at a time.
class ObjectStorage {
 public:
  // Ids of the arrays for bulk loading and for the index section, in the order of both.
  enum ArrayId {
    ARRAY_REFS_START_AND_COUNT = 0,
    ARRAY_REFS = 1,
    ARRAY_DOMINATOR = 2,
    ARRAY_SIZE = 3,
    ARRAY_RETAINED = 4,
    ARRAY_GENERATION = 5,
    ARRAY_ALLOCATOR_FRAME = 6,
    ARRAY_ALLOCATOR_THREAD = 7,
    ARRAY_META_POSITION = 8,
    ARRAY_META_LENGTH = 9,
    ARRAY_ARRAY_LENGTH = 10,
    ARRAY_PRIMITIVE_POSITION = 11,
    ARRAY_OID_HIGH = 12,
    ARRAY_COUNT = 13
  };

  // 'objectCount' counts index 0 too. With 'forDominators' the two work areas of the dominator
  // computation are made as well.
  ObjectStorage(JNIEnv* env, jint objectCount, bool forDominators);
  ~ObjectStorage();
  ObjectStorage(const ObjectStorage&) = delete;
  ObjectStorage& operator=(const ObjectStorage&) = delete;

  // Each of these checks "index > 0" and "index < myObjectCount" and raises a Java exception
  // when either fails, creating nothing. They return false, likewise with an exception raised,
  // when the storage's memory runs out.
  bool createClass(JNIEnv* env, jint index, jint size, jint generation, jint refCount);
  bool createObject(JNIEnv* env, jint index, jint classIndex, jint size, jint generation, jint refCount);
  bool createObjectArray(JNIEnv* env, jint index, jint classIndex, jint size, jint generation, jint length);
  bool createPrimArray(JNIEnv* env, jint index, jint classIndex, jint size, jint generation, jint length);
  // A multi-dimensional array: the product of 'dims' references plus the class, or 2 without dims.
  bool createArrayExt(JNIEnv* env, jint index, jint classIndex, jint size, jint generation, const jint* dims,
                      jint dimCount);

  // Retained sizes from the dominators in "i": each object's shallow size plus that of all the
  // objects it dominates, bottom-up over the dominator tree without recursion.
  void calculateRetainedSizes(JNIEnv* env);

  jlong getRetainedSize(jint index) const { return getWide(myRetainedSizes, index); }
  void setRetainedSize(jint index, jlong size) { setWide(myRetainedSizes, index, size); }

  // A 64-bit value kept in two elements of an array, the high half first.
  static jlong getWide(const BigIntArray64& array, jint index) {
    return (static_cast<jlong>(array.get(2 * index)) << 32) |
           static_cast<jlong>(static_cast<uint32_t>(array.get(2 * index + 1)));
  }
  static void setWide(BigIntArray64& array, jint index, jlong value) {
    array.set(2 * index, static_cast<jint>(value >> 32));
    array.set(2 * index + 1, static_cast<jint>(value));
  }

  // The array behind an id of ArrayId from ARRAY_REFS on; null for another id.
  BigIntArray64* getArray(jint id);
  // The bit set needs this many ints for every index of the storage.
  jint getBitSetLength() const { return (myObjectCount >> 5) + 1; }

  jint myObjectCount;
  RefTable* myBackRefTable;
  RefTable myRefs;                      // "r"
  BigIntArray64 myDominators;           // "i"
  BigIntArray64 mySizes;                // "ss", -1 where there is no object
  BigIntArray64 myRetainedSizes;        // "rs", two ints an object, high half first
  BigIntArray64 myGenerations;          // "g"
  BigIntArray64 myAllocatorFrames;      // "af"
  BigIntArray64 myAllocatorThreads;     // "at"
  BigIntArray64 myMetaPositions;        // "mp"
  BigIntArray64 myMetaLengths;          // "ml"
  BigIntArray64 myArrayLengths;         // "al", -1 for non-arrays
  BigIntArray64 myPrimitivePositions;   // "po", two ints an object
  BigIntArray64 myOIDHighParts;         // "ohp"
  jlong* myDominatorBuckets;            // myObjectCount + 1 words, the buckets of the dominator computation, or null
  jint* myVisited;                      // a bit an object, or null

 private:
  bool checkIndex(JNIEnv* env, jint index);
  // The checks of every create, then its generation and shallow size; false, with a Java
  // exception raised, for an index out of range.
  bool begin(JNIEnv* env, jint index, jint size, jint generation);
  // Reserves the object's slots, its class at position 0.
  void reserveWithClass(jint index, jint classIndex, jint slots);
};

// The storage behind a handle of the Java side.
inline ObjectStorage* toStorage(jlong handle) { return reinterpret_cast<ObjectStorage*>(handle); }

// Raises "os::low-disk-space" in Java.
void throwLowDiskSpace(JNIEnv* env);

#endif
