#include "instrument/LocalVariablePatcher.h"

#include "agent/KAssert.h"
#include "classfile/CodeAttribute.h"
#include "classfile/LocalVariableTableAttribute.h"

void patchLocalVariables1(const KVector<LocalVariable*>& variables, int addedLength) {
  for (int i = 0; i < variables.size(); i++) {
    LocalVariable* variable = variables[i];
    KASSERT(variable);
    if (variable->getStartPc() == 0) {
      variable->setLength(variable->getLength() + addedLength);
    } else {
      variable->setStartPc(variable->getStartPc() + addedLength);
    }
  }
}

void patchLocalVariables2(const KVector<LocalVariable*>& variables, const int* indices, int oldLength, int newLength) {
  for (int i = 0; i < variables.size(); i++) {
    LocalVariable* variable = variables[i];
    KASSERT(variable);
    int start = variable->getStartPc();
    int end = start + variable->getLength();
    int newStart = indices[start];
    variable->setStartPc(newStart);
    variable->setLength((end == oldLength ? newLength : indices[end]) - newStart);
  }
}

void patchAllLocalVariables1(CodeAttribute* code, int addedLength) {
  if (LocalVariableTableAttribute* table = code->getLocalVariableTable()) {
    patchLocalVariables1(table->getLocalVariables(), addedLength);
  }
  if (LocalVariableTypeTableAttribute* table = code->getLocalVariableTypeTable()) {
    patchLocalVariables1(table->getLocalVariables(), addedLength);
  }
}

void patchAllLocalVariables2(CodeAttribute* code, const int* indices, int oldLength, int newLength) {
  if (LocalVariableTableAttribute* table = code->getLocalVariableTable()) {
    patchLocalVariables2(table->getLocalVariables(), indices, oldLength, newLength);
  }
  if (LocalVariableTypeTableAttribute* table = code->getLocalVariableTypeTable()) {
    patchLocalVariables2(table->getLocalVariables(), indices, oldLength, newLength);
  }
}
