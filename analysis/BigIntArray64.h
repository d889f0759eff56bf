#ifndef KJP_BIGINTARRAY64_H
#define KJP_BIGINTARRAY64_H

#include <jni.h>
#include <stdlib.h>

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "agent/KVector.h"

class AbstractWriter;

// Raised when the memory or the temporary disk space behind an analysis array runs out. The
// natives turn it into a Java exception with the text "os::low-disk-space", so that the UI can
// tell the user to free space rather than see a crash in the middle of a heap of 500 million
// objects.
class LowDiskSpaceException {
 public:
  explicit LowDiskSpaceException(const char* what) : myWhat(what) {}
  const char* what() const { return myWhat; }

 private:
  const char* myWhat;
};

// A sparse array of 32-bit values in pages of 1048576 ints. A page comes into being the first
// time something is stored in it, filled with the default value; an untouched page reads as the
// default everywhere and costs nothing. So an array that is mostly default, such as the
// allocation sites of a heap where few objects were recorded, costs only the pages in use.
// Not locked: one thread builds and reads an array at a time.
class BigIntArray64 {
 public:
  static const jint PAGE_SHIFT = 20;
  static const jint PAGE_SIZE = 1 << PAGE_SHIFT;
  static const jint PAGE_MASK = PAGE_SIZE - 1;

  // The name is a tag for page-file debugging, kept only when that is switched on.
  BigIntArray64(JNIEnv* env, const KString& name, jint defaultValue = 0);
  ~BigIntArray64();
  BigIntArray64(const BigIntArray64&) = delete;
  BigIntArray64& operator=(const BigIntArray64&) = delete;

  jint get(jint index) const {
    jint page = index >> PAGE_SHIFT;
    if (page >= myPages.size()) {
      return myDefaultValue;
    }
    const jint* buffer = myPages.getArray()[page];
    return buffer == nullptr ? myDefaultValue : buffer[index & PAGE_MASK];
  }

  void set(jint index, jint value) {
    KASSERT(index >= 0);
    getBuffer(index, true)[index & PAGE_MASK] = value;
  }

  // Adds 'delta' and returns the new value.
  jint add(jint index, jint delta) {
    KASSERT(index >= 0);
    jint* slot = getBuffer(index, true) + (index & PAGE_MASK);
    *slot += delta;
    return *slot;
  }

  // The page that holds 'index'; null when it was never touched, unless 'create' makes it.
  jint* getBuffer(jint index, bool create) {
    jint page = index >> PAGE_SHIFT;
    if (page < myPages.size()) {
      jint* buffer = myPages.getArray()[page];
      if (buffer != nullptr || !create) {
        return buffer;
      }
    } else if (!create) {
      return nullptr;
    }
    return createPage(page);
  }

  jint getDefaultValue() const { return myDefaultValue; }
  const KString& getName() const { return myName; }
  // Pages addressed so far, touched or not; page p covers [p << 20, (p + 1) << 20).
  jint getPageCount() const { return myPages.size(); }
  bool isPageAllocated(jint page) const { return page < myPages.size() && myPages.getArray()[page] != nullptr; }
  jint getAllocatedPageCount() const;

  // Sets every element to 'value' without allocating anything: the pages go, and 'value'
  // becomes what they read as.
  void reset(jint value);

  // The sparse form of the snapshot's index section: for each allocated page in ascending order
  // its start, its end (exclusive) and its 1048576 values; then -1, -1.
  void writeArray(AbstractWriter& writer) const;

 private:
  jint* createPage(jint page);

  KVector<jint*> myPages;
  jint myDefaultValue;
  KString myName;
};

// The same reading interface over one block of a fixed length, zeroed at construction, for the
// dominator computer's data whose size is known up front. No bounds check on access: the
// block is sized by the caller for exactly what it addresses.
class BigIntArray64Presized {
 public:
  BigIntArray64Presized(JNIEnv* env, const KString& name, jlong length);
  ~BigIntArray64Presized();
  BigIntArray64Presized(const BigIntArray64Presized&) = delete;
  BigIntArray64Presized& operator=(const BigIntArray64Presized&) = delete;

  jint get(jlong index) const { return myBlock[index]; }
  void set(jlong index, jint value) { myBlock[index] = value; }
  jint add(jlong index, jint delta) {
    KASSERT(index >= 0);
    return myBlock[index] += delta;
  }
  jint* getBlock() { return myBlock; }
  jlong getLength() const { return myLength; }

 private:
  size_t mappedBytes() const { return static_cast<size_t>(myLength) * sizeof(jint); }

  jint* myBlock;
  jlong myLength;
  KString myName;
};

// Walks the run [current, end) of a BigIntArray64, holding the page it is in, so that the
// references of one object cost one page lookup rather than one per element.
class BigIntArrayIterator {
 public:
  BigIntArrayIterator() : myArray(nullptr), myCurrent(0), myEnd(0), myPage(nullptr), myPageEnd(0) {}

  void init(BigIntArray64* array, jint from, jint to) {
    myArray = array;
    myCurrent = from;
    myEnd = to;
    myPage = nullptr;
    myPageEnd = from;
  }

  bool hasNext() const { return myCurrent < myEnd; }

  jint next() {
    if (myCurrent >= myPageEnd) {
      myPage = myArray->getBuffer(myCurrent, false);
      myPageEnd = (myCurrent | BigIntArray64::PAGE_MASK) + 1;
    }
    jint index = myCurrent++;
    return myPage == nullptr ? myArray->getDefaultValue() : myPage[index & BigIntArray64::PAGE_MASK];
  }

 private:
  BigIntArray64* myArray;
  jint myCurrent;
  jint myEnd;
  const jint* myPage;
  jint myPageEnd;
};

// Copies values[0..count) to positions start.. of the array, skipping values equal to the
// array's default, so that pages that would hold nothing else are never allocated.
template <class Array>
void fillArray(Array* array, const jint* values, jint start, jint count) {
  jint defaultValue = array->getDefaultValue();
  for (jint k = 0; k < count; k++) {
    if (values[k] != defaultValue) {
      array->set(start + k, values[k]);
    }
  }
}

// Memory for the analysis arrays: from the heap, with LowDiskSpaceException when there is none.
void* allocateAnalysisMemory(size_t bytes, bool zeroed);

#endif
