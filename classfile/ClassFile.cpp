#include "classfile/ClassFile.h"

#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"

namespace {

const int MAX_U2 = 0xFFFF;

// The highest version whose JVM verifies by type inference alone, and the lowest that
// needs stack maps.
const int TYPE_INFERENCE_VERSION = 49;
const int FIRST_STACK_MAP_VERSION = 50;

}  // namespace

ClassFile::ClassFile(DataInput& in)
    : myMagic(0),
      myMajorVersion(0),
      myMinorVersion(0),
      myAccessFlags(0),
      myThisClass(0),
      mySuperClass(0),
      myInterfaceCount(0),
      myInterfaces(nullptr),
      myConstantPool(10),
      myFields(10),
      myMethods(10),
      myAttributes(10) {
  try {
    read(in);
  } catch (...) {
    release();
    throw;
  }
}

ClassFile::~ClassFile() { release(); }

void ClassFile::release() {
  for (int i = 0; i < myConstantPool.size(); i++) {
    delete myConstantPool[i];
  }
  myConstantPool.clear();
  for (int i = 0; i < myFields.size(); i++) {
    delete myFields[i];
  }
  myFields.clear();
  for (int i = 0; i < myMethods.size(); i++) {
    delete myMethods[i];
  }
  myMethods.clear();
  for (int i = 0; i < myAttributes.size(); i++) {
    delete myAttributes[i];
  }
  myAttributes.clear();
  delete[] myInterfaces;
  myInterfaces = nullptr;
}

// ---------------------------------------------------------------- reading

void ClassFile::read(DataInput& in) {
  myMagic = in.readInt();
  myMinorVersion = in.readUnsignedShort();
  myMajorVersion = in.readUnsignedShort();
  int originalMajorVersion = myMajorVersion;
  if (myMajorVersion == FIRST_STACK_MAP_VERSION) {
    myMajorVersion = TYPE_INFERENCE_VERSION;
  }
  int constantPoolCount = in.readUnsignedShort();
  if (constantPoolCount == 0) {
    throw ClassFormatError("a constant pool count of 0");
  }
  myConstantPool.push(nullptr);
  for (int i = 1; i < constantPoolCount; i++) {
    ConstantPoolInfo* info = ConstantPoolInfoReader::create(in);
    myConstantPool.push(info);
    int tag = info->getTag();
    if (tag == ConstantLongInfo::TAG || tag == ConstantDoubleInfo::TAG) {
      if (i + 1 >= constantPoolCount) {
        throw ClassFormatError("a long or double constant takes the last pool slot");
      }
      myConstantPool.push(nullptr);
      i++;
    }
  }
  validateConstantPool();

  myAccessFlags = in.readUnsignedShort();
  myThisClass = in.readUnsignedShort();
  mySuperClass = in.readUnsignedShort();
  myInterfaceCount = in.readUnsignedShort();
  myInterfaces = new int[myInterfaceCount > 0 ? myInterfaceCount : 1];
  for (int i = 0; i < myInterfaceCount; i++) {
    myInterfaces[i] = in.readUnsignedShort();
  }
  // The model follows these to names (getSignature, the hook's rules), so they must be
  // classes; a super class of 0 is java/lang/Object's, or a module-info's.
  int thisTag = myThisClass < myConstantPool.size() && myConstantPool[myThisClass] ? myConstantPool[myThisClass]->getTag() : 0;
  if (thisTag != ConstantClassInfo::TAG) {
    throw ClassFormatError("this class, constant %d, is no class", myThisClass);
  }
  if (mySuperClass != 0 && (mySuperClass >= myConstantPool.size() || myConstantPool[mySuperClass] == nullptr ||
                            myConstantPool[mySuperClass]->getTag() != ConstantClassInfo::TAG)) {
    throw ClassFormatError("the super class, constant %d, is no class", mySuperClass);
  }
  for (int i = 0; i < myInterfaceCount; i++) {
    int index = myInterfaces[i];
    if (index <= 0 || index >= myConstantPool.size() || myConstantPool[index] == nullptr ||
        myConstantPool[index]->getTag() != ConstantClassInfo::TAG) {
      throw ClassFormatError("an interface, constant %d, is no class", index);
    }
  }

  int fieldCount = in.readUnsignedShort();
  for (int i = 0; i < fieldCount; i++) {
    myFields.push(new FieldInfo(in, myConstantPool));
  }

  int methodCount = in.readUnsignedShort();
  for (int i = 0; i < methodCount; i++) {
    myMethods.push(new MethodInfo(in, myConstantPool));
  }

  AttributeInfoReader::readAll(in, myConstantPool, myAttributes);

  if (in.available() != 0) {
    throw ClassFormatError("%d bytes follow the end of the class", in.available());
  }

  if (originalMajorVersion <= FIRST_STACK_MAP_VERSION) {
    for (int i = 0; i < myMethods.size(); i++) {
      CodeAttribute* code = myMethods[i]->getCodeAttribute();
      if (code != nullptr) {
        code->dropStackMaps();
      }
    }
  }
}

void ClassFile::validateConstantPool() const {
  const ConstantPool& pool = myConstantPool;
  int size = pool.size();
  auto tagAt = [&pool, size](int index) -> int {
    return index > 0 && index < size && pool[index] != nullptr ? pool[index]->getTag() : 0;
  };
  for (int i = 1; i < size; i++) {
    const ConstantPoolInfo* info = pool[i];
    if (info == nullptr) {
      continue;
    }
    bool valid = true;
    switch (info->getTag()) {
      case ConstantClassInfo::TAG:
        valid = tagAt(static_cast<const ConstantClassInfo*>(info)->getNameIndex()) == ConstantUtf8Info::TAG;
        break;
      case ConstantStringInfo::TAG:
        valid = tagAt(static_cast<const ConstantStringInfo*>(info)->getStringIndex()) == ConstantUtf8Info::TAG;
        break;
      case ConstantFieldRefInfo::TAG:
      case ConstantMethodRefInfo::TAG:
      case ConstantInterfaceMethodRefInfo::TAG: {
        const ConstantRefInfo* ref = static_cast<const ConstantRefInfo*>(info);
        valid = tagAt(ref->getClassIndex()) == ConstantClassInfo::TAG &&
                tagAt(ref->getNameAndTypeIndex()) == ConstantNameAndTypeInfo::TAG;
        break;
      }
      case ConstantNameAndTypeInfo::TAG: {
        const ConstantNameAndTypeInfo* nameAndType = static_cast<const ConstantNameAndTypeInfo*>(info);
        valid = tagAt(nameAndType->getNameIndex()) == ConstantUtf8Info::TAG &&
                tagAt(nameAndType->getDescriptorIndex()) == ConstantUtf8Info::TAG;
        break;
      }
      case ConstantMethodHandleInfo::TAG: {
        const ConstantMethodHandleInfo* handle = static_cast<const ConstantMethodHandleInfo*>(info);
        int referenceTag = tagAt(handle->getReferenceIndex());
        valid = handle->getReferenceKind() >= 1 && handle->getReferenceKind() <= 9 &&
                (referenceTag == ConstantFieldRefInfo::TAG || referenceTag == ConstantMethodRefInfo::TAG ||
                 referenceTag == ConstantInterfaceMethodRefInfo::TAG);
        break;
      }
      case ConstantMethodTypeInfo::TAG:
        valid = tagAt(static_cast<const ConstantMethodTypeInfo*>(info)->getDescriptorIndex()) == ConstantUtf8Info::TAG;
        break;
      case ConstantDynamicInfo::TAG:
      case ConstantInvokeDynamicInfo::TAG:
        valid = tagAt(static_cast<const ConstantDynamicInfo*>(info)->getNameAndTypeIndex()) ==
                ConstantNameAndTypeInfo::TAG;
        break;
      case ConstantModuleInfo::TAG:
      case ConstantPackageInfo::TAG:
        valid = tagAt(static_cast<const ConstantModuleInfo*>(info)->getNameIndex()) == ConstantUtf8Info::TAG;
        break;
      default:
        break;
    }
    if (!valid) {
      throw ClassFormatError("constant %d (tag %d) refers to a missing or wrong entry", i, info->getTag());
    }
  }
}

// ---------------------------------------------------------------- writing

void ClassFile::writeClass(DataOutput& out) const {
  if (myConstantPool.size() > MAX_U2 || myFields.size() > MAX_U2 || myMethods.size() > MAX_U2 ||
      myAttributes.size() > MAX_U2 || myInterfaceCount > MAX_U2) {
    throw ClassFormatError("the class has outgrown the format: %d constants, %d fields, %d methods",
                           myConstantPool.size(), myFields.size(), myMethods.size());
  }
  out.writeInt(myMagic);
  out.writeUnsignedShort(static_cast<unsigned int>(myMinorVersion));
  out.writeUnsignedShort(static_cast<unsigned int>(myMajorVersion));
  out.writeUnsignedShort(static_cast<unsigned int>(myConstantPool.size()));
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    info->writeTo(out);
    if (info->getTag() == ConstantLongInfo::TAG || info->getTag() == ConstantDoubleInfo::TAG) {
      i++;
    }
  }
  out.writeUnsignedShort(static_cast<unsigned int>(myAccessFlags));
  out.writeUnsignedShort(static_cast<unsigned int>(myThisClass));
  out.writeUnsignedShort(static_cast<unsigned int>(mySuperClass));
  out.writeUnsignedShort(static_cast<unsigned int>(myInterfaceCount));
  for (int i = 0; i < myInterfaceCount; i++) {
    out.writeUnsignedShort(static_cast<unsigned int>(myInterfaces[i]));
  }
  out.writeUnsignedShort(static_cast<unsigned int>(myFields.size()));
  for (int i = 0; i < myFields.size(); i++) {
    myFields[i]->writeTo(out);
  }
  out.writeUnsignedShort(static_cast<unsigned int>(myMethods.size()));
  for (int i = 0; i < myMethods.size(); i++) {
    myMethods[i]->writeTo(out);
  }
  AttributeInfo::writeAll(myAttributes, out);
}

// ---------------------------------------------------------------- queries

const KString& ClassFile::getSignature() const {
  const ConstantPoolInfo* info = myConstantPool[myThisClass];
  KASSERT(info != nullptr);
  KASSERT(ConstantClassInfo::TAG == info->getTag());
  const ConstantPoolInfo* nameInfo = myConstantPool[static_cast<const ConstantClassInfo*>(info)->getNameIndex()];
  KASSERT(nameInfo);
  KASSERT(ConstantUtf8Info::TAG == nameInfo->getTag());
  return static_cast<const ConstantUtf8Info*>(nameInfo)->getValue();
}

MethodInfo* ClassFile::findMethod(const KString& name, const KString& descriptor) const {
  for (int i = 0; i < myMethods.size(); i++) {
    MethodInfo* method = myMethods[i];
    if (method->getName() == name && method->getDescriptor() == descriptor) {
      return method;
    }
  }
  return nullptr;
}

void ClassFile::initStrings(const KVectorSafe<KString>& names, int* indices) {
  int count = names.size();
  // Lengths once, so that most entries are passed over on their length alone.
  int smallLengths[32];
  int* lengths = count <= 32 ? smallLengths : new int[count];
  for (int j = 0; j < count; j++) {
    indices[j] = -1;
    lengths[j] = names[j].length();
  }
  int unresolved = count;
  for (int i = 1; i < myConstantPool.size() && unresolved > 0; i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info == nullptr || info->getTag() != ConstantUtf8Info::TAG) {
      continue;
    }
    const ConstantUtf8Info* utf8 = static_cast<const ConstantUtf8Info*>(info);
    for (int j = 0; j < count; j++) {
      if (indices[j] == -1 && utf8->equals(names[j].get(), lengths[j])) {
        indices[j] = i;
        unresolved--;
        break;
      }
    }
  }
  for (int j = 0; j < count; j++) {
    if (indices[j] == -1) {
      indices[j] = appendToPool(new ConstantUtf8Info(names[j]));
    }
  }
  if (lengths != smallLengths) {
    delete[] lengths;
  }
}

// ---------------------------------------------------------------- find or create

int ClassFile::appendToPool(ConstantPoolInfo* info) {
  myConstantPool.push(info);
  return myConstantPool.size() - 1;
}

int ClassFile::findOrCreateIntInfo(int value) {
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantIntInfo::TAG && static_cast<const ConstantIntInfo*>(info)->equals(value)) {
      return i;
    }
  }
  return appendToPool(new ConstantIntInfo(value));
}

int ClassFile::findOrCreateUtf8(const KString& value) {
  int length = value.length();
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantUtf8Info::TAG &&
        static_cast<const ConstantUtf8Info*>(info)->equals(value.get(), length)) {
      return i;
    }
  }
  return appendToPool(new ConstantUtf8Info(value));
}

int ClassFile::findOrCreateStringInfo(const KString& value) {
  int stringIndex = findOrCreateUtf8(value);
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantStringInfo::TAG &&
        static_cast<const ConstantStringInfo*>(info)->equals(stringIndex)) {
      return i;
    }
  }
  return appendToPool(new ConstantStringInfo(stringIndex));
}

int ClassFile::findOrCreateConstantClass(const KString& name) { return findOrCreateConstantClass(findOrCreateUtf8(name)); }

int ClassFile::findOrCreateConstantClass(int classNameIndex) {
  KASSERT(classNameIndex > 0);
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantClassInfo::TAG &&
        static_cast<const ConstantClassInfo*>(info)->equals(classNameIndex)) {
      return i;
    }
  }
  return appendToPool(new ConstantClassInfo(classNameIndex));
}

int ClassFile::findOrCreateNameAndType(const KString& name, const KString& descriptor) {
  int nameIndex = findOrCreateUtf8(name);
  int descriptorIndex = findOrCreateUtf8(descriptor);
  return findOrCreateNameAndType(nameIndex, descriptorIndex);
}

int ClassFile::findOrCreateNameAndType(int nameIndex, int descriptorIndex) {
  KASSERT(nameIndex > 0);
  KASSERT(descriptorIndex > 0);
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantNameAndTypeInfo::TAG &&
        static_cast<const ConstantNameAndTypeInfo*>(info)->equals(nameIndex, descriptorIndex)) {
      return i;
    }
  }
  return appendToPool(new ConstantNameAndTypeInfo(nameIndex, descriptorIndex));
}

int ClassFile::findOrCreateMethodRef(const KString& className, const KString& name, const KString& descriptor) {
  int classIndex = findOrCreateConstantClass(className);
  int nameAndTypeIndex = findOrCreateNameAndType(name, descriptor);
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantMethodRefInfo::TAG &&
        static_cast<const ConstantMethodRefInfo*>(info)->equals(classIndex, nameAndTypeIndex)) {
      return i;
    }
  }
  return appendToPool(new ConstantMethodRefInfo(classIndex, nameAndTypeIndex));
}

int ClassFile::findOrCreateMethodRef(int methodClassIndex, int methodNameIndex, int methodDescriptorIndex) {
  KASSERT(methodClassIndex > 0);
  KASSERT(methodNameIndex > 0);
  KASSERT(methodDescriptorIndex > 0);
  int nameAndTypeIndex = findOrCreateNameAndType(methodNameIndex, methodDescriptorIndex);
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantMethodRefInfo::TAG &&
        static_cast<const ConstantMethodRefInfo*>(info)->equals(methodClassIndex, nameAndTypeIndex)) {
      return i;
    }
  }
  return appendToPool(new ConstantMethodRefInfo(methodClassIndex, nameAndTypeIndex));
}

int ClassFile::findOrCreateFieldRef(const KString& className, const KString& name, const KString& descriptor) {
  int classIndex = findOrCreateConstantClass(className);
  int nameAndTypeIndex = findOrCreateNameAndType(name, descriptor);
  for (int i = 1; i < myConstantPool.size(); i++) {
    const ConstantPoolInfo* info = myConstantPool[i];
    if (info != nullptr && info->getTag() == ConstantFieldRefInfo::TAG &&
        static_cast<const ConstantFieldRefInfo*>(info)->equals(classIndex, nameAndTypeIndex)) {
      return i;
    }
  }
  return appendToPool(new ConstantFieldRefInfo(classIndex, nameAndTypeIndex));
}

int ClassFile::findOrCreateMethod(const KString& name, const KString& descriptor, int accessFlags) {
  KASSERT(accessFlags >= 0);
  int nameIndex = findOrCreateUtf8(name);
  int descriptorIndex = findOrCreateUtf8(descriptor);
  // By text, not by index: a pool may hold the same text twice.
  for (int i = 0; i < myMethods.size(); i++) {
    if (myMethods[i]->getName() == name && myMethods[i]->getDescriptor() == descriptor) {
      return i;
    }
  }
  myMethods.push(new MethodInfo(accessFlags, nameIndex, descriptorIndex, myConstantPool));
  return myMethods.size() - 1;
}

int ClassFile::findOrCreateField(const KString& name, const KString& descriptor, int accessFlags) {
  KASSERT(accessFlags >= 0);
  int nameIndex = findOrCreateUtf8(name);
  for (int i = 0; i < myFields.size(); i++) {
    if (myFields[i]->equals(nameIndex) ||
        static_cast<const ConstantUtf8Info*>(myConstantPool[myFields[i]->getNameIndex()])->equals(name)) {
      return i;
    }
  }
  int descriptorIndex = findOrCreateUtf8(descriptor);
  myFields.push(new FieldInfo(accessFlags, nameIndex, descriptorIndex));
  return myFields.size() - 1;
}
