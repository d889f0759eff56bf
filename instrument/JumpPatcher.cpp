#include "instrument/JumpPatcher.h"

#include <stdio.h>
#include <string.h>

#include "agent/KAssert.h"
#include "classfile/ClassFile.h"
#include "classfile/CodeAttribute.h"
#include "classfile/MethodInfo.h"
#include "instrument/ByteCodeWalker.h"
#include "instrument/LocalVariablePatcher.h"
#include "instrument/OffsetTable.h"

namespace {

const int MODIFY_JUMPS_LIMIT = 65536;

void writeInt2(char* code, int index, int value) {
  code[index] = static_cast<char>((value >> 8) & 0xFF);
  code[index + 1] = static_cast<char>(value & 0xFF);
}

void writeInt4(unsigned char* code, int index, int value) {
  unsigned int bits = static_cast<unsigned int>(value);
  code[index] = static_cast<unsigned char>(bits >> 24);
  code[index + 1] = static_cast<unsigned char>(bits >> 16);
  code[index + 2] = static_cast<unsigned char>(bits >> 8);
  code[index + 3] = static_cast<unsigned char>(bits);
}

}  // namespace

int convertJump(int opcode) {
  switch (opcode) {
    case 0xA7:
      return 0xC8;
    case 0xA8:
      return 0xC9;
    case 0xC6:
      return 0xC7;
    case 0xC7:
      return 0xC6;
    default:
      break;
  }
  if (opcode >= 0x99 && opcode <= 0xA6) {
    // The conditional branches come in pairs, each followed by its inverse.
    return ((opcode - 0x99) & 1) == 0 ? opcode + 1 : opcode - 1;
  }
  fprintf(stderr, "Opcode %d is not jump\n", opcode);
  fflush(stderr);
  KASSERT_TEXT(false, "0");
  return 0;
}

bool updateOffsets(KSet<int>* instructions, const OffsetTable& table, char* code, const int* indices) {
  bool result = true;
  for (int i = 0; i < table.getSize(); i++) {
    int instruction = table.getInstructionIndex(i);
    int offsetIndex = table.getOffsetIndex(i);
    bool isShort = table.isShort(i);
    int oldOffset = isShort ? readInt2(code, offsetIndex) : readInt4(code, offsetIndex);
    int newOffset = indices[instruction + oldOffset] - indices[instruction];
    if (newOffset == oldOffset) {
      continue;
    }
    if (!isShort) {
      writeInt4(reinterpret_cast<unsigned char*>(code), offsetIndex, newOffset);
    } else if (newOffset >= -32768 && newOffset <= 32767) {
      writeInt2(code, offsetIndex, newOffset);
    } else {
      if (instructions == nullptr) {
        return false;
      }
      instructions->add(branchKey(instruction));
      result = false;
    }
  }
  return result;
}

void updateOffsets2LongOffsets(KSet<int>* instructions, const char* input, unsigned char* output, const int* indices) {
  KASSERT(instructions);
  for (int slot = 0; slot < instructions->_capacity; slot++) {
    if (instructions->_states[slot] != KMAP_FULL) {
      continue;
    }
    int i = branchIndex(instructions->_keys[slot]);
    int n = indices[i];
    int d = indices[i + readInt2(input, i + 1)] - n;
    int c = convertJump(readByte(input, i));
    output[n] = static_cast<unsigned char>(c);
    if (c == 0xC8 || c == 0xC9) {
      writeInt4(output, n + 1, d);
      output[n + 5] = 0x00;
      output[n + 6] = 0x00;
    } else {
      output[n + 1] = 0x00;
      output[n + 2] = 11;
      output[n + 3] = 0xC8;
      // Counted from the goto_w, three bytes behind the branch.
      writeInt4(output, n + 4, d - 3);
      output[n + 8] = 0x00;
      output[n + 9] = 0x00;
      output[n + 10] = 0x00;
    }
  }
}

bool modifyJumps(ClassFile& classFile, MethodInfo* method, KSet<int>* instructions) {
  (void)classFile;
  KASSERT(method);
  KASSERT(instructions);
  CodeAttribute* codeAttribute = method->getCodeAttribute();
  KASSERT(codeAttribute);
  int oldLength = codeAttribute->getCodeLength();
  const unsigned char* oldCode = codeAttribute->getCode();
  char* buffer = new char[oldLength];
  memcpy(buffer, oldCode, static_cast<size_t>(oldLength));
  int* indices = new int[oldLength];
  for (int i = 0; i < oldLength; i++) {
    indices[i] = i;
  }
  // The widened branches get their offsets from updateOffsets2LongOffsets; only the others
  // are moved in place.
  OffsetTable others;
  int total = 0;
  for (int i = 0; i < oldLength;) {
    OffsetTable here;
    int length = walkInstruction(oldCode, oldLength, i, &here);
    bool widened = here.getSize() == 1 && here.isShort(0) && instructions->contains(branchKey(i));
    if (widened) {
      int added = oldCode[i] == 0xA7 || oldCode[i] == 0xA8 ? 4 : 8;
      for (int j = i + 3; j < oldLength; j++) {
        indices[j] += added;
      }
      total += added;
    } else {
      for (int k = 0; k < here.getSize(); k++) {
        others.addOffsetToTable(here.getInstructionIndex(k), here.getOffsetIndex(k), here.isShort(k));
      }
    }
    i += length;
  }
  bool fitted = updateOffsets(nullptr, others, buffer, indices);
  int newLength = oldLength + total;
  bool committed = false;
  if (fitted && newLength < MODIFY_JUMPS_LIMIT) {
    unsigned char* newCode = new unsigned char[newLength];
    memset(newCode, 0, static_cast<size_t>(newLength));
    for (int i = 0; i < oldLength; i++) {
      newCode[indices[i]] = static_cast<unsigned char>(buffer[i]);
    }
    updateOffsets2LongOffsets(instructions, reinterpret_cast<const char*>(oldCode), newCode, indices);
    codeAttribute->setCode(newCode, newLength);
    codeAttribute->incMaxStackCount(2);
    codeAttribute->shiftExceptionTableAndLineNumbers(indices, oldLength);
    patchAllLocalVariables2(codeAttribute, indices, oldLength, newLength);
    delete[] newCode;
    committed = true;
  }
  delete[] buffer;
  delete[] indices;
  return committed;
}
