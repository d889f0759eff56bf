#include "analysis/OIDProcessor.h"

#include <stdlib.h>

#include "agent/KAssert.h"

namespace {

int compareNarrow(const void* a, const void* b) {
  jint x = *static_cast<const jint*>(a);
  jint y = *static_cast<const jint*>(b);
  return x < y ? -1 : (x > y ? 1 : 0);
}

int compareWide(const void* a, const void* b) {
  jlong x = *static_cast<const jlong*>(a);
  jlong y = *static_cast<const jlong*>(b);
  return x < y ? -1 : (x > y ? 1 : 0);
}

template <class T>
jint search(const T* values, jint count, T key) {
  jint low = 0;
  jint high = count - 1;
  while (low <= high) {
    jint mid = (low + high) >> 1;
    if (values[mid] < key) {
      low = mid + 1;
    } else if (values[mid] > key) {
      high = mid - 1;
    } else {
      return mid + 1;
    }
  }
  return 0;
}

}  // namespace

OIDProcessor::OIDProcessor(bool wide, jint capacity)
    : myNarrow(wide ? nullptr : new jint[capacity > 0 ? capacity : 1]()),
      myWide(wide ? new jlong[capacity > 0 ? capacity : 1]() : nullptr),
      myCapacity(capacity > 0 ? capacity : 0),
      myCount(0) {}

OIDProcessor::~OIDProcessor() {
  delete[] myNarrow;
  delete[] myWide;
}

void OIDProcessor::convertOIDsToIndices() {
  if (myNarrow != nullptr) {
    qsort(myNarrow, static_cast<size_t>(myCapacity), sizeof(jint), compareNarrow);
  } else {
    qsort(myWide, static_cast<size_t>(myCapacity), sizeof(jlong), compareWide);
  }
}

jint OIDProcessor::getIndex(jlong oid) const {
  return myNarrow != nullptr ? search(myNarrow, myCapacity, static_cast<jint>(oid)) : search(myWide, myCapacity, oid);
}

extern "C" {

JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_createOIDProcessor(JNIEnv*, jclass, jboolean wide, jint capacity) {
  return reinterpret_cast<jlong>(new OIDProcessor(wide == 1, capacity));
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_processOIDs(JNIEnv* env, jclass, jlong handle, jlongArray oids,
                                                            jint count) {
  OIDProcessor* processor = reinterpret_cast<OIDProcessor*>(handle);
  jlong* values = static_cast<jlong*>(env->GetPrimitiveArrayCritical(oids, nullptr));
  for (jint k = 0; k < count; k++) {
    processor->processOID(values[k]);
  }
  env->ReleasePrimitiveArrayCritical(oids, values, 0);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_convertOIDsToIndices(JNIEnv*, jclass, jlong handle) {
  reinterpret_cast<OIDProcessor*>(handle)->convertOIDsToIndices();
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_getIndex(JNIEnv*, jclass, jlong handle, jlong oid) {
  return reinterpret_cast<OIDProcessor*>(handle)->getIndex(oid);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_deleteOIDProcessor(JNIEnv*, jclass, jlong handle) {
  delete reinterpret_cast<OIDProcessor*>(handle);
}

}  // extern "C"
