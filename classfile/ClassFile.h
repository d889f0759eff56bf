#ifndef KJP_CLASSFILE_H
#define KJP_CLASSFILE_H

#include "agent/KString.h"
#include "agent/KVector.h"
#include "agent/KVectorSafe.h"
#include "classfile/AttributeInfo.h"
#include "classfile/ConstantPoolInfo.h"
#include "classfile/DataInput.h"
#include "classfile/DataOutput.h"
#include "classfile/FieldInfo.h"
#include "classfile/MethodInfo.h"

// One class file in memory: read, changed by the instrumentation, written back. It owns
// everything it holds.
//
// Reading checks the structure of the class as far as the agent relies on it (every length
// and count against the data, every pool reference that the model follows against its
// tag) and throws ClassFormatError where it does not hold. After a successful read the
// accessors can trust the structure; their assertions guard the agent's own use.
//
// Versions: a class of major version 50 is lowered to 49 and loses its stack maps, so that
// its JVM verifies it by type inference and inserted code needs no frames. Below 50 a JVM
// never reads stack maps, so any that a class carries are dropped as well. From 51 on the
// version and the stack maps stay.
class ClassFile {
 public:
  static constexpr int ACC_INTERFACE = 0x0200;

  explicit ClassFile(DataInput& in);
  ~ClassFile();

  ClassFile(const ClassFile&) = delete;
  ClassFile& operator=(const ClassFile&) = delete;

  KVector<ConstantPoolInfo*>& getConstantPool() { return myConstantPool; }
  const KVector<ConstantPoolInfo*>& getConstantPool() const { return myConstantPool; }
  KVector<MethodInfo*>& getMethods() { return myMethods; }
  const KVector<MethodInfo*>& getMethods() const { return myMethods; }
  const KVector<FieldInfo*>& getFields() const { return myFields; }
  const KVector<AttributeInfo*>& getAttributes() const { return myAttributes; }
  int getAccessFlags() const { return myAccessFlags; }
  int getMajorVersion() const { return myMajorVersion; }
  int getMinorVersion() const { return myMinorVersion; }
  int getThisClass() const { return myThisClass; }

  // This class's name in internal form ("java/lang/String").
  const KString& getSignature() const;

  MethodInfo* findMethod(const KString& name, const KString& descriptor) const;

  // Resolves each of 'names' to a pool index in 'indices' (one element a name), in one pass
  // over the pool; names not in the pool are appended.
  void initStrings(const KVectorSafe<KString>& names, int* indices);

  // The find-or-create family: the index of the first matching entry, or of a new one
  // appended at the end. Forms taking texts find or create the entries they are built of
  // first, so they may leave new entries behind even when the entry itself existed.
  int findOrCreateIntInfo(int value);
  int findOrCreateUtf8(const KString& value);
  int findOrCreateStringInfo(const KString& value);
  int findOrCreateConstantClass(const KString& name);
  int findOrCreateConstantClass(int classNameIndex);
  int findOrCreateNameAndType(const KString& name, const KString& descriptor);
  int findOrCreateNameAndType(int nameIndex, int descriptorIndex);
  int findOrCreateMethodRef(const KString& className, const KString& name, const KString& descriptor);
  // methodClassIndex is the index of the class's Class entry.
  int findOrCreateMethodRef(int methodClassIndex, int methodNameIndex, int methodDescriptorIndex);
  int findOrCreateFieldRef(const KString& className, const KString& name, const KString& descriptor);
  // Index into the methods: matched by name and descriptor; a new method has no attributes.
  int findOrCreateMethod(const KString& name, const KString& descriptor, int accessFlags);
  // Index into the fields: matched by name alone, for the agent's own fields.
  int findOrCreateField(const KString& name, const KString& descriptor, int accessFlags);

  // Throws ClassFormatError if the class has outgrown what the format can count.
  void writeClass(DataOutput& out) const;

 private:
  void read(DataInput& in);
  void validateConstantPool() const;
  void release();
  int appendToPool(ConstantPoolInfo* info);

  int myMagic;
  int myMajorVersion;
  int myMinorVersion;
  int myAccessFlags;
  int myThisClass;
  int mySuperClass;
  int myInterfaceCount;
  int* myInterfaces;
  KVector<ConstantPoolInfo*> myConstantPool;
  KVector<FieldInfo*> myFields;
  KVector<MethodInfo*> myMethods;
  KVector<AttributeInfo*> myAttributes;
};

#endif
