#ifndef KJP_KVECTORSAFE_H
#define KJP_KVECTORSAFE_H

#include "agent/KVector.h"

// KVector for element types that own memory, such as KString. Every slot of the array holds
// a live element (new[] constructs them all), so copying is plain assignment, which frees
// what the target slot held and deep-copies the source.
template <class T>
class KVectorSafe : public KVector<T> {
 public:
  explicit KVectorSafe(jint initialCapacity) : KVector<T>(initialCapacity) {}

  ~KVectorSafe() override {
    delete[] this->myArray;
    this->myArray = nullptr;
  }

 protected:
  // Ascending order is right for the only overlapping use, moving elements down.
  void copyValues(T* from, T* to, int count) override {
    for (int i = 0; i < count; i++) {
      if (from + i != to + i) {
        to[i] = from[i];
      }
    }
  }
};

#endif
