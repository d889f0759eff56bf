#ifndef KJP_STACKMAPTABLEATTRIBUTE_H
#define KJP_STACKMAPTABLEATTRIBUTE_H

#include "classfile/AttributeInfo.h"

// The stack map of a method (class files of version 50 and above), kept as its raw body so
// that an unchanged method gets exactly its own bytes back. StackMapCodec turns the body
// into frames and back when code around it changes.
class StackMapTableAttribute : public AttributeInfo {
 public:
  static const KString NAME;
  StackMapTableAttribute(DataInput& in, int nameIndex, int length);
  ~StackMapTableAttribute() override { delete[] myBody; }
  void writeTo(DataOutput& out) const override;

  const unsigned char* getBody() const { return myBody; }
  int getBodyLength() const { return myAttributeLength; }
  // Replaces the body and with it the attribute length.
  void setBody(const unsigned char* body, int length);

 private:
  unsigned char* myBody;  // attribute-length bytes; null when empty
};

#endif
