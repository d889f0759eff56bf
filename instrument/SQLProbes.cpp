#include "instrument/SQLProbes.h"

#include <stdio.h>

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"
#include "classfile/MethodInfo.h"
#include "instrument/ByteCodeGenerator.h"
#include "instrument/ByteCodeWalker.h"
#include "instrument/InsertionPass.h"
#include "instrument/J2EEHelper.h"

namespace {

const int NOP = 0x00;
const int ACONST_NULL = 0x01;
const int ALOAD_0 = 0x2A;
const int ALOAD_1 = 0x2B;
const int ALOAD = 0x19;
const int ASTORE = 0x3A;
const int DUP = 0x59;
const int IMUL = 0x68;
const int SIPUSH = 0x11;
const int WIDE = 0xC4;
const int ARETURN = 0xB0;

// The new code must leave room for the 20 bytes of entry code below 65536.
const int SQL_LENGTH_LIMIT = 65516;

void appendWide(ByteCodeGenerator& code, int opcode, int local) {
  code.append(WIDE);
  code.append(opcode);
  code.pushShortValue(local);
}

// The object a probe reports, per J2EE instrumentation type: the saved first parameter (1, 3,
// 5), this (2) or null (4).
void appendReported(ByteCodeGenerator& code, int instrumentationType, int parameterVariable) {
  switch (instrumentationType) {
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_1:
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_3:
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_5:
      KASSERT(parameterVariable >= 0);
      appendWide(code, ALOAD, parameterVariable);
      break;
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_2:
      code.append(ALOAD_0);
      break;
    default:
      KASSERT_TEXT(instrumentationType == J2EEHelper::J2EE_INSTRUMENTATION_TYPE_4,
                   "j2eeInstrumentationType == J2EEHelper::J2EE_INSTRUMENTATION_TYPE_4");
      code.append(ACONST_NULL);
      break;
  }
}

// The method type, or 0 when this is no J2EE class; then the call of the native:
// aload_0; invokestatic kjpIsJ2EEClass; sipush type; imul; invokestatic native
void appendTestedCall(ByteCodeGenerator& code, int isJ2EEClassIndex, int methodType, int nativeIndex) {
  code.append(ALOAD_0);
  code.invokestatic(isJ2EEClassIndex);
  code.append(SIPUSH);
  code.pushShortValue(methodType);
  code.append(IMUL);
  code.invokestatic(nativeIndex);
}

void padWithNops(ByteCodeGenerator& code, int length) {
  while (code.getCodeLength() < length) {
    code.append(NOP);
  }
}

bool usesParameterVariable(int instrumentationType) {
  return instrumentationType == J2EEHelper::J2EE_INSTRUMENTATION_TYPE_1 ||
         instrumentationType == J2EEHelper::J2EE_INSTRUMENTATION_TYPE_3 ||
         instrumentationType == J2EEHelper::J2EE_INSTRUMENTATION_TYPE_5;
}

// Whether the code stores anything into local 0. The probes read 'this' from there, which
// compilers leave alone in instance methods; code that reuses the slot takes no probes.
bool writesLocal0(const unsigned char* code, int codeLength) {
  for (int i = 0; i < codeLength;) {
    int length = walkInstruction(code, codeLength, i, nullptr);
    int opcode = code[i];
    if (opcode == 0x3B || opcode == 0x3F || opcode == 0x43 || opcode == 0x47 || opcode == 0x4B) {
      return true;  // istore_0, lstore_0, fstore_0, dstore_0, astore_0
    }
    if ((opcode >= 0x36 && opcode <= 0x3A) || opcode == 0x84) {
      if (code[i + 1] == 0) {
        return true;  // istore to astore, iinc, with local 0
      }
    } else if (opcode == WIDE) {
      int widened = code[i + 1];
      if (((widened >= 0x36 && widened <= 0x3A) || widened == 0x84) &&
          readUnsignedInt2(reinterpret_cast<const char*>(code), i + 2) == 0) {
        return true;
      }
    }
    i += length;
  }
  return false;
}

class SQLProbeSet : public ProbeSet {
 public:
  SQLProbeSet(int entryIndex, int exitIndex, int instrumentationType, int isJ2EEClassIndex, int methodType,
              int parameterVariable)
      : myEntryIndex(entryIndex),
        myExitIndex(exitIndex),
        myInstrumentationType(instrumentationType),
        myIsJ2EEClassIndex(isJ2EEClassIndex),
        myMethodType(methodType),
        myParameterVariable(parameterVariable) {}

  void visit(InsertionPass& pass, const unsigned char* code, int, int index, int length) override {
    int opcode = code[index];
    if (opcode < 0xAC || opcode > 0xB1) {
      return;
    }
    if (myInstrumentationType == J2EEHelper::J2EE_INSTRUMENTATION_TYPE_1 && opcode != ARETURN) {
      // The catalogue's type-1 methods all return objects; this code cannot be verified.
      throw ClassFormatError("a method that returns an object has a return of opcode 0x%X at %d", opcode, index);
    }
    int kind = SITE_SQL_RETURN_TYPE_1 + myInstrumentationType - J2EEHelper::J2EE_INSTRUMENTATION_TYPE_1;
    pass.addSite(kind, index, length, myMethodType, SQL_RETURN_2_CODE_LENGTH);
  }

  int insertBefore(const InsertionSite& site, unsigned char* buffer, int offset) override {
    return insertSQLCodeBefore(site.myKind, myExitIndex, site.myValue, buffer, offset, myIsJ2EEClassIndex,
                               myParameterVariable);
  }

  int insertAfter(const InsertionSite&, unsigned char*, int) override { return 0; }

  int getEntryCodeLength() override { return SQL_ENTRY_CODE_LENGTH; }

  void insertEntryCode(unsigned char* buffer, int offset) override {
    insertSQLEntryCode(myEntryIndex, myMethodType, buffer, offset, myInstrumentationType, myIsJ2EEClassIndex,
                       myParameterVariable);
  }

 private:
  int myEntryIndex;
  int myExitIndex;
  int myInstrumentationType;
  int myIsJ2EEClassIndex;
  int myMethodType;
  int myParameterVariable;
};

}  // namespace

int insertSQLEntryCode(int entryIndex, int methodType, unsigned char* buffer, int offset, int instrumentationType,
                       int isJ2EEClassIndex, int parameterVariable) {
  ByteCodeGenerator code;
  if (usesParameterVariable(instrumentationType)) {
    // aload_1; wide astore kjpParameter; aload_1: the exits report the parameter as it came in.
    code.append(ALOAD_1);
    appendWide(code, ASTORE, parameterVariable);
    code.append(ALOAD_1);
  } else {
    appendReported(code, instrumentationType, parameterVariable);
  }
  appendTestedCall(code, isJ2EEClassIndex, methodType, entryIndex);
  padWithNops(code, SQL_ENTRY_CODE_LENGTH);
  KASSERT(SQL_ENTRY_CODE_LENGTH == code.getCodeLength());
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertSQLExitCode(int exitIndex, int methodType, unsigned char* buffer, int offset, int instrumentationType,
                      int isJ2EEClassIndex, int parameterVariable) {
  ByteCodeGenerator code;
  if (instrumentationType == J2EEHelper::J2EE_INSTRUMENTATION_TYPE_1) {
    // The value areturn is about to return, then the saved parameter.
    code.append(DUP);
    appendReported(code, instrumentationType, parameterVariable);
    appendTestedCall(code, isJ2EEClassIndex, methodType, exitIndex);
    padWithNops(code, SQL_RETURN_1_CODE_LENGTH);
    KASSERT(SQL_RETURN_1_CODE_LENGTH == code.getCodeLength());
  } else {
    appendReported(code, instrumentationType, parameterVariable);
    appendTestedCall(code, isJ2EEClassIndex, methodType, exitIndex);
    padWithNops(code, SQL_RETURN_2_CODE_LENGTH);
    KASSERT(SQL_RETURN_2_CODE_LENGTH == code.getCodeLength());
  }
  code.applyTo(buffer + offset);
  return code.getCodeLength();
}

int insertSQLCodeBefore(int kind, int exitIndex, int methodType, unsigned char* buffer, int offset,
                        int isJ2EEClassIndex, int parameterVariable) {
  if (kind < SITE_SQL_RETURN_TYPE_1 || kind > SITE_SQL_RETURN_TYPE_5) {
    printf("Illegal instruction type");
    fflush(stdout);
    KASSERT_TEXT(false, "0");
  }
  int instrumentationType = J2EEHelper::J2EE_INSTRUMENTATION_TYPE_1 + kind - SITE_SQL_RETURN_TYPE_1;
  return insertSQLExitCode(exitIndex, methodType, buffer, offset, instrumentationType, isJ2EEClassIndex,
                           parameterVariable);
}

bool instrumentForSQLTracing(ClassFile& classFile, MethodInfo* method, int sqlEntry1Index, int sqlExit1Index,
                             int sqlEntry2Index, int sqlExit2Index, int sqlEntry3Index, int sqlExit3Index,
                             int servletEntryIndex, int servletExitIndex, int j2eeInstrumentationType,
                             int isJ2EEClassIndex, int j2eeMethodType) {
  KASSERT(method);
  CodeAttribute* codeAttribute = method->getCodeAttribute();
  KASSERT(codeAttribute);
  KASSERT(sqlEntry1Index >= 0);
  KASSERT(sqlExit1Index >= 0);
  KASSERT(sqlEntry2Index >= 0);
  KASSERT(sqlExit2Index >= 0);
  KASSERT(sqlEntry3Index >= 0);
  KASSERT(sqlExit3Index >= 0);
  KASSERT(servletEntryIndex >= 0);
  KASSERT(servletExitIndex >= 0);
  KASSERT(isJ2EEClassIndex >= 0);

  int entryIndex;
  int exitIndex;
  switch (j2eeInstrumentationType) {
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_1:
      entryIndex = sqlEntry1Index;
      exitIndex = sqlExit1Index;
      break;
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_2:
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_4:
      entryIndex = sqlEntry2Index;
      exitIndex = sqlExit2Index;
      break;
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_3:
      entryIndex = sqlEntry3Index;
      exitIndex = sqlExit3Index;
      break;
    case J2EEHelper::J2EE_INSTRUMENTATION_TYPE_5:
      entryIndex = servletEntryIndex;
      exitIndex = servletExitIndex;
      break;
    default:
      KASSERT_TEXT(false, "0");
      return false;
  }
  if (writesLocal0(codeAttribute->getCode(), codeAttribute->getCodeLength())) {
    return false;
  }

  int parameterVariable = -1;
  if (usesParameterVariable(j2eeInstrumentationType)) {
    parameterVariable = codeAttribute->addLocalVariableToTable(classFile, 0, codeAttribute->getCodeLength(),
                                                               KString("kjpParameter"),
                                                               KString("Ljava/lang/Object;"));
  }
  SQLProbeSet probes(entryIndex, exitIndex, j2eeInstrumentationType, isJ2EEClassIndex, j2eeMethodType,
                     parameterVariable);
  InsertionPass pass(classFile, method, probes);
  if (parameterVariable >= 0) {
    int objectClass = classFile.findOrCreateConstantClass(KString("java/lang/Object"));
    pass.addFrameLocal(parameterVariable, VerificationType::of(VerificationType::ITEM_OBJECT, objectClass));
  }
  return pass.run(nullptr, SQL_LENGTH_LIMIT, 3);
}
