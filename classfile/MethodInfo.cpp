#include "classfile/MethodInfo.h"

#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"

namespace {

const KString& utf8Value(const ConstantPool& pool, int index) {
  const ConstantPoolInfo* nameInfo = pool[index];
  KASSERT(nameInfo != nullptr);
  KASSERT(ConstantUtf8Info::TAG == nameInfo->getTag());
  return static_cast<const ConstantUtf8Info*>(nameInfo)->getValue();
}

}  // namespace

MethodInfo::MethodInfo(DataInput& in, KVector<ConstantPoolInfo*>& pool)
    : myAccessFlags(in.readUnsignedShort()),
      myNameIndex(in.readUnsignedShort()),
      myDescriptorIndex(in.readUnsignedShort()),
      myAttributes(4),
      myConstantPool(&pool) {
  if (!isUtf8(pool, myNameIndex) || !isUtf8(pool, myDescriptorIndex)) {
    throw ClassFormatError("a method's name or descriptor is not a string constant");
  }
  AttributeInfoReader::readAll(in, pool, myAttributes);
}

MethodInfo::MethodInfo(int accessFlags, int nameIndex, int descriptorIndex, KVector<ConstantPoolInfo*>& pool)
    : myAccessFlags(accessFlags),
      myNameIndex(nameIndex),
      myDescriptorIndex(descriptorIndex),
      myAttributes(4),
      myConstantPool(&pool) {
  KASSERT(accessFlags >= 0);
  KASSERT(nameIndex > 0);
  KASSERT(descriptorIndex > 0);
}

MethodInfo::~MethodInfo() { release(); }

void MethodInfo::release() {
  for (int i = 0; i < myAttributes.size(); i++) {
    delete myAttributes[i];
  }
  myAttributes.clear();
}

const KString& MethodInfo::getName() const { return utf8Value(*myConstantPool, myNameIndex); }

const KString& MethodInfo::getDescriptor() const { return utf8Value(*myConstantPool, myDescriptorIndex); }

CodeAttribute* MethodInfo::getCodeAttribute() const {
  for (int i = 0; i < myAttributes.size(); i++) {
    if (myAttributes[i]->hasName(*myConstantPool, CodeAttribute::NAME)) {
      return static_cast<CodeAttribute*>(myAttributes[i]);
    }
  }
  return nullptr;
}

CodeAttribute* MethodInfo::createCodeAttribute() {
  int codeAttributeNameIndex = -1;
  for (int i = 1; i < myConstantPool->size(); i++) {
    ConstantPoolInfo* info = (*myConstantPool)[i];
    if (info != nullptr && info->getTag() == ConstantUtf8Info::TAG &&
        static_cast<ConstantUtf8Info*>(info)->equals(CodeAttribute::NAME)) {
      codeAttributeNameIndex = i;
      break;
    }
  }
  KASSERT(codeAttributeNameIndex != -1);
  CodeAttribute* code = new CodeAttribute(*myConstantPool, codeAttributeNameIndex);
  myAttributes.push(code);
  return code;
}

bool MethodInfo::equals(int nameIndex, int descriptorIndex) const {
  return myNameIndex == nameIndex && myDescriptorIndex == descriptorIndex;
}

void MethodInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myAccessFlags));
  out.writeUnsignedShort(static_cast<unsigned int>(myNameIndex));
  out.writeUnsignedShort(static_cast<unsigned int>(myDescriptorIndex));
  AttributeInfo::writeAll(myAttributes, out);
}
