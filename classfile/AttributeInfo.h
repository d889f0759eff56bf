#ifndef KJP_ATTRIBUTEINFO_H
#define KJP_ATTRIBUTEINFO_H

#include "agent/KString.h"
#include "agent/KVector.h"
#include "classfile/ConstantPoolInfo.h"
#include "classfile/DataInput.h"
#include "classfile/DataOutput.h"

// The attribute family. Only what the agent works with is modelled; every other attribute
// (annotations, signatures, bootstrap methods, module data, records, nest members, and
// whatever a later compiler adds) travels as UnknownAttribute and is written back as read.
// The Code attribute and the debug tables nested in it have headers of their own.
class AttributeInfo {
 public:
  AttributeInfo(int attributeNameIndex, int attributeLength);
  virtual ~AttributeInfo() {}

  // The body only; write() puts the six-byte head in front.
  virtual void writeTo(DataOutput& out) const = 0;

  // Head and body. The length is written as it stands, and the body must have exactly that
  // many bytes: an attribute changed without its length would make the class unreadable,
  // so that throws ClassFormatError instead.
  void write(DataOutput& out) const;
  // An attribute count and the attributes, as classes, fields, methods and code hold them.
  static void writeAll(const KVector<AttributeInfo*>& attributes, DataOutput& out);

  int getAttributeNameIndex() const { return myAttributeNameIndex; }
  int getAttributeLength() const { return myAttributeLength; }
  void setAttributeLength(int attributeLength);
  // Whether the name entry of this attribute is 'name'.
  bool hasName(const ConstantPool& pool, const KString& name) const;

 protected:
  int myAttributeNameIndex;
  int myAttributeLength;
};

class AttributeInfoReader {
 public:
  // Reads one attribute, chosen by its name; the caller owns it. The body may not pass the
  // attribute's length, nor fall short of it, nor may the name be anything but a string
  // constant of this pool: each throws ClassFormatError.
  static AttributeInfo* create(DataInput& in, ConstantPool& pool);
  // The same for an attribute nested in a Code attribute whose code has 'codeLength'
  // bytes; only there are the debug tables and the stack map interpreted.
  static AttributeInfo* createInCode(DataInput& in, ConstantPool& pool, int codeLength);
  // Reads an attribute count and that many attributes into 'out'. On malformed input the
  // attributes read so far are deleted before the ClassFormatError leaves.
  static void readAll(DataInput& in, ConstantPool& pool, KVector<AttributeInfo*>& out);
};

class ConstantValueAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  ConstantValueAttribute(DataInput& in, int nameIndex, int length);
  void writeTo(DataOutput& out) const override;
  int getConstantValueIndex() const { return myConstantValueIndex; }

 private:
  int myConstantValueIndex;
};

class DeprecatedAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  DeprecatedAttribute(int nameIndex, int length) : AttributeInfo(nameIndex, length) {}
  void writeTo(DataOutput&) const override {}
};

class SyntheticAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  SyntheticAttribute(int nameIndex, int length) : AttributeInfo(nameIndex, length) {}
  void writeTo(DataOutput&) const override {}
};

class ExceptionsAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  ExceptionsAttribute(DataInput& in, int nameIndex, int length);
  void writeTo(DataOutput& out) const override;
  const KVector<int>& getExceptions() const { return myExceptions; }

 private:
  KVector<int> myExceptions;
};

class InnerClassesAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  struct Classes {
    int myInnerClassInfoIndex;
    int myOuterClassInfoIndex;
    int myInnerClassNameIndex;
    int myInnerClassAccessFlags;
  };
  InnerClassesAttribute(DataInput& in, int nameIndex, int length);
  ~InnerClassesAttribute() override;
  void writeTo(DataOutput& out) const override;
  const KVector<Classes*>& getClasses() const { return myClasses; }

 private:
  KVector<Classes*> myClasses;
};

class SourceFileAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  SourceFileAttribute(DataInput& in, int nameIndex, int length);
  void writeTo(DataOutput& out) const override;
  int getSourceFileIndex() const { return mySourceFileIndex; }

 private:
  int mySourceFileIndex;
};

// Any attribute the model does not interpret: its body, as read.
class UnknownAttribute : public AttributeInfo {
 public:
  UnknownAttribute(DataInput& in, int nameIndex, int length);
  ~UnknownAttribute() override { delete[] myInfo; }
  void writeTo(DataOutput& out) const override;
  const unsigned char* getInfo() const { return myInfo; }

 private:
  unsigned char* myInfo;  // attribute-length bytes; null when empty
};

#endif
