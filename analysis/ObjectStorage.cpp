#include "analysis/ObjectStorage.h"

#include <stdio.h>
#include <stdlib.h>

#include "agent/JNIUtil.h"
#include "agent/Options.h"

ObjectStorage::ObjectStorage(JNIEnv* env, jint objectCount, bool forDominators)
    : myObjectCount(objectCount),
      myBackRefTable(nullptr),
      myRefs(env, "r", objectCount),
      myDominators(env, "i", 0),
      mySizes(env, "ss", -1),
      myRetainedSizes(env, "rs", 0),
      myGenerations(env, "g", 0),
      myAllocatorFrames(env, "af", 0),
      myAllocatorThreads(env, "at", -1),
      myMetaPositions(env, "mp", 0),
      myMetaLengths(env, "ml", 0),
      myArrayLengths(env, "al", -1),
      myPrimitivePositions(env, "po", 0),
      myOIDHighParts(env, "ohp", 0),
      myDominatorBuckets(nullptr),
      myVisited(nullptr) {
  if (forDominators) {
    myDominatorBuckets =
        static_cast<jlong*>(allocateAnalysisMemory((static_cast<size_t>(objectCount) + 1) * sizeof(jlong), true));
    myVisited = static_cast<jint*>(allocateAnalysisMemory(static_cast<size_t>(getBitSetLength()) * sizeof(jint), true));
  }
}

ObjectStorage::~ObjectStorage() {
  delete myBackRefTable;
  free(myDominatorBuckets);
  free(myVisited);
}

bool ObjectStorage::checkIndex(JNIEnv* env, jint index) {
  if (index <= 0) {
    throwException(env, "index > 0", index, myObjectCount);
    return false;
  }
  if (index >= myObjectCount) {
    throwException(env, "index < myObjectCount", index, myObjectCount);
    return false;
  }
  return true;
}

bool ObjectStorage::begin(JNIEnv* env, jint index, jint size, jint generation) {
  if (!checkIndex(env, index)) {
    return false;
  }
  myGenerations.set(index, generation);
  mySizes.set(index, size);
  return true;
}

void ObjectStorage::reserveWithClass(jint index, jint classIndex, jint slots) {
  myRefs.createRefs(index, slots);
  myRefs.setRef(index, classIndex, 0);
}

bool ObjectStorage::createClass(JNIEnv* env, jint index, jint size, jint generation, jint refCount) {
  if (begin(env, index, size, generation)) {
    myRefs.createRefs(index, refCount);
  }
  return true;
}

bool ObjectStorage::createObject(JNIEnv* env, jint index, jint classIndex, jint size, jint generation,
                                 jint refCount) {
  if (begin(env, index, size, generation)) {
    reserveWithClass(index, classIndex, refCount + 1);
  }
  return true;
}

bool ObjectStorage::createObjectArray(JNIEnv* env, jint index, jint classIndex, jint size, jint generation,
                                      jint length) {
  if (begin(env, index, size, generation)) {
    myArrayLengths.set(index, length);
    reserveWithClass(index, classIndex, length + 1);
  }
  return true;
}

bool ObjectStorage::createPrimArray(JNIEnv* env, jint index, jint classIndex, jint size, jint generation,
                                    jint length) {
  if (begin(env, index, size, generation)) {
    myArrayLengths.set(index, length);
    reserveWithClass(index, classIndex, 1);
  }
  return true;
}

bool ObjectStorage::createArrayExt(JNIEnv* env, jint index, jint classIndex, jint size, jint generation,
                                   const jint* dims, jint dimCount) {
  if (begin(env, index, size, generation)) {
    jlong slots = 1;
    for (jint d = 0; d < dimCount; d++) {
      slots *= dims[d];
    }
    reserveWithClass(index, classIndex, dimCount == 0 ? 2 : static_cast<jint>(slots + 1));
  }
  return true;
}

BigIntArray64* ObjectStorage::getArray(jint id) {
  switch (id) {
    case ARRAY_REFS: return &myRefs.getRefs();
    case ARRAY_DOMINATOR: return &myDominators;
    case ARRAY_SIZE: return &mySizes;
    case ARRAY_RETAINED: return &myRetainedSizes;
    case ARRAY_GENERATION: return &myGenerations;
    case ARRAY_ALLOCATOR_FRAME: return &myAllocatorFrames;
    case ARRAY_ALLOCATOR_THREAD: return &myAllocatorThreads;
    case ARRAY_META_POSITION: return &myMetaPositions;
    case ARRAY_META_LENGTH: return &myMetaLengths;
    case ARRAY_ARRAY_LENGTH: return &myArrayLengths;
    case ARRAY_PRIMITIVE_POSITION: return &myPrimitivePositions;
    case ARRAY_OID_HIGH: return &myOIDHighParts;
    default: return nullptr;
  }
}

void ObjectStorage::calculateRetainedSizes(JNIEnv* env) {
  BigIntArray64 childCounts(env, "dcc", 0);
  BigIntArray64 frontier(env, "frnt", 0);
  for (jint o = 1; o < myObjectCount; o++) {
    jint d = myDominators.get(o);
    if (d != 0) {
      childCounts.add(d, 1);
    }
  }
  jint frontierEnd = 0;
  for (jint o = 1; o < myObjectCount; o++) {
    jint size = mySizes.get(o);
    if (size == -1) {
      continue;
    }
    setRetainedSize(o, size);
    if (childCounts.get(o) == 0) {
      frontier.set(frontierEnd++, o);
    }
  }
  // An object joins the frontier once all it dominates has given it its size, so each object is
  // taken once and its size is final when it passes it on.
  for (jint next = 0; next < frontierEnd; next++) {
    jint o = frontier.get(next);
    jint d = myDominators.get(o);
    if (d == 0) {
      continue;
    }
    setRetainedSize(d, getRetainedSize(d) + getRetainedSize(o));
    if (childCounts.add(d, -1) == 0) {
      frontier.set(frontierEnd++, d);
    }
  }
  if (ourOptions.myDebugPageFile) {
    printf("unmapping array %s %s\n", myRetainedSizes.getName().get(), "RETAINED SIZES CALCULATED");
  }
}

void throwLowDiskSpace(JNIEnv* env) { throwException(env, "os::low-disk-space"); }
