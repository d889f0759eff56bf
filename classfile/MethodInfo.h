#ifndef KJP_METHODINFO_H
#define KJP_METHODINFO_H

#include "agent/KString.h"
#include "agent/KVector.h"
#include "classfile/AttributeInfo.h"

class CodeAttribute;

class MethodInfo {
 public:
  static constexpr int ACC_PRIVATE = 0x0002;
  static constexpr int ACC_STATIC = 0x0008;
  static constexpr int ACC_NATIVE = 0x0100;
  static constexpr int ACC_ABSTRACT = 0x0400;

  // Reading a method also looks it up in the J2EE catalogue, which therefore has to be
  // complete before the first class is read (it is filled at library load).
  MethodInfo(DataInput& in, KVector<ConstantPoolInfo*>& pool);
  MethodInfo(int accessFlags, int nameIndex, int descriptorIndex, KVector<ConstantPoolInfo*>& pool);
  ~MethodInfo();

  const KString& getName() const;
  const KString& getDescriptor() const;
  int getNameIndex() const { return myNameIndex; }
  int getDescriptorIndex() const { return myDescriptorIndex; }
  int getAccessFlags() const { return myAccessFlags; }
  bool isStatic() const { return (myAccessFlags & ACC_STATIC) != 0; }
  bool isPrivate() const { return (myAccessFlags & ACC_PRIVATE) != 0; }
  bool isNative() const { return (myAccessFlags & ACC_NATIVE) != 0; }
  void setAbstract() { myAccessFlags |= ACC_ABSTRACT; }
  void makeNotNative() { myAccessFlags &= ~ACC_NATIVE; }

  const KVector<AttributeInfo*>& getAttributes() const { return myAttributes; }
  // The first Code attribute, or null for an abstract or native method.
  CodeAttribute* getCodeAttribute() const;
  // Adds a Code attribute holding a lone 'return'. The pool must already hold "Code".
  CodeAttribute* createCodeAttribute();

  bool equals(int nameIndex, int descriptorIndex) const;
  void writeTo(DataOutput& out) const;

 private:
  void release();

  int myAccessFlags;
  int myNameIndex;
  int myDescriptorIndex;
  KVector<AttributeInfo*> myAttributes;
  KVector<ConstantPoolInfo*>* myConstantPool;  // borrowed from the ClassFile
};

#endif
