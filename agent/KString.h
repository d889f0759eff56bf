#ifndef KJP_KSTRING_H
#define KJP_KSTRING_H

#include <string.h>

#include "agent/KAssert.h"
#include "agent/KVectorSafe.h"

// A string value: one owned, terminated array, never null (the empty string is one
// terminator). Copies duplicate the array; nothing is shared or counted, so a string can be
// handed between threads without any lock.
template <class Value>
class KStringImpl {
 public:
  KStringImpl() : myValue(_copy(emptyText())) {}

  KStringImpl(const Value* s) : myValue(nullptr) {  // NOLINT: implicit from text on purpose
    KASSERT(s);
    myValue = _copy(s);
  }

  KStringImpl(const Value* part1, const Value* part2) : myValue(nullptr) {
    KASSERT(part1);
    KASSERT(part2);
    myValue = _concat(part1, part2);
  }

  KStringImpl(const Value* part1, const KStringImpl& part2) : myValue(nullptr) {
    KASSERT(part1);
    myValue = _concat(part1, part2.myValue);
  }

  // The first 'length' values of s.
  KStringImpl(const Value* s, int length) : myValue(nullptr) {
    KASSERT(s);
    KASSERT(length >= 0);
    KASSERT(_length(s) >= length);
    myValue = copyRange(s, 0, length);
  }

  // The values of s from beginIndex up to, not including, endIndex.
  KStringImpl(const Value* s, int beginIndex, int endIndex) : myValue(nullptr) {
    KASSERT(s);
    checkRange(beginIndex, endIndex, _length(s));
    myValue = copyRange(s, beginIndex, endIndex);
  }

  KStringImpl(const KStringImpl& other) : myValue(_copy(other.myValue)) {}

  ~KStringImpl() { delete[] myValue; }

  KStringImpl& operator=(const KStringImpl& other) {
    if (this != &other) {
      Value* copy = _copy(other.myValue);
      delete[] myValue;
      myValue = copy;
    }
    return *this;
  }

  KStringImpl& operator=(const Value* s) {
    KASSERT(s);
    if (s != myValue) {
      Value* copy = _copy(s);
      delete[] myValue;
      myValue = copy;
    }
    return *this;
  }

  KStringImpl& operator+=(const Value* s) {
    KASSERT(s);
    Value* joined = _concat(myValue, s);
    delete[] myValue;
    myValue = joined;
    return *this;
  }

  KStringImpl operator+(const Value* s) const { return KStringImpl(myValue, s); }

  bool operator==(const Value* s) const { return s != nullptr && compare(myValue, s) == 0; }
  bool operator!=(const Value* s) const { return !(*this == s); }
  bool operator==(const KStringImpl& s) const { return compare(myValue, s.myValue) == 0; }
  bool operator!=(const KStringImpl& s) const { return !(*this == s); }

  bool startsWith(const Value* str) const { return startsWith(myValue, str); }

  static bool startsWith(const Value* source, const Value* str) {
    KASSERT(source);
    KASSERT(str);
    for (int i = 0; str[i] != 0; i++) {
      if (source[i] != str[i]) {
        return false;
      }
    }
    return true;
  }

  // First position of str, or -1.
  int indexOf(const Value* str) const {
    KASSERT(str);
    for (int i = 0; myValue[i] != 0; i++) {
      if (startsWith(myValue + i, str)) {
        return i;
      }
    }
    return str[0] == 0 ? 0 : -1;
  }

  KStringImpl substring(int beginIndex) const { return substring(beginIndex, length()); }

  KStringImpl substring(int beginIndex, int endIndex) const { return KStringImpl(myValue, beginIndex, endIndex); }

  // Appends the non-empty runs between delimiters; each value of 'delimiters' is one.
  void split(const Value* delimiters, KVectorSafe<KStringImpl>& result) const {
    int runStart = 0;
    int i = 0;
    for (; myValue[i] != 0; i++) {
      if (isDelimiter(myValue[i], delimiters)) {
        if (i > runStart) {
          result.push(KStringImpl(myValue, runStart, i));
        }
        runStart = i + 1;
      }
    }
    if (i > runStart) {
      result.push(KStringImpl(myValue, runStart, i));
    }
  }

  const Value* get() const { return myValue; }
  int length() const { return _length(myValue); }
  bool isEmpty() const { return myValue[0] == 0; }

  static Value* _copy(const Value* s) {
    KASSERT(s);
    int length = _length(s);
    Value* result = new Value[length + 1];
    memcpy(result, s, sizeof(Value) * static_cast<size_t>(length + 1));
    return result;
  }

  static Value* _concat(const Value* part1, const Value* part2) {
    KASSERT(part1);
    KASSERT(part2);
    int length1 = _length(part1);
    int length2 = _length(part2);
    Value* result = new Value[length1 + length2 + 1];
    memcpy(result, part1, sizeof(Value) * static_cast<size_t>(length1));
    memcpy(result + length1, part2, sizeof(Value) * static_cast<size_t>(length2 + 1));
    return result;
  }

  static int _length(const Value* s) {
    int length = 0;
    while (s[length] != 0) {
      length++;
    }
    return length;
  }

 private:
  static const Value* emptyText() {
    static const Value empty[1] = {0};
    return empty;
  }

  static void checkRange(int beginIndex, int endIndex, int len) {
    KASSERT(beginIndex >= 0);
    KASSERT(beginIndex <= endIndex);
    KASSERT(endIndex <= len);
  }

  static Value* copyRange(const Value* s, int beginIndex, int endIndex) {
    int length = endIndex - beginIndex;
    Value* result = new Value[length + 1];
    memcpy(result, s + beginIndex, sizeof(Value) * static_cast<size_t>(length));
    result[length] = 0;
    return result;
  }

  static int compare(const Value* a, const Value* b) {
    int i = 0;
    while (a[i] != 0 && a[i] == b[i]) {
      i++;
    }
    return static_cast<int>(a[i]) - static_cast<int>(b[i]);
  }

  static bool isDelimiter(Value c, const Value* delimiters) {
    for (int i = 0; delimiters[i] != 0; i++) {
      if (delimiters[i] == c) {
        return true;
      }
    }
    return false;
  }

  Value* myValue;
};

typedef KStringImpl<char> KString;
typedef KStringImpl<unsigned short> KWString;

#endif
