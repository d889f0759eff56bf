#include "classfile/CodeAttribute.h"

#include "classfile/ClassFormatError.h"
#include "classfile/LineNumberTableAttribute.h"
#include "classfile/LocalVariableTableAttribute.h"
#include "classfile/StackMapTableAttribute.h"

const KString CodeAttribute::NAME("Code");

namespace {

// max_stack and max_locals are u2 in the format, but the agent keeps them at 0x7FFF and
// below; a method that near the limit is better off slightly wrong than wrapped round.
const int MAX_COUNT = 0x7FFF;

// max_stack, max_locals, code_length, exception_table_length, attributes_count.
const int FIXED_PART_LENGTH = 2 + 2 + 4 + 2 + 2;

const unsigned char RETURN = 0xB1;

}  // namespace

// ---------------------------------------------------------------- exception table

CodeAttribute::ExceptionTableElement::ExceptionTableElement(DataInput& in)
    : myStartPc(in.readUnsignedShort()),
      myEndPc(in.readUnsignedShort()),
      myHandlerPc(in.readUnsignedShort()),
      myCatchType(in.readUnsignedShort()) {
  if (myEndPc <= myStartPc) {
    throw ClassFormatError("an exception range from %d to %d is empty", myStartPc, myEndPc);
  }
}

CodeAttribute::ExceptionTableElement::ExceptionTableElement(int startPc, int endPc, int handlerPc, int catchType)
    : myStartPc(startPc), myEndPc(endPc), myHandlerPc(handlerPc), myCatchType(catchType) {
  KASSERT(myStartPc >= 0);
  KASSERT(myEndPc > myStartPc);
  KASSERT(myHandlerPc >= 0);
  KASSERT(myCatchType >= 0);
}

void CodeAttribute::ExceptionTableElement::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myStartPc));
  out.writeUnsignedShort(static_cast<unsigned int>(myEndPc));
  out.writeUnsignedShort(static_cast<unsigned int>(myHandlerPc));
  out.writeUnsignedShort(static_cast<unsigned int>(myCatchType));
}

// ---------------------------------------------------------------- reading and writing

CodeAttribute::CodeAttribute(DataInput& in, ConstantPool& pool, int attributeNameIndex, int attributeLength)
    : AttributeInfo(attributeNameIndex, attributeLength),
      myMaxStack(0),
      myMaxLocals(0),
      myCodeLength(0),
      myCode(nullptr),
      myConstantPool(&pool),
      myAttributes(4),
      myExceptionTable(10) {
  try {
    myMaxStack = in.readUnsignedShort();
    myMaxLocals = in.readUnsignedShort();
    myCodeLength = in.readInt();
    if (myCodeLength <= 0 || myCodeLength >= 65536) {
      throw ClassFormatError("a code length of %u bytes", static_cast<unsigned int>(myCodeLength));
    }
    myCode = new unsigned char[myCodeLength];
    in.readFully(myCode, myCodeLength);

    int exceptionTableLength = in.readUnsignedShort();
    for (int i = 0; i < exceptionTableLength; i++) {
      ExceptionTableElement* element = new ExceptionTableElement(in);
      myExceptionTable.push(element);
      // Handlers and ranges are moved through a map with one element for each byte of code.
      if (element->myEndPc > myCodeLength || element->myHandlerPc >= myCodeLength) {
        throw ClassFormatError("an exception handler lies outside the code of %d bytes", myCodeLength);
      }
      if (element->myCatchType != 0 &&
          (element->myCatchType >= pool.size() || pool[element->myCatchType] == nullptr ||
           pool[element->myCatchType]->getTag() != ConstantClassInfo::TAG)) {
        throw ClassFormatError("an exception handler catches constant %d, which is no class", element->myCatchType);
      }
    }

    int attributeCount = in.readUnsignedShort();
    for (int i = 0; i < attributeCount; i++) {
      myAttributes.push(AttributeInfoReader::createInCode(in, pool, myCodeLength));
    }
  } catch (...) {
    release();
    throw;
  }
}

CodeAttribute::CodeAttribute(ConstantPool& pool, int attributeNameIndex)
    : AttributeInfo(attributeNameIndex, FIXED_PART_LENGTH + 1),
      myMaxStack(0),
      myMaxLocals(0),
      myCodeLength(1),
      myCode(new unsigned char[1]),
      myConstantPool(&pool),
      myAttributes(4),
      myExceptionTable(10) {
  myCode[0] = RETURN;
}

CodeAttribute::~CodeAttribute() { release(); }

void CodeAttribute::release() {
  delete[] myCode;
  myCode = nullptr;
  for (int i = 0; i < myAttributes.size(); i++) {
    delete myAttributes[i];
  }
  myAttributes.clear();
  for (int i = 0; i < myExceptionTable.size(); i++) {
    delete myExceptionTable[i];
  }
  myExceptionTable.clear();
}

void CodeAttribute::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myMaxStack));
  out.writeUnsignedShort(static_cast<unsigned int>(myMaxLocals));
  out.writeInt(myCodeLength);
  out.write(myCode, myCodeLength);
  out.writeUnsignedShort(static_cast<unsigned int>(myExceptionTable.size()));
  for (int i = 0; i < myExceptionTable.size(); i++) {
    myExceptionTable[i]->writeTo(out);
  }
  AttributeInfo::writeAll(myAttributes, out);
}

// ---------------------------------------------------------------- changes

void CodeAttribute::setCode(const unsigned char* code, int length) {
  KASSERT(code);
  KASSERT(length >= 0);
  unsigned char* copy = new unsigned char[length > 0 ? length : 1];
  memcpy(copy, code, static_cast<size_t>(length));
  delete[] myCode;
  myCode = copy;
  setAttributeLength(myAttributeLength + length - myCodeLength);
  myCodeLength = length;
}

void CodeAttribute::incMaxStackCount(int count) {
  myMaxStack += count;
  if (myMaxStack > MAX_COUNT) {
    myMaxStack = MAX_COUNT;
  }
}

void CodeAttribute::incMaxLocalsCount(int count) {
  myMaxLocals += count;
  if (myMaxLocals > MAX_COUNT) {
    myMaxLocals = MAX_COUNT;
  }
}

int CodeAttribute::addLocalVariableToTable(ClassFile& classFile, int startPc, int length, const KString& name,
                                           const KString& descriptor) {
  KASSERT(startPc >= 0);
  KASSERT(length >= 0);
  // Two slots, so that the one handed out is free whatever the type stored into it.
  incMaxLocalsCount(2);
  return myMaxLocals - 1;
}

AttributeInfo* CodeAttribute::findAttribute(const KString& name) const {
  for (int i = 0; i < myAttributes.size(); i++) {
    if (myAttributes[i]->hasName(*myConstantPool, name)) {
      return myAttributes[i];
    }
  }
  return nullptr;
}

LocalVariableTableAttribute* CodeAttribute::getLocalVariableTable() const {
  return static_cast<LocalVariableTableAttribute*>(findAttribute(LocalVariableTableAttribute::NAME));
}

LocalVariableTypeTableAttribute* CodeAttribute::getLocalVariableTypeTable() const {
  return static_cast<LocalVariableTypeTableAttribute*>(findAttribute(LocalVariableTypeTableAttribute::NAME));
}

StackMapTableAttribute* CodeAttribute::getStackMapTable() const {
  return static_cast<StackMapTableAttribute*>(findAttribute(StackMapTableAttribute::NAME));
}

void CodeAttribute::dropStackMaps() {
  for (int i = myAttributes.size() - 1; i >= 0; i--) {
    AttributeInfo* attribute = myAttributes[i];
    if (attribute->hasName(*myConstantPool, StackMapTableAttribute::NAME)) {
      // Each one dropped takes its head and its body out of this attribute's length.
      setAttributeLength(myAttributeLength - 6 - attribute->getAttributeLength());
      myAttributes.removeRange(i, i + 1);
      delete attribute;
    }
  }
}

void CodeAttribute::setStackMapTable(const unsigned char* body, int length) {
  StackMapTableAttribute* table = getStackMapTable();
  KASSERT_TEXT(table != nullptr, "table");
  int oldLength = table->getAttributeLength();
  table->setBody(body, length);
  setAttributeLength(myAttributeLength + length - oldLength);
}

// ---------------------------------------------------------------- moving offsets

void CodeAttribute::shiftExceptionTableAndLineNumbers(int addedCodeLength) {
  KASSERT(addedCodeLength >= 0);
  for (int i = 0; i < myExceptionTable.size(); i++) {
    ExceptionTableElement* currentException = myExceptionTable[i];
    KASSERT(currentException);
    currentException->myStartPc += addedCodeLength;
    currentException->myEndPc += addedCodeLength;
    currentException->myHandlerPc += addedCodeLength;
  }
  for (int i = 0; i < myAttributes.size(); i++) {
    if (myAttributes[i]->hasName(*myConstantPool, LineNumberTableAttribute::NAME)) {
      static_cast<LineNumberTableAttribute*>(myAttributes[i])->shiftLineNumbers(addedCodeLength);
    }
  }
}

void CodeAttribute::shiftExceptionTableAndLineNumbers(const int* indices, int oldCodeLength) {
  KASSERT(indices);
  for (int i = 0; i < myExceptionTable.size(); i++) {
    ExceptionTableElement* currentException = myExceptionTable[i];
    KASSERT(currentException);
    currentException->myStartPc = indices[currentException->myStartPc];
    // The end is exclusive: at the old code's end there is no old byte to look up.
    currentException->myEndPc =
        currentException->myEndPc == oldCodeLength ? myCodeLength : indices[currentException->myEndPc];
    currentException->myHandlerPc = indices[currentException->myHandlerPc];
  }
  for (int i = 0; i < myAttributes.size(); i++) {
    if (myAttributes[i]->hasName(*myConstantPool, LineNumberTableAttribute::NAME)) {
      static_cast<LineNumberTableAttribute*>(myAttributes[i])->shiftLineNumbers(indices);
    }
  }
}
