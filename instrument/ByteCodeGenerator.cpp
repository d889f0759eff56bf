#include "instrument/ByteCodeGenerator.h"

#include <string.h>

#include "agent/KAssert.h"
#include "classfile/CodeAttribute.h"

void ByteCodeGenerator::aload(int local) {
  if (local == 0) {
    append(0x2A);
  } else if (local == 1) {
    append(0x2B);
  } else {
    append(0x19);
    append(local & 0xFF);
  }
}

void ByteCodeGenerator::pushShortValue(int value) {
  append((value >> 8) & 0xFF);
  append(value & 0xFF);
}

void ByteCodeGenerator::invokestatic(int poolIndex) {
  append(0xB8);
  pushShortValue(poolIndex);
}

void ByteCodeGenerator::startIfeq() {
  myIfOffsetIndices.push(size());
  append(0x99);
  append(0x00);
  append(0x00);
}

void ByteCodeGenerator::endIfeq() {
  KASSERT(!myIfOffsetIndices.isEmpty());
  int position = myIfOffsetIndices.pop();
  int distance = size() - position;
  get(position + 1) = static_cast<unsigned char>((distance >> 8) & 0xFF);
  get(position + 2) = static_cast<unsigned char>(distance & 0xFF);
}

void ByteCodeGenerator::applyTo(unsigned char* target) {
  KASSERT_TEXT(myIfOffsetIndices.isEmpty(), "myIfOffsetIndices.empty()");
  KASSERT(target);
  if (size() > 0) {
    memcpy(target, getArray(), static_cast<size_t>(size()));
  }
}

void ByteCodeGenerator::applyTo(CodeAttribute* code) {
  KASSERT_TEXT(myIfOffsetIndices.isEmpty(), "myIfOffsetIndices.empty()");
  KASSERT(code);
  code->setCode(getArray(), size());
}
