#include "classfile/LineNumberTableAttribute.h"

#include "classfile/ClassFormatError.h"

const KString LineNumberTableAttribute::NAME("LineNumberTable");

LineNumberTableAttribute::LineNumberTableAttribute(DataInput& in, int nameIndex, int length, int codeLength)
    : AttributeInfo(nameIndex, length), myLineNumbers(10) {
  int lineNumberTableLength = in.readUnsignedShort();
  for (int i = 0; i < lineNumberTableLength; i++) {
    LineNumber lineNumber;
    lineNumber.myStartPc = in.readUnsignedShort();
    lineNumber.myLineNumber = in.readUnsignedShort();
    if (lineNumber.myStartPc >= codeLength) {
      throw ClassFormatError("a line starts at %d, behind the code of %d bytes", lineNumber.myStartPc, codeLength);
    }
    myLineNumbers.push(lineNumber);
  }
}

LineNumberTableAttribute::~LineNumberTableAttribute() {}

void LineNumberTableAttribute::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myLineNumbers.size()));
  for (int i = 0; i < myLineNumbers.size(); i++) {
    out.writeUnsignedShort(static_cast<unsigned int>(myLineNumbers[i].myStartPc));
    out.writeUnsignedShort(static_cast<unsigned int>(myLineNumbers[i].myLineNumber));
  }
}

void LineNumberTableAttribute::shiftLineNumbers(int lengthAddedAtStart) {
  KASSERT(lengthAddedAtStart >= 0);
  for (int i = 0; i < myLineNumbers.size(); i++) {
    // The line that began the method begins it still: a stack trace taken inside the code put
    // in front shows the method's first line rather than none.
    if (myLineNumbers[i].myStartPc != 0) {
      myLineNumbers[i].myStartPc += lengthAddedAtStart;
    }
  }
}

void LineNumberTableAttribute::shiftLineNumbers(const int* indices) {
  KASSERT(indices);
  for (int i = 0; i < myLineNumbers.size(); i++) {
    myLineNumbers[i].myStartPc = indices[myLineNumbers[i].myStartPc];
  }
}
