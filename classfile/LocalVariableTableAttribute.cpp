#include "classfile/LocalVariableTableAttribute.h"

#include "classfile/ClassFormatError.h"

const KString LocalVariableTableAttribute::NAME("LocalVariableTable");
const KString LocalVariableTypeTableAttribute::NAME("LocalVariableTypeTable");

namespace {

// Reads the entries of either table. The instrumentation maps start and end through a table
// with an element for each byte of code, so both must lie inside the code.
void readLocalVariables(DataInput& in, const ConstantPool& pool, int codeLength, KVector<LocalVariable*>& out) {
  try {
    int localVariablesTableLength = in.readUnsignedShort();
    for (int i = 0; i < localVariablesTableLength; i++) {
      out.push(new LocalVariable(in, pool, codeLength));
    }
  } catch (...) {
    for (int i = 0; i < out.size(); i++) {
      delete out[i];
    }
    throw;
  }
}

void writeLocalVariables(DataOutput& out, const KVector<LocalVariable*>& variables) {
  out.writeUnsignedShort(static_cast<unsigned int>(variables.size()));
  for (int i = 0; i < variables.size(); i++) {
    variables[i]->writeTo(out);
  }
}

void deleteLocalVariables(KVector<LocalVariable*>& variables) {
  for (int i = 0; i < variables.size(); i++) {
    delete variables[i];
  }
}

}  // namespace

// ---------------------------------------------------------------- LocalVariable

LocalVariable::LocalVariable(DataInput& in, const ConstantPool& pool, int codeLength)
    : myStartPc(in.readUnsignedShort()),
      myLength(in.readUnsignedShort()),
      myNameIndex(in.readUnsignedShort()),
      myDescriptorIndex(in.readUnsignedShort()),
      myIndex(in.readUnsignedShort()) {
  if (myStartPc >= codeLength || myLength > codeLength - myStartPc) {
    throw ClassFormatError("a local variable at %d+%d lies outside the code of %d bytes", myStartPc, myLength, codeLength);
  }
  if (!isUtf8(pool, myNameIndex) || !isUtf8(pool, myDescriptorIndex)) {
    throw ClassFormatError("a local variable's name or type is not a string constant");
  }
}

LocalVariable::LocalVariable(int startPc, int length, int nameIndex, int descriptorIndex, int index)
    : myStartPc(startPc), myLength(length), myNameIndex(nameIndex), myDescriptorIndex(descriptorIndex), myIndex(index) {
  KASSERT(startPc >= 0);
  KASSERT(length >= 0);
  KASSERT(nameIndex > 0);
  KASSERT(descriptorIndex > 0);
  KASSERT(index >= 0);
}

void LocalVariable::setStartPc(int startPc) {
  KASSERT(startPc >= 0);
  myStartPc = startPc;
}

void LocalVariable::setLength(int length) {
  KASSERT(length >= 0);
  myLength = length;
}

const KString& LocalVariable::getName(const ConstantPool& pool) const {
  const ConstantPoolInfo* nameInfo = pool[myNameIndex];
  KASSERT(nameInfo != nullptr);
  KASSERT(ConstantUtf8Info::TAG == nameInfo->getTag());
  return static_cast<const ConstantUtf8Info*>(nameInfo)->getValue();
}

void LocalVariable::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myStartPc));
  out.writeUnsignedShort(static_cast<unsigned int>(myLength));
  out.writeUnsignedShort(static_cast<unsigned int>(myNameIndex));
  out.writeUnsignedShort(static_cast<unsigned int>(myDescriptorIndex));
  out.writeUnsignedShort(static_cast<unsigned int>(myIndex));
}

// ---------------------------------------------------------------- the two tables

LocalVariableTableAttribute::LocalVariableTableAttribute(DataInput& in, const ConstantPool& pool, int nameIndex,
                                                         int length, int codeLength)
    : AttributeInfo(nameIndex, length), myLocalVariables(10) {
  readLocalVariables(in, pool, codeLength, myLocalVariables);
}

LocalVariableTableAttribute::LocalVariableTableAttribute(int nameIndex) : AttributeInfo(nameIndex, 2), myLocalVariables(10) {}

LocalVariableTableAttribute::~LocalVariableTableAttribute() { deleteLocalVariables(myLocalVariables); }

void LocalVariableTableAttribute::writeTo(DataOutput& out) const { writeLocalVariables(out, myLocalVariables); }

LocalVariableTypeTableAttribute::LocalVariableTypeTableAttribute(DataInput& in, const ConstantPool& pool, int nameIndex,
                                                                 int length, int codeLength)
    : AttributeInfo(nameIndex, length), myLocalVariables(10) {
  readLocalVariables(in, pool, codeLength, myLocalVariables);
}

LocalVariableTypeTableAttribute::~LocalVariableTypeTableAttribute() { deleteLocalVariables(myLocalVariables); }

void LocalVariableTypeTableAttribute::writeTo(DataOutput& out) const { writeLocalVariables(out, myLocalVariables); }
