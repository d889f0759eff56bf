#ifndef KJP_DATAINPUT_H
#define KJP_DATAINPUT_H

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "agent/KVector.h"
#include "classfile/ClassFormatError.h"

// Big-endian reader over the bytes of one class file. Every read is checked against the
// current limit and throws ClassFormatError when it would pass it, so a truncated or lying
// class never makes the agent read outside its buffer.
//
// The limit is normally the end of the data. An attribute narrows it to its own end while
// its body is read (pushLimit/popLimit), so that an attribute whose contents claim more
// bytes than its length is caught where it happens instead of silently eating its
// neighbours.
//
// Reads are inline and touch the array directly: this runs for every byte of every class
// the JVM loads.
class DataInput {
 public:
  explicit DataInput(KVector<unsigned char>& input) : myInput(input), myPosition(0), myLimit(input.size()) {}

  int readUnsignedByte() {
    require(1);
    return myInput.getArray()[myPosition++];
  }

  int readUnsignedShort() {
    require(2);
    const unsigned char* p = myInput.getArray() + myPosition;
    myPosition += 2;
    return (p[0] << 8) | p[1];
  }

  // The four bytes as a two's complement int: a u4 above 0x7FFFFFFF reads as negative,
  // which the callers reject where a length is meant.
  int readInt() {
    require(4);
    const unsigned char* p = myInput.getArray() + myPosition;
    myPosition += 4;
    return static_cast<int>((static_cast<unsigned int>(p[0]) << 24) | (static_cast<unsigned int>(p[1]) << 16) |
                            (static_cast<unsigned int>(p[2]) << 8) | static_cast<unsigned int>(p[3]));
  }

  void readFully(unsigned char* value, int length) {
    KASSERT(value);
    KASSERT(length >= 0);
    require(length);
    memcpy(value, myInput.getArray() + myPosition, static_cast<size_t>(length));
    myPosition += length;
  }

  // Reads 'length' bytes of a string constant. The bytes are modified UTF-8 and are carried,
  // not decoded. That encoding never holds a zero byte, and a KString could not carry one,
  // so a zero byte makes the class unreadable here rather than silently shortening a name.
  KString readString(int length);

  // Steps over 'length' bytes and returns where they start; valid until the input changes.
  const unsigned char* skip(int length) {
    KASSERT(length >= 0);
    require(length);
    const unsigned char* start = myInput.getArray() + myPosition;
    myPosition += length;
    return start;
  }

  int getPosition() const { return myPosition; }
  int available() const { return myLimit - myPosition; }

  // Restricts reading to the next 'length' bytes and returns the limit to restore.
  int pushLimit(int length) {
    if (length < 0 || length > myLimit - myPosition) {
      throw ClassFormatError("a length of %d overruns its enclosing structure at offset %d", length, myPosition);
    }
    int oldLimit = myLimit;
    myLimit = myPosition + length;
    return oldLimit;
  }

  void popLimit(int oldLimit) { myLimit = oldLimit; }

 private:
  void require(int length) {
    if (length > myLimit - myPosition) {
      throw ClassFormatError("truncated: %d bytes needed at offset %d, %d left", length, myPosition, myLimit - myPosition);
    }
  }

  KVector<unsigned char>& myInput;
  int myPosition;
  int myLimit;
};

#endif
