#ifndef KJP_LINENUMBERTABLEATTRIBUTE_H
#define KJP_LINENUMBERTABLEATTRIBUTE_H

#include "classfile/AttributeInfo.h"

// Code offsets of source lines. Instrumentation moves code, and with it these offsets.
class LineNumberTableAttribute : public AttributeInfo {
 public:
  static const KString NAME;

  struct LineNumber {
    int myStartPc;
    int myLineNumber;
  };

  // Every start pc must lie inside the code of 'codeLength' bytes, since the shifts look
  // them up in a map with one element for each byte of code.
  LineNumberTableAttribute(DataInput& in, int nameIndex, int length, int codeLength);
  ~LineNumberTableAttribute() override;
  void writeTo(DataOutput& out) const override;

  const KVector<LineNumber>& getLineNumbers() const { return myLineNumbers; }

  // Code was put in front of the old code: every line moves back by that much, but for the
  // line at offset 0, which now covers the new code too.
  void shiftLineNumbers(int lengthAddedAtStart);
  // Code moved: indices[i] is the new offset of old offset i.
  void shiftLineNumbers(const int* indices);

 private:
  // Held by value: a class has many of these, and an allocation each would show in the
  // time every class load takes.
  KVector<LineNumber> myLineNumbers;
};

#endif
