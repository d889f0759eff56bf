#ifndef KJP_BYTECODEGENERATOR_H
#define KJP_BYTECODEGENERATOR_H

#include "agent/KVector.h"

class CodeAttribute;

// The buffer in which one probe or wrapper body is assembled before it is copied into a
// method.
class ByteCodeGenerator : public KVector<unsigned char> {
 public:
  ByteCodeGenerator() : KVector<unsigned char>(30), myIfOffsetIndices(2) {}

  void append(int byte) { push(static_cast<unsigned char>(byte)); }
  // 0x2A / 0x2B for locals 0 and 1, otherwise aload with the index's low byte.
  void aload(int local);
  // The value's two low bytes, high one first.
  void pushShortValue(int value);
  void invokestatic(int poolIndex);
  // A forward ifeq whose target is fixed by the matching endIfeq.
  void startIfeq();
  // Lets the innermost open ifeq land behind the code emitted so far.
  void endIfeq();

  int getCodeLength() const { return size(); }
  void applyTo(unsigned char* target);
  void applyTo(CodeAttribute* code);

 private:
  KVector<int> myIfOffsetIndices;
};

#endif
