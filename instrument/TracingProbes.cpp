#include "instrument/TracingProbes.h"

#include <stdio.h>

#include "agent/KAssert.h"
#include "instrument/ByteCodeGenerator.h"

namespace {

const int NOP = 0x00;
const int DUP = 0x59;
const int ICONST_M1 = 0x02;
const int SIPUSH = 0x11;
const int WIDE = 0xC4;
const int ILOAD = 0x15;
const int ISTORE = 0x36;

void appendWide(ByteCodeGenerator& code, int opcode, int local) {
  code.append(WIDE);
  code.append(opcode);
  code.pushShortValue(local);
}

// sipush low; sipush high; invokestatic
void appendIndexCall(ByteCodeGenerator& code, int poolIndex, jint methodIndex) {
  code.append(SIPUSH);
  code.pushShortValue(methodIndex & 0xFFFF);
  code.append(SIPUSH);
  code.pushShortValue((methodIndex >> 16) & 0xFFFF);
  code.invokestatic(poolIndex);
}

void appendNops(ByteCodeGenerator& code, int count) {
  for (int i = 0; i < count; i++) {
    code.append(NOP);
  }
}

// dup or nop; wide iload kjpIdx; invokestatic kjpInit; wide istore kjpIdx
void appendInitCall(ByteCodeGenerator& code, int first, int initIndex, int local) {
  code.append(first);
  appendWide(code, ILOAD, local);
  code.invokestatic(initIndex);
  appendWide(code, ISTORE, local);
}

}  // namespace

int insertEntryCode(int methodEntryIndex, jint methodIndex, unsigned char* buffer, int offset, int local,
                    bool containsSwitch) {
  ByteCodeGenerator code;
  code.append(ICONST_M1);
  appendWide(code, ISTORE, local);
  appendIndexCall(code, methodEntryIndex, methodIndex);
  if (containsSwitch) {
    appendNops(code, 2);
  }
  KASSERT(ENTRY_CODE_LENGTH(containsSwitch) == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertAllocOnlyEntryCode(unsigned char* buffer, int offset, int local) {
  ByteCodeGenerator code;
  code.append(ICONST_M1);
  appendWide(code, ISTORE, local);
  appendNops(code, 3);
  KASSERT(ALLOC_ONLY_ENTRY_CODE_LENGTH == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertExitCode(int methodExitIndex, jint methodIndex, unsigned char* buffer, int offset, bool containsSwitch) {
  ByteCodeGenerator code;
  appendIndexCall(code, methodExitIndex, methodIndex);
  if (containsSwitch) {
    appendNops(code, 3);
  }
  KASSERT(EXIT_CODE_LENGTH(containsSwitch) == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertNativeEntryCode(int methodEntryIndex, jint methodIndex, unsigned char* buffer, int offset,
                          bool containsSwitch) {
  ByteCodeGenerator code;
  appendIndexCall(code, methodEntryIndex, methodIndex);
  if (containsSwitch) {
    appendNops(code, 3);
  }
  KASSERT(NATIVE_ENTRY_CALL_CODE_LENGTH(containsSwitch) == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertNewCodeStart(unsigned char* buffer, int offset, int kind) {
  ByteCodeGenerator code;
  // Kind 2 keeps a spare reference for the probe behind the constructor; kind 3 keeps only
  // the length, as its probe was ruled out after the site was laid out.
  code.append(kind == SITE_NEW_WITHOUT_DUP ? DUP : NOP);
  appendNops(code, 3);
  KASSERT(NEW_WITHOUT_DUP_CODE_START_LENGTH == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertNewCodeEnd(int initIndex, unsigned char* buffer, int offset, int kind, int local) {
  KASSERT_TEXT(initIndex >= 0, "methodIndex >= 0");
  ByteCodeGenerator code;
  appendInitCall(code, kind == SITE_INIT_WITH_DUP ? DUP : NOP, initIndex, local);
  KASSERT(TYPE_NEW_END_CODE_LENGTH == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertNewArrayCode(int initIndex, unsigned char* buffer, int offset, int local) {
  KASSERT_TEXT(initIndex >= 0, "methodIndex >= 0");
  ByteCodeGenerator code;
  appendInitCall(code, DUP, initIndex, local);
  KASSERT(NEWARRAY_CODE_LENGTH == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertCodeBefore(int kind, int methodExitIndex, int methodEntryIndex, jint methodIndex, unsigned char* buffer,
                     int offset, bool containsSwitch) {
  switch (kind) {
    case SITE_RETURN:
      return insertExitCode(methodExitIndex, methodIndex, buffer, offset, containsSwitch);
    case SITE_NEW_WITHOUT_DUP:
    case SITE_NEW_NOT_RECORDED:
    case SITE_NEW_ARRAY:
    case SITE_INIT_WITH_DUP:
    case SITE_INIT_WITHOUT_DUP:
      return 0;
    case SITE_IO_CALL:
      return insertNativeEntryCode(methodEntryIndex, methodIndex, buffer, offset, containsSwitch);
    default:
      printf("Illegal instruction type");
      fflush(stdout);
      KASSERT_TEXT(false, "0");
      return 0;
  }
}

int insertCodeAfter(int kind, int initIndex, int methodExitIndex, unsigned char* buffer, int offset, int local,
                    jint methodIndex, bool containsSwitch) {
  switch (kind) {
    case SITE_NEW_WITHOUT_DUP:
    case SITE_NEW_NOT_RECORDED:
      return insertNewCodeStart(buffer, offset, kind);
    case SITE_NEW_ARRAY:
      return insertNewArrayCode(initIndex, buffer, offset, local);
    case SITE_INIT_WITH_DUP:
    case SITE_INIT_WITHOUT_DUP:
      return insertNewCodeEnd(initIndex, buffer, offset, kind, local);
    case SITE_IO_CALL:
      return insertExitCode(methodExitIndex, methodIndex, buffer, offset, containsSwitch);
    default:
      if (kind == SITE_RETURN || (kind >= 7 && kind <= 11)) {
        return 0;
      }
      printf("Illegal instruction type: %d\n", kind);
      fflush(stdout);
      KASSERT_TEXT(false, "0");
      return 0;
  }
}
