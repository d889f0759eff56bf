#include "analysis/GraphWalks.h"

#include <stdlib.h>

#include "agent/JNIUtil.h"
#include "analysis/DominatorComputer.h"

bool checkBitSet(JNIEnv* env, ObjectStorage* storage, jintArray bits) {
  if (bits == nullptr || env->GetArrayLength(bits) < storage->getBitSetLength()) {
    throwException(env, "bits.length >= (objectCount >> 5) + 1", bits == nullptr ? -1 : env->GetArrayLength(bits),
                   storage->getBitSetLength());
    return false;
  }
  return true;
}

namespace {

// Calls visit(referrer, target) for each non-zero reference of the objects whose bit is set,
// referrers from the highest index down.
template <class Visit>
void forEachReference(ObjectStorage* storage, const jint* bits, Visit visit) {
  BigIntArrayIterator targets;
  for (jint i = storage->myObjectCount - 1; i >= 1; i--) {
    if (!isMarked(bits, i)) {
      continue;
    }
    storage->myRefs.initReferenceIterator(&targets, i);
    while (targets.hasNext()) {
      jint t = targets.next();
      if (t != 0) {
        visit(i, t);
      }
    }
  }
}

}  // namespace

RefTable* buildBackReferences(JNIEnv* env, ObjectStorage* storage, const jint* bits, jint* counts) {
  forEachReference(storage, bits, [counts](jint, jint t) { counts[t]--; });
  RefTable* table = new RefTable(env, "brt", storage->myObjectCount);
  forEachReference(storage, bits, [counts, table](jint i, jint t) {
    if (counts[t] < 0) {
      counts[t] = -counts[t];
      table->createRefs(t, counts[t]);
    }
    // Filled from the last position down while i falls: each run ends up in rising order.
    counts[t]--;
    table->setRef(t, i, counts[t]);
  });
  return table;
}

void computeDominatorsAndRetainedSizes(JNIEnv* env, ObjectStorage* storage, const jint* roots, jint rootCount,
                                       const jint* marks) {
  DominatorComputer computer(env, storage, roots, rootCount, marks);
  free(storage->myDominatorBuckets);
  storage->myDominatorBuckets = nullptr;
  // The same sums as calculateRetainedSizes, which needs nothing but the dominators, in less
  // time: the search's numbering is still at hand. Objects the search did not reach retain their
  // own size.
  BigIntArray64& sizes = storage->mySizes;
  for (jint o = 1; o < storage->myObjectCount; o++) {
    jint size = sizes.get(o);
    if (size != -1) {
      storage->setRetainedSize(o, size);
    }
  }
  computer.addUpRetainedSizes();
  free(storage->myVisited);
  storage->myVisited = nullptr;
}

void markReachable(JNIEnv* env, ObjectStorage* storage, jint start, jint* bits) {
  BigIntArray64 stack(env, "fst", 0);
  jint depth = 0;
  stack.set(depth++, start);
  setMark(bits, start);
  BigIntArrayIterator targets;
  while (depth > 0) {
    jint object = stack.get(--depth);
    storage->myRefs.initReferenceIterator(&targets, object);
    while (targets.hasNext()) {
      jint t = targets.next();
      if (t > 0 && t < storage->myObjectCount && !isMarked(bits, t)) {
        setMark(bits, t);
        stack.set(depth++, t);
      }
    }
  }
}

jlong sumShallowSizes(ObjectStorage* storage, const jint* bits) {
  jlong sum = 0;
  for (jint i = storage->myObjectCount - 1; i >= 1; i--) {
    if (isMarked(bits, i)) {
      sum += storage->mySizes.get(i);
    }
  }
  return sum;
}

extern "C" {

JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_s1(JNIEnv* env, jclass, jlong os, jintArray bits) {
  ObjectStorage* storage = toStorage(os);
  if (!checkBitSet(env, storage, bits)) {
    return 0;
  }
  jint* bitField = static_cast<jint*>(env->GetPrimitiveArrayCritical(bits, nullptr));
  jlong sum = sumShallowSizes(storage, bitField);
  env->ReleasePrimitiveArrayCritical(bits, bitField, JNI_ABORT);
  return sum;
}

// Marks from each listed object whose bit is clear; a listed object that is set already is
// passed over. Stops at the first start that is no object, with its failure text.
static bool markFromObjects(JNIEnv* env, ObjectStorage* storage, jintArray objects, jint* bitField,
                            const char** failure) {
  jint count = objects == nullptr ? 0 : env->GetArrayLength(objects);
  jint* list = count == 0 ? nullptr : static_cast<jint*>(env->GetPrimitiveArrayCritical(objects, nullptr));
  bool ok = true;
  try {
    for (jint k = 0; k < count && ok; k++) {
      jint object = list[k];
      if (object <= 0 || object >= storage->myObjectCount) {
        *failure = "object != 0";
        ok = false;
      } else if (!isMarked(bitField, object)) {
        markReachable(env, storage, object, bitField);
      }
    }
  } catch (const LowDiskSpaceException&) {
    *failure = "os::low-disk-space";
    ok = false;
  }
  if (list != nullptr) {
    env->ReleasePrimitiveArrayCritical(objects, list, JNI_ABORT);
  }
  return ok;
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_f(JNIEnv* env, jclass, jlong os, jintArray objects,
                                                      jintArray bits) {
  ObjectStorage* storage = toStorage(os);
  if (!checkBitSet(env, storage, bits)) {
    return JNI_FALSE;
  }
  jint* bitField = static_cast<jint*>(env->GetPrimitiveArrayCritical(bits, nullptr));
  const char* failure = nullptr;
  bool ok = markFromObjects(env, storage, objects, bitField, &failure);
  env->ReleasePrimitiveArrayCritical(bits, bitField, 0);
  if (!ok) {
    throwException(env, failure);
    return JNI_FALSE;
  }
  return JNI_TRUE;
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_Natives_f0(JNIEnv* env, jclass, jlong os, jintArray a, jintArray b,
                                                       jint from, jint to, jintArray objects, jintArray exclude,
                                                       jintArray bits) {
  ObjectStorage* storage = toStorage(os);
  if (!checkBitSet(env, storage, bits) || (exclude != nullptr && !checkBitSet(env, storage, exclude)) ||
      (a != nullptr && !checkBitSet(env, storage, a))) {
    return JNI_FALSE;
  }
  jint groupLength = b == nullptr ? 0 : env->GetArrayLength(b);
  if (from < 0 || to < from || to > groupLength) {
    throwException(env, "0 <= from <= to <= b.length", from, to);
    return JNI_FALSE;
  }
  jint words = storage->getBitSetLength();
  jint* group = groupLength == 0 ? nullptr : env->GetIntArrayElements(b, nullptr);
  for (jint k = from; k < to; k++) {
    if (group[k] <= 0 || group[k] >= storage->myObjectCount) {
      env->ReleaseIntArrayElements(b, group, JNI_ABORT);
      throwException(env, "object != 0", group[k], storage->myObjectCount);
      return JNI_FALSE;
    }
  }
  jint* bitField = env->GetIntArrayElements(bits, nullptr);
  if (exclude != nullptr) {
    env->GetIntArrayRegion(exclude, 0, words, bitField);
  }
  // The complement of 'exclude': only the objects set there are open to the walk; all others
  // count as reached already, so the walk passes them by.
  for (jint w = 0; w < words; w++) {
    bitField[w] = exclude != nullptr ? ~bitField[w] : 0;
  }
  clearMark(bitField, 0);
  if (a == nullptr) {
    for (jint k = from; k < to; k++) {
      setMark(bitField, group[k]);
    }
  } else {
    jint* other = env->GetIntArrayElements(a, nullptr);
    for (jint w = 0; w < words; w++) {
      bitField[w] |= other[w];
    }
    env->ReleaseIntArrayElements(a, other, JNI_ABORT);
  }
  const char* failure = nullptr;
  bool ok = markFromObjects(env, storage, objects, bitField, &failure);
  if (ok && a == nullptr) {
    // What the walk did not reach is reachable only through the group.
    for (jint w = 0; w < words; w++) {
      bitField[w] = ~bitField[w];
    }
    for (jint k = from; k < to; k++) {
      setMark(bitField, group[k]);
    }
    clearMark(bitField, 0);
  }
  env->ReleaseIntArrayElements(bits, bitField, 0);
  if (group != nullptr) {
    env->ReleaseIntArrayElements(b, group, JNI_ABORT);
  }
  if (!ok) {
    throwException(env, failure);
    return JNI_FALSE;
  }
  return JNI_TRUE;
}

}  // extern "C"
