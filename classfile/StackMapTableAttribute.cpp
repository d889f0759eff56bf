#include "classfile/StackMapTableAttribute.h"

const KString StackMapTableAttribute::NAME("StackMapTable");

StackMapTableAttribute::StackMapTableAttribute(DataInput& in, int nameIndex, int length)
    : AttributeInfo(nameIndex, length), myBody(nullptr) {
  if (length > 0) {
    myBody = new unsigned char[length];
    in.readFully(myBody, length);
  }
}

void StackMapTableAttribute::writeTo(DataOutput& out) const {
  if (myAttributeLength > 0) {
    out.write(myBody, myAttributeLength);
  }
}

void StackMapTableAttribute::setBody(const unsigned char* body, int length) {
  KASSERT(length >= 0);
  KASSERT(body != nullptr || length == 0);
  unsigned char* copy = nullptr;
  if (length > 0) {
    copy = new unsigned char[length];
    memcpy(copy, body, static_cast<size_t>(length));
  }
  delete[] myBody;
  myBody = copy;
  setAttributeLength(length);
}
