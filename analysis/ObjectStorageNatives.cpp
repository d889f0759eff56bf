// The natives of com.kestrix.Natives by which the UI builds an object storage from a heap
// snapshot and queries it. A storage travels to Java as its address in a long.

#include <string.h>

#include "agent/JNIUtil.h"
#include "agent/KVector.h"
#include "agent/FileUtil.h"
#include "analysis/BigIntArray32.h"
#include "analysis/DominatorComputer.h"
#include "analysis/GraphWalks.h"
#include "analysis/ObjectStorage.h"

namespace {

bool isIntelByteOrder() {
  const jint one = 1;
  return *reinterpret_cast<const char*>(&one) == 1;
}

// Runs one building step; memory trouble becomes "os::low-disk-space" and false.
template <class Step>
jboolean guarded(JNIEnv* env, Step step) {
  try {
    return step() ? JNI_TRUE : JNI_FALSE;
  } catch (const LowDiskSpaceException&) {
    throwLowDiskSpace(env);
    return JNI_FALSE;
  }
}

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_osNcreate(JNIEnv* env, jclass, jint objectCount,
                                                           jboolean forDominators, jstring tempDir) {
  ourAlternateTempDirForBigIntArraysUtf8 = tempDir == nullptr ? KString() : createUTFKStringFromJString(env, tempDir);
  if (objectCount < 1) {
    throwException(env, "objectCount > 0");
    return 0;
  }
  try {
    return reinterpret_cast<jlong>(new ObjectStorage(env, objectCount, forDominators == JNI_TRUE));
  } catch (const LowDiskSpaceException&) {
    throwLowDiskSpace(env);
    return 0;
  }
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNdelete(JNIEnv*, jclass, jlong os) { delete toStorage(os); }

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNcreateClassImpl(JNIEnv* env, jclass, jlong os, jint index,
                                                                       jint size, jint generation, jint refCount) {
  return guarded(env, [&] { return toStorage(os)->createClass(env, index, size, generation, refCount); });
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNcreateObjectImpl(JNIEnv* env, jclass, jlong os, jint index,
                                                                        jint classIndex, jint size, jint generation,
                                                                        jint refCount) {
  return guarded(env, [&] { return toStorage(os)->createObject(env, index, classIndex, size, generation, refCount); });
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNcreateObjectArrayImpl(JNIEnv* env, jclass, jlong os,
                                                                             jint index, jint classIndex, jint size,
                                                                             jint generation, jint length) {
  return guarded(env,
                 [&] { return toStorage(os)->createObjectArray(env, index, classIndex, size, generation, length); });
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNcreatePrimArrayImpl(JNIEnv* env, jclass, jlong os,
                                                                           jint index, jint classIndex, jint size,
                                                                           jint generation, jint length) {
  return guarded(env,
                 [&] { return toStorage(os)->createPrimArray(env, index, classIndex, size, generation, length); });
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNcreateArrayExtImpl(JNIEnv* env, jclass, jlong os, jint index,
                                                                          jint classIndex, jint size, jint generation,
                                                                          jint, jintArray dims) {
  jint dimCount = dims == nullptr ? 0 : env->GetArrayLength(dims);
  // Room for one at least: an array without dimensions gets its two slots, not an assertion.
  KVector<jint> copy(dimCount > 0 ? dimCount : 1);
  for (jint d = 0; d < dimCount; d++) {
    jint value = 0;
    env->GetIntArrayRegion(dims, d, 1, &value);
    copy.push(value);
  }
  guarded(env, [&] {
    return toStorage(os)->createArrayExt(env, index, classIndex, size, generation, copy.getArray(), dimCount);
  });
  return JNI_TRUE;
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNsetRefImpl(JNIEnv* env, jclass, jlong os, jint object,
                                                              jint target, jint position) {
  guarded(env, [&] {
    toStorage(os)->myRefs.setRef(object, target, position);
    return true;
  });
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetRefImpl(JNIEnv*, jclass, jlong os, jint object, jint position) {
  return toStorage(os)->myRefs.getRef(object, position);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetRefCountImpl(JNIEnv*, jclass, jlong os, jint object) {
  return toStorage(os)->myRefs.getRefCount(object);
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNisObjectValidImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->mySizes.get(index) != -1 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNsetSizeImpl(JNIEnv* env, jclass, jlong os, jint index, jint size) {
  guarded(env, [&] {
    toStorage(os)->mySizes.set(index, size);
    return true;
  });
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetSizeImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->mySizes.get(index);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNsetRetainedSizeImpl(JNIEnv* env, jclass, jlong os, jint index,
                                                                       jlong size) {
  guarded(env, [&] {
    toStorage(os)->setRetainedSize(index, size);
    return true;
  });
}

JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_osNgetRetainedSizeImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->getRetainedSize(index);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetDominatorImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myDominators.get(index);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetGenerationImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myGenerations.get(index);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNsetAllocatorImpl(JNIEnv* env, jclass, jlong os, jint index,
                                                                    jint thread, jint frame) {
  guarded(env, [&] {
    toStorage(os)->myAllocatorThreads.set(index, thread);
    toStorage(os)->myAllocatorFrames.set(index, frame);
    return true;
  });
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetAllocatorThreadImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myAllocatorThreads.get(index);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetAllocatorFrameImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myAllocatorFrames.get(index);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNsetMetaImpl(JNIEnv* env, jclass, jlong os, jint index,
                                                               jint position, jint length) {
  guarded(env, [&] {
    toStorage(os)->myMetaPositions.set(index, position);
    toStorage(os)->myMetaLengths.set(index, length);
    return true;
  });
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetMetaPositionImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myMetaPositions.get(index);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetMetaLengthImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myMetaLengths.get(index);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetArrayLengthImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myArrayLengths.get(index);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNsetPrimitiveDataPositionImpl(JNIEnv* env, jclass, jlong os,
                                                                                jint index, jlong position) {
  guarded(env, [&] {
    ObjectStorage::setWide(toStorage(os)->myPrimitivePositions, index, position);
    return true;
  });
}

JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_osNgetPrimitiveDataPositionImpl(JNIEnv*, jclass, jlong os,
                                                                                 jint index) {
  return ObjectStorage::getWide(toStorage(os)->myPrimitivePositions, index);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNsetOIDHighPartImpl(JNIEnv* env, jclass, jlong os, jint index,
                                                                      jint high) {
  guarded(env, [&] {
    toStorage(os)->myOIDHighParts.set(index, high);
    return true;
  });
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_osNgetOIDHighPartImpl(JNIEnv*, jclass, jlong os, jint index) {
  return toStorage(os)->myOIDHighParts.get(index);
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNreadArrayImpl(JNIEnv* env, jclass, jlong os, jint arrayId,
                                                                     jintArray data, jint from, jint to) {
  ObjectStorage* storage = toStorage(os);
  jint count = to - from;
  if (from < 0 || count < 0 || count > env->GetArrayLength(data)) {
    throwException(env, "0 <= from <= to <= from + data.length", from, to);
    return JNI_FALSE;
  }
  BigIntArray64* target = storage->getArray(arrayId);
  if (arrayId == ObjectStorage::ARRAY_REFS_START_AND_COUNT &&
      static_cast<jlong>(to) > storage->myRefs.getStartAndCountLength()) {
    throwException(env, "to <= start-and-count length", to, storage->myRefs.getStartAndCountLength());
    return JNI_FALSE;
  }
  if (arrayId != ObjectStorage::ARRAY_REFS_START_AND_COUNT && target == nullptr) {
    return JNI_FALSE;
  }
  jint* values = static_cast<jint*>(env->GetPrimitiveArrayCritical(data, nullptr));
  if (!isIntelByteOrder()) {
    for (jint k = 0; k < count; k++) {
      values[k] = static_cast<jint>(__builtin_bswap32(static_cast<uint32_t>(values[k])));
    }
  }
  bool full = false;
  try {
    if (arrayId == ObjectStorage::ARRAY_REFS_START_AND_COUNT) {
      jint* startAndCount = storage->myRefs.getStartAndCount();
      for (jint k = 0; k < count; k++) {
        if (values[k] != 0) {
          startAndCount[from + k] = values[k];
        }
      }
      storage->myRefs.recomputeNextFreeSlot();
    } else {
      fillArray(target, values, from, count);
    }
  } catch (const LowDiskSpaceException&) {
    full = true;
  }
  env->ReleasePrimitiveArrayCritical(data, values, 0);
  if (full) {
    throwLowDiskSpace(env);
    return JNI_FALSE;
  }
  return JNI_TRUE;
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_osNunmapImpl(JNIEnv*, jclass, jlong os) {
  toStorage(os)->myRefs.unmapRefTable("FROM NATIVE");
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNcomputeBRTImpl(JNIEnv* env, jclass, jlong os, jintArray bits,
                                                                      jintArray counts) {
  ObjectStorage* storage = toStorage(os);
  if (!checkBitSet(env, storage, bits) || env->GetArrayLength(counts) < storage->myObjectCount) {
    if (!env->ExceptionCheck()) {
      throwException(env, "counts.length >= objectCount", env->GetArrayLength(counts), storage->myObjectCount);
    }
    return JNI_FALSE;
  }
  jint* bitField = static_cast<jint*>(env->GetPrimitiveArrayCritical(bits, nullptr));
  jint* countField = static_cast<jint*>(env->GetPrimitiveArrayCritical(counts, nullptr));
  RefTable* table = nullptr;
  try {
    table = buildBackReferences(env, storage, bitField, countField);
  } catch (const LowDiskSpaceException&) {
    table = nullptr;
  }
  env->ReleasePrimitiveArrayCritical(counts, countField, 0);
  env->ReleasePrimitiveArrayCritical(bits, bitField, 0);
  if (table == nullptr) {
    throwLowDiskSpace(env);
    return JNI_FALSE;
  }
  KASSERT_TEXT(!storage->myBackRefTable, "!storage->myBackRefTable");
  storage->myBackRefTable = table;
  return JNI_TRUE;
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_osNcomputeDominatorsAndRetainedSizesImpl(JNIEnv* env, jclass,
                                                                                             jlong os, jintArray roots,
                                                                                             jintArray marks) {
  ObjectStorage* storage = toStorage(os);
  if (storage->myVisited == nullptr || storage->myBackRefTable == nullptr) {
    throwException(env, storage->myVisited == nullptr ? "storage created for dominators"
                                                       : "back references computed first");
    return JNI_FALSE;
  }
  if (!checkBitSet(env, storage, marks)) {
    return JNI_FALSE;
  }
  jint rootCount = env->GetArrayLength(roots);
  jint* rootValues = static_cast<jint*>(env->GetPrimitiveArrayCritical(roots, nullptr));
  jint* markValues = static_cast<jint*>(env->GetPrimitiveArrayCritical(marks, nullptr));
  bool full = false;
  try {
    computeDominatorsAndRetainedSizes(env, storage, rootValues, rootCount, markValues);
  } catch (const LowDiskSpaceException&) {
    full = true;
  }
  env->ReleasePrimitiveArrayCritical(marks, markValues, JNI_ABORT);
  env->ReleasePrimitiveArrayCritical(roots, rootValues, JNI_ABORT);
  if (full) {
    throwLowDiskSpace(env);
    return JNI_FALSE;
  }
  return JNI_TRUE;
}

}  // extern "C"
