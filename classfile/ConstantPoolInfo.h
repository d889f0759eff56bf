#ifndef KJP_CONSTANTPOOLINFO_H
#define KJP_CONSTANTPOOLINFO_H

#include "agent/KString.h"
#include "agent/KVector.h"
#include "classfile/DataInput.h"
#include "classfile/DataOutput.h"

// The constant pool family. Entries are appended and never removed or renumbered, so every
// index a class already holds stays valid through instrumentation. Values are carried as
// they were read (numbers as raw words, strings as raw modified UTF-8): an entry nobody
// changed is written back byte for byte.
//
// The pool itself is a KVector<ConstantPoolInfo*> owned by ClassFile, indexed by constant
// pool index; slot 0 and the slot behind a long or double are null.
//
// Entries read from a class are checked for the shape of their references when the whole
// pool is known (ClassFile::validateConstantPool). The accessors below rely on that and
// assert it: a failing accessor is a bug of the agent, not a bad class.
class ConstantPoolInfo {
 public:
  virtual ~ConstantPoolInfo() {}
  virtual int getTag() const = 0;
  // The tag byte and the body.
  virtual void writeTo(DataOutput& out) const = 0;

  // Pool entries are the most numerous objects of every class that is read, all small and
  // short-lived: they come from a per-thread cache of equal blocks rather than straight
  // from the heap (see ConstantPoolInfo.cpp).
  static void* operator new(size_t size);
  static void operator delete(void* block);
};

typedef KVector<ConstantPoolInfo*> ConstantPool;

class ConstantUtf8Info : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 1;
  explicit ConstantUtf8Info(DataInput& in);
  explicit ConstantUtf8Info(const KString& value);
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;
  const KString& getValue() const { return myValue; }
  int getLength() const { return myLength; }
  bool equals(const KString& value) const;
  // The same test with the length known, for scans that compare one text with many entries.
  bool equals(const char* text, int length) const {
    return myLength == length && memcmp(myValue.get(), text, static_cast<size_t>(length)) == 0;
  }

 private:
  ConstantUtf8Info(DataInput& in, int length);
  KString myValue;
  int myLength;
};

class ConstantIntInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 3;
  explicit ConstantIntInfo(DataInput& in) : myValue(in.readInt()) {}
  explicit ConstantIntInfo(int value) : myValue(value) {}
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;
  int getValue() const { return myValue; }
  bool equals(int value) const { return myValue == value; }

 private:
  int myValue;
};

class ConstantFloatInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 4;
  explicit ConstantFloatInfo(DataInput& in) : myBits(in.readInt()) {}
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;

 private:
  int myBits;
};

// Longs and doubles take two pool slots; the second one holds null.
class ConstantLongInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 5;
  explicit ConstantLongInfo(DataInput& in) : myHighBytes(in.readInt()), myLowBytes(in.readInt()) {}
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;

 private:
  int myHighBytes;
  int myLowBytes;
};

class ConstantDoubleInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 6;
  explicit ConstantDoubleInfo(DataInput& in) : myHighBytes(in.readInt()), myLowBytes(in.readInt()) {}
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;

 private:
  int myHighBytes;
  int myLowBytes;
};

class ConstantClassInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 7;
  explicit ConstantClassInfo(DataInput& in);
  explicit ConstantClassInfo(int nameIndex);
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;
  int getNameIndex() const { return myNameIndex; }
  // The class's name in internal form ("java/lang/String"), or an array descriptor.
  const KString& getName(const ConstantPool& pool) const;
  bool equals(int nameIndex) const;

 private:
  int myNameIndex;
};

class ConstantStringInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 8;
  explicit ConstantStringInfo(DataInput& in);
  explicit ConstantStringInfo(int stringIndex);
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;
  int getStringIndex() const { return myStringIndex; }
  bool equals(int stringIndex) const;

 private:
  int myStringIndex;
};

// What the three member references share: a class and a name-and-type.
class ConstantRefInfo : public ConstantPoolInfo {
 public:
  void writeTo(DataOutput& out) const override;
  int getClassIndex() const { return myClassIndex; }
  int getNameAndTypeIndex() const { return myNameAndTypeIndex; }
  const char* getClassSignature(const ConstantPool& pool) const;
  const char* getMethodName(const ConstantPool& pool) const;
  const char* getMethodSignature(const ConstantPool& pool) const;
  // "class|name|descriptor", as in "java/io/RandomAccessFile|readBytes|([BII)I": the key by
  // which known call sites are recognised.
  KString getMethodUIDString(const ConstantPool& pool) const;

 protected:
  explicit ConstantRefInfo(DataInput& in);
  ConstantRefInfo(int classIndex, int nameAndTypeIndex);
  int myClassIndex;
  int myNameAndTypeIndex;
};

class ConstantFieldRefInfo : public ConstantRefInfo {
 public:
  static constexpr int TAG = 9;
  explicit ConstantFieldRefInfo(DataInput& in) : ConstantRefInfo(in) {}
  ConstantFieldRefInfo(int classIndex, int nameAndTypeIndex) : ConstantRefInfo(classIndex, nameAndTypeIndex) {}
  int getTag() const override { return TAG; }
  bool equals(int classIndex, int nameAndTypeIndex) const;
};

class ConstantMethodRefInfo : public ConstantRefInfo {
 public:
  static constexpr int TAG = 10;
  explicit ConstantMethodRefInfo(DataInput& in) : ConstantRefInfo(in) {}
  ConstantMethodRefInfo(int classIndex, int nameAndTypeIndex) : ConstantRefInfo(classIndex, nameAndTypeIndex) {}
  int getTag() const override { return TAG; }
  bool equals(int classIndex, int nameAndTypeIndex) const;
};

// Only ever read: the agent calls only its own static methods, never interface methods.
class ConstantInterfaceMethodRefInfo : public ConstantRefInfo {
 public:
  static constexpr int TAG = 11;
  explicit ConstantInterfaceMethodRefInfo(DataInput& in) : ConstantRefInfo(in) {}
  int getTag() const override { return TAG; }
};

class ConstantNameAndTypeInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 12;
  explicit ConstantNameAndTypeInfo(DataInput& in);
  ConstantNameAndTypeInfo(int nameIndex, int descriptorIndex);
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;
  int getNameIndex() const { return myNameIndex; }
  int getDescriptorIndex() const { return myDescriptorIndex; }
  const KString& getName(const ConstantPool& pool) const;
  const KString& getDescriptor(const ConstantPool& pool) const;
  bool equals(int nameIndex, int descriptorIndex) const;

 private:
  int myNameIndex;
  int myDescriptorIndex;
};

// The entries below come from the newer features of the format (method handles,
// invokedynamic, dynamic constants, modules). The agent never interprets them; it carries
// them so that such classes can be instrumented at all.
class ConstantMethodHandleInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 15;
  explicit ConstantMethodHandleInfo(DataInput& in) : myReferenceKind(in.readUnsignedByte()), myReferenceIndex(in.readUnsignedShort()) {}
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;
  int getReferenceKind() const { return myReferenceKind; }
  int getReferenceIndex() const { return myReferenceIndex; }

 private:
  int myReferenceKind;
  int myReferenceIndex;
};

class ConstantMethodTypeInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 16;
  explicit ConstantMethodTypeInfo(DataInput& in) : myDescriptorIndex(in.readUnsignedShort()) {}
  int getTag() const override { return TAG; }
  void writeTo(DataOutput& out) const override;
  int getDescriptorIndex() const { return myDescriptorIndex; }

 private:
  int myDescriptorIndex;
};

// CONSTANT_Dynamic (17) and CONSTANT_InvokeDynamic (18) have the same body: a bootstrap
// method number (an index into the BootstrapMethods attribute, not the pool) and a
// name-and-type.
class ConstantDynamicInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 17;
  explicit ConstantDynamicInfo(DataInput& in) : ConstantDynamicInfo(in, TAG) {}
  int getTag() const override { return myTag; }
  void writeTo(DataOutput& out) const override;
  int getBootstrapMethodAttrIndex() const { return myBootstrapMethodAttrIndex; }
  int getNameAndTypeIndex() const { return myNameAndTypeIndex; }

 protected:
  ConstantDynamicInfo(DataInput& in, int tag)
      : myTag(tag), myBootstrapMethodAttrIndex(in.readUnsignedShort()), myNameAndTypeIndex(in.readUnsignedShort()) {}

 private:
  int myTag;
  int myBootstrapMethodAttrIndex;
  int myNameAndTypeIndex;
};

class ConstantInvokeDynamicInfo : public ConstantDynamicInfo {
 public:
  static constexpr int TAG = 18;
  explicit ConstantInvokeDynamicInfo(DataInput& in) : ConstantDynamicInfo(in, TAG) {}
};

// CONSTANT_Module (19) and CONSTANT_Package (20): one Utf8 name each.
class ConstantModuleInfo : public ConstantPoolInfo {
 public:
  static constexpr int TAG = 19;
  explicit ConstantModuleInfo(DataInput& in) : ConstantModuleInfo(in, TAG) {}
  int getTag() const override { return myTag; }
  void writeTo(DataOutput& out) const override;
  int getNameIndex() const { return myNameIndex; }

 protected:
  ConstantModuleInfo(DataInput& in, int tag) : myTag(tag), myNameIndex(in.readUnsignedShort()) {}

 private:
  int myTag;
  int myNameIndex;
};

class ConstantPackageInfo : public ConstantModuleInfo {
 public:
  static constexpr int TAG = 20;
  explicit ConstantPackageInfo(DataInput& in) : ConstantModuleInfo(in, TAG) {}
};

class ConstantPoolInfoReader {
 public:
  // Reads one entry; the caller owns it. An unknown tag throws ClassFormatError.
  static ConstantPoolInfo* create(DataInput& in);
};

// Whether the entry at 'index' exists and is a string constant: names and descriptors that
// point elsewhere are malformed input, not an invariant of the agent.
inline bool isUtf8(const ConstantPool& pool, int index) {
  return index > 0 && index < pool.size() && pool[index] != nullptr && pool[index]->getTag() == ConstantUtf8Info::TAG;
}

#endif
