#include "classfile/FieldInfo.h"

#include "classfile/ClassFormatError.h"

FieldInfo::FieldInfo(DataInput& in, KVector<ConstantPoolInfo*>& pool)
    : myAccessFlags(in.readUnsignedShort()),
      myNameIndex(in.readUnsignedShort()),
      myDescriptorIndex(in.readUnsignedShort()),
      myAttributes(4) {
  if (!isUtf8(pool, myNameIndex) || !isUtf8(pool, myDescriptorIndex)) {
    throw ClassFormatError("a field's name or descriptor is not a string constant");
  }
  AttributeInfoReader::readAll(in, pool, myAttributes);
}

FieldInfo::FieldInfo(int accessFlags, int nameIndex, int descriptorIndex)
    : myAccessFlags(accessFlags), myNameIndex(nameIndex), myDescriptorIndex(descriptorIndex), myAttributes(4) {
  KASSERT(accessFlags >= 0);
  KASSERT(nameIndex > 0);
  KASSERT(descriptorIndex > 0);
}

FieldInfo::~FieldInfo() {
  for (int i = 0; i < myAttributes.size(); i++) {
    delete myAttributes[i];
  }
}

bool FieldInfo::equals(int nameIndex) const {
  KASSERT(nameIndex > 0);
  return myNameIndex == nameIndex;
}

void FieldInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myAccessFlags));
  out.writeUnsignedShort(static_cast<unsigned int>(myNameIndex));
  out.writeUnsignedShort(static_cast<unsigned int>(myDescriptorIndex));
  AttributeInfo::writeAll(myAttributes, out);
}
