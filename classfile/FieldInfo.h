#ifndef KJP_FIELDINFO_H
#define KJP_FIELDINFO_H

#include "agent/KVector.h"
#include "classfile/AttributeInfo.h"

class FieldInfo {
 public:
  FieldInfo(DataInput& in, KVector<ConstantPoolInfo*>& pool);
  FieldInfo(int accessFlags, int nameIndex, int descriptorIndex);
  ~FieldInfo();

  int getAccessFlags() const { return myAccessFlags; }
  int getNameIndex() const { return myNameIndex; }
  int getDescriptorIndex() const { return myDescriptorIndex; }
  const KVector<AttributeInfo*>& getAttributes() const { return myAttributes; }
  bool equals(int nameIndex) const;
  void writeTo(DataOutput& out) const;

 private:
  int myAccessFlags;
  int myNameIndex;
  int myDescriptorIndex;
  KVector<AttributeInfo*> myAttributes;
};

#endif
