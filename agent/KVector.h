#ifndef KJP_KVECTOR_H
#define KJP_KVECTOR_H

#include <jni.h>
#include <string.h>

#include "agent/KAssert.h"

// A growable array of plain values. Growth copies through the virtual copyValues, so that
// KVectorSafe can copy element types that own memory by assignment instead of by bytes.
// The array is made with new[], which leaves plain values uninitialised and costs nothing.
template <class T>
class KVector {
 public:
  explicit KVector(jint initialCapacity) : mySize(0), myCapacity(initialCapacity), myArray(nullptr) {
    KASSERT(initialCapacity > 0);
    myArray = new T[initialCapacity];
  }

  virtual ~KVector() { delete[] myArray; }

  KVector(const KVector&) = delete;
  KVector& operator=(const KVector&) = delete;

  void push(const T& value) {
    if (mySize == myCapacity) {
      // The value may live in this very array, which growing frees.
      T copy = value;
      grow();
      myArray[mySize++] = copy;
      return;
    }
    myArray[mySize++] = value;
  }

  T pop() {
    KASSERT(mySize > 0);
    return myArray[--mySize];
  }

  T& get(jint index) {
    KASSERT(index >= 0);
    KASSERT(index < mySize);
    return myArray[index];
  }

  const T& get(jint index) const {
    KASSERT(index >= 0);
    KASSERT(index < mySize);
    return myArray[index];
  }

  T& operator[](jint index) { return get(index); }
  const T& operator[](jint index) const { return get(index); }

  // 'where' names the caller: each value from 1 to 9 has its own assertion line, so the line
  // number in a failure report tells which call site passed a bad index.
  void set(jint index, const T& value, int where = 0) {
    bool inRange = index >= 0 && index < mySize;
    switch (where) {
      case 1: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 2: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 3: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 4: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 5: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 6: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 7: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 8: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      case 9: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
      default: KASSERT_TEXT(inRange, "index >= 0 && index < mySize"); break;
    }
    myArray[index] = value;
  }

  // Removes [fromIndex, toIndex), moving the tail down; the capacity stays.
  void removeRange(jint fromIndex, jint toIndex) {
    KASSERT(toIndex >= 0);
    KASSERT(toIndex <= mySize);
    KASSERT(fromIndex >= 0);
    KASSERT(fromIndex <= toIndex);
    if (fromIndex == toIndex) {
      return;
    }
    copyValues(myArray + toIndex, myArray + fromIndex, mySize - toIndex);
    mySize -= toIndex - fromIndex;
  }

  jint size() const { return mySize; }
  jint capacity() const { return myCapacity; }
  bool isEmpty() const { return mySize == 0; }
  void clear() { mySize = 0; }
  T* getArray() { return myArray; }
  const T* getArray() const { return myArray; }

  T& last() {
    KASSERT(mySize > 0);
    return myArray[mySize - 1];
  }

 protected:
  // Copies count elements; the ranges may overlap when elements move down inside the array.
  virtual void copyValues(T* from, T* to, int count) {
    if (count > 0) {
      memmove(static_cast<void*>(to), static_cast<const void*>(from), sizeof(T) * static_cast<size_t>(count));
    }
  }

  jint mySize;
  jint myCapacity;
  T* myArray;

 private:
  void grow() {
    KASSERT_TEXT(myCapacity <= 0x3FFFFFFF, "myCapacity <= 0x3FFFFFFF");
    jint newCapacity = myCapacity * 2;
    T* newArray = new T[newCapacity];
    copyValues(myArray, newArray, mySize);
    delete[] myArray;
    myArray = newArray;
    myCapacity = newCapacity;
  }
};

#endif
