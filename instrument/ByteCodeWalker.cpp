#include "instrument/ByteCodeWalker.h"

#include "agent/KAssert.h"
#include "classfile/ClassFormatError.h"
#include "instrument/OffsetTable.h"

int readByte(const char* input, int beginIndex) {
  KASSERT(input);
  KASSERT(beginIndex >= 0);
  return static_cast<unsigned char>(input[beginIndex]);
}

int readInt2(const char* input, int beginIndex) {
  KASSERT(input);
  KASSERT(beginIndex >= 0);
  return static_cast<signed char>(input[beginIndex]) * 256 + static_cast<unsigned char>(input[beginIndex + 1]);
}

int readUnsignedInt2(const char* input, int beginIndex) {
  KASSERT(input);
  KASSERT(beginIndex >= 0);
  return static_cast<unsigned char>(input[beginIndex]) << 8 | static_cast<unsigned char>(input[beginIndex + 1]);
}

int readInt4(const char* input, int beginIndex) {
  KASSERT(input);
  KASSERT(beginIndex >= 0);
  unsigned int value = static_cast<unsigned int>(static_cast<unsigned char>(input[beginIndex])) << 24 |
                       static_cast<unsigned int>(static_cast<unsigned char>(input[beginIndex + 1])) << 16 |
                       static_cast<unsigned int>(static_cast<unsigned char>(input[beginIndex + 2])) << 8 |
                       static_cast<unsigned int>(static_cast<unsigned char>(input[beginIndex + 3]));
  return static_cast<int>(value);
}

// clang-format off
const int ourOpCodeLength[256] = {
  // 0x00: nop, aconst_null, iconst_m1 .. iconst_5, lconst_0/1, fconst_0..2, dconst_0/1
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  // 0x10: bipush, sipush, ldc, ldc_w, ldc2_w, iload .. aload (index), iload_0 .. lload_1
  2, 3, 2, 3, 3, 2, 2, 2, 2, 2, 1, 1, 1, 1, 1, 1,
  // 0x20: lload_2 .. aload_3
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  // 0x30: array loads, istore .. astore (index), istore_0 ..
  1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 1, 1, 1, 1, 1,
  // 0x40 .. 0x7F: stores, array stores, stack and arithmetic
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  // 0x80: ior, lor, ixor, lxor, iinc, conversions, comparisons
  1, 1, 1, 1, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  // 0x90: conversions, comparisons, ifeq .. ifle (0x99 ..)
  1, 1, 1, 1, 1, 1, 1, 1, 1, 3, 3, 3, 3, 3, 3, 3,
  // 0xA0: if_icmp*, if_acmp*, goto, jsr, ret, tableswitch, lookupswitch, returns
  3, 3, 3, 3, 3, 3, 3, 3, 3, 2, -1, -1, 1, 1, 1, 1,
  // 0xB0: areturn, return, get/put field/static, invokes, invokeinterface, invokedynamic,
  // new, newarray, anewarray, arraylength, athrow
  1, 1, 3, 3, 3, 3, 3, 3, 3, 5, 5, 3, 2, 3, 1, 1,
  // 0xC0: checkcast, instanceof, monitorenter/exit, wide, multianewarray, ifnull,
  // ifnonnull, goto_w, jsr_w; 0xCA (breakpoint) and above never occur in class files
  3, 3, 1, 1, -1, 4, 3, 3, 5, 5, 0, 0, 0, 0, 0, 0,
  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
};
// clang-format on

namespace {

void checkTarget(int instructionIndex, int offset, int codeLength) {
  long long target = static_cast<long long>(instructionIndex) + offset;
  if (target < 0 || target >= codeLength) {
    throw ClassFormatError("the branch at %d leads to %lld, outside the code of %d bytes", instructionIndex, target,
                           codeLength);
  }
}

void checkInside(int index, int end, int codeLength, int opcode) {
  if (end > codeLength || end <= index) {
    throw ClassFormatError("the instruction %d at %d runs past the code of %d bytes", opcode, index, codeLength);
  }
}

}  // namespace

int walkInstruction(const unsigned char* code, int codeLength, int index, OffsetTable* table) {
  KASSERT(code);
  KASSERT(index >= 0 && index < codeLength);
  const char* input = reinterpret_cast<const char*>(code);
  int opcode = code[index];
  if ((opcode >= 0x99 && opcode <= 0xA8) || opcode == 0xC6 || opcode == 0xC7) {
    checkInside(index, index + 3, codeLength, opcode);
    checkTarget(index, readInt2(input, index + 1), codeLength);
    if (table != nullptr) table->addOffsetToTable(index, index + 1, true);
    return 3;
  }
  if (opcode == 0xC8 || opcode == 0xC9) {
    checkInside(index, index + 5, codeLength, opcode);
    checkTarget(index, readInt4(input, index + 1), codeLength);
    if (table != nullptr) table->addOffsetToTable(index, index + 1, false);
    return 5;
  }
  if (opcode == 0xAA || opcode == 0xAB) {
    // The operands start at the first multiple of 4 behind the opcode.
    int p = (index + 4) & ~3;
    checkInside(index, p + (opcode == 0xAA ? 12 : 8), codeLength, opcode);
    int end;
    int count;
    int stride;
    if (opcode == 0xAA) {
      long long low = readInt4(input, p + 4);
      long long high = readInt4(input, p + 8);
      if (high < low || (high - low + 1) * 4 > codeLength) {
        throw ClassFormatError("the tableswitch at %d has the bounds %lld and %lld", index, low, high);
      }
      count = static_cast<int>(high - low + 1);
      stride = 4;
      end = p + 12 + 4 * count;
    } else {
      long long pairs = readInt4(input, p + 4);
      if (pairs < 0 || pairs * 8 > codeLength) {
        throw ClassFormatError("the lookupswitch at %d has %lld pairs", index, pairs);
      }
      count = static_cast<int>(pairs);
      stride = 8;
      end = p + 8 + 8 * count;
    }
    checkInside(index, end, codeLength, opcode);
    checkTarget(index, readInt4(input, p), codeLength);
    if (table != nullptr) table->addOffsetToTable(index, p, false);
    for (int k = 0; k < count; k++) {
      int offsetIndex = p + 12 + stride * k;
      checkTarget(index, readInt4(input, offsetIndex), codeLength);
      if (table != nullptr) table->addOffsetToTable(index, offsetIndex, false);
    }
    return end - index;
  }
  if (opcode == 0xC4) {
    checkInside(index, index + 2, codeLength, opcode);
    int length = code[index + 1] == 0x84 ? 6 : 4;
    checkInside(index, index + length, codeLength, opcode);
    return length;
  }
  int length = ourOpCodeLength[opcode];
  if (length < 1) {
    throw ClassFormatError("the undefined opcode %d stands at %d", opcode, index);
  }
  checkInside(index, index + length, codeLength, opcode);
  return length;
}
