#ifndef KJP_LOCALVARIABLETABLEATTRIBUTE_H
#define KJP_LOCALVARIABLETABLEATTRIBUTE_H

#include "classfile/AttributeInfo.h"

// One entry of a LocalVariableTable or, with a signature in place of the descriptor, of a
// LocalVariableTypeTable. The instrumentation moves start and length as code moves.
class LocalVariable {
 public:
  LocalVariable(DataInput& in, const ConstantPool& pool, int codeLength);
  LocalVariable(int startPc, int length, int nameIndex, int descriptorIndex, int index);

  int getStartPc() const { return myStartPc; }
  int getLength() const { return myLength; }
  int getNameIndex() const { return myNameIndex; }
  int getDescriptorIndex() const { return myDescriptorIndex; }
  int getIndex() const { return myIndex; }
  void setStartPc(int startPc);
  void setLength(int length);
  const KString& getName(const ConstantPool& pool) const;
  void writeTo(DataOutput& out) const;

 private:
  int myStartPc;
  int myLength;
  int myNameIndex;
  int myDescriptorIndex;
  int myIndex;
};

class LocalVariableTableAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  LocalVariableTableAttribute(DataInput& in, const ConstantPool& pool, int nameIndex, int length, int codeLength);
  // An empty table: just its count, hence the length 2.
  explicit LocalVariableTableAttribute(int nameIndex);
  ~LocalVariableTableAttribute() override;
  void writeTo(DataOutput& out) const override;
  const KVector<LocalVariable*>& getLocalVariables() const { return myLocalVariables; }

 private:
  KVector<LocalVariable*> myLocalVariables;
};

class LocalVariableTypeTableAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  LocalVariableTypeTableAttribute(DataInput& in, const ConstantPool& pool, int nameIndex, int length, int codeLength);
  ~LocalVariableTypeTableAttribute() override;
  void writeTo(DataOutput& out) const override;
  const KVector<LocalVariable*>& getLocalVariables() const { return myLocalVariables; }

 private:
  KVector<LocalVariable*> myLocalVariables;
};

#endif
