#ifndef KJP_DATAOUTPUT_H
#define KJP_DATAOUTPUT_H

#include "agent/KAssert.h"
#include "agent/KVector.h"

// Big-endian writer that appends to a byte vector it does not own.
class DataOutput {
 public:
  explicit DataOutput(KVector<unsigned char>& output) : myOutput(output) {}

  void writeUnsignedByte(int value) { myOutput.push(static_cast<unsigned char>(value)); }

  void writeUnsignedShort(unsigned int value) {
    myOutput.push(static_cast<unsigned char>(value >> 8));
    myOutput.push(static_cast<unsigned char>(value));
  }

  void writeInt(int value) {
    unsigned int v = static_cast<unsigned int>(value);
    myOutput.push(static_cast<unsigned char>(v >> 24));
    myOutput.push(static_cast<unsigned char>(v >> 16));
    myOutput.push(static_cast<unsigned char>(v >> 8));
    myOutput.push(static_cast<unsigned char>(v));
  }

  void write(const unsigned char* value, int length) {
    KASSERT(value);
    KASSERT(length >= 0);
    for (int i = 0; i < length; i++) {
      myOutput.push(value[i]);
    }
  }

  // Bytes written so far, counted from the start of the vector.
  int size() const { return myOutput.size(); }

 private:
  KVector<unsigned char>& myOutput;
};

#endif
