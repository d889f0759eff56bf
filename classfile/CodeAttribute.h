#ifndef KJP_CODEATTRIBUTE_H
#define KJP_CODEATTRIBUTE_H

#include "agent/KString.h"
#include "agent/KVector.h"
#include "classfile/AttributeInfo.h"

class ClassFile;
class LineNumberTableAttribute;
class LocalVariableTableAttribute;
class LocalVariableTypeTableAttribute;
class StackMapTableAttribute;

// A method's bytecode with its exception table and nested attributes. The instrumentation
// replaces the code through setCode and asks this class to carry the exception table and
// the line numbers over to the new offsets.
//
// The attribute length is kept right by the operations that change sizes (setCode,
// dropStackMaps, setStackMapTable); AttributeInfo::write refuses to write a body that
// disagrees with it.
class CodeAttribute : public AttributeInfo {
 public:
  static const KString NAME;

  class ExceptionTableElement {
   public:
    explicit ExceptionTableElement(DataInput& in);
    ExceptionTableElement(int startPc, int endPc, int handlerPc, int catchType);
    void writeTo(DataOutput& out) const;

    int myStartPc;
    int myEndPc;
    int myHandlerPc;
    int myCatchType;
  };

  CodeAttribute(DataInput& in, ConstantPool& pool, int attributeNameIndex, int attributeLength);
  // The code of a method that had none: a lone 'return'.
  CodeAttribute(ConstantPool& pool, int attributeNameIndex);
  ~CodeAttribute() override;

  void writeTo(DataOutput& out) const override;

  int getMaxStack() const { return myMaxStack; }
  int getMaxLocals() const { return myMaxLocals; }
  int getCodeLength() const { return myCodeLength; }
  const unsigned char* getCode() const { return myCode; }
  void setCode(const unsigned char* code, int length);

  // Both clamp at 32767.
  void incMaxStackCount(int count);
  void incMaxLocalsCount(int count);

  // Reserves two local slots for the agent's use and returns the higher one. The table is
  // not touched and name and descriptor are not used: the agent's locals stay invisible to
  // debuggers.
  int addLocalVariableToTable(ClassFile& classFile, int startPc, int length, const KString& name,
                              const KString& descriptor);

  const KVector<AttributeInfo*>& getAttributes() const { return myAttributes; }
  const KVector<ExceptionTableElement*>& getExceptionTable() const { return myExceptionTable; }
  LocalVariableTableAttribute* getLocalVariableTable() const;
  LocalVariableTypeTableAttribute* getLocalVariableTypeTable() const;
  StackMapTableAttribute* getStackMapTable() const;

  // Removes every StackMapTable, for classes whose JVM verifies by type inference.
  void dropStackMaps();
  // Gives the existing StackMapTable a new body; the attribute lengths follow.
  void setStackMapTable(const unsigned char* body, int length);

  // Code of 'addedCodeLength' bytes was put in front of the old code.
  void shiftExceptionTableAndLineNumbers(int addedCodeLength);
  // indices[i] is the new offset of old offset i, for each of the oldCodeLength old bytes;
  // the new code must already be set, as an end at the old length goes to the new length.
  void shiftExceptionTableAndLineNumbers(const int* indices, int oldCodeLength);

  const ConstantPool& getConstantPool() const { return *myConstantPool; }

 private:
  void release();
  AttributeInfo* findAttribute(const KString& name) const;

  int myMaxStack;
  int myMaxLocals;
  int myCodeLength;
  unsigned char* myCode;
  ConstantPool* myConstantPool;  // borrowed from the ClassFile
  KVector<AttributeInfo*> myAttributes;
  KVector<ExceptionTableElement*> myExceptionTable;
};

#endif
