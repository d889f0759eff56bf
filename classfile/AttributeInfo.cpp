#include "classfile/AttributeInfo.h"

#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"
#include "classfile/LineNumberTableAttribute.h"
#include "classfile/LocalVariableTableAttribute.h"
#include "classfile/StackMapTableAttribute.h"

const KString ConstantValueAttribute::NAME("ConstantValue");
const KString DeprecatedAttribute::NAME("Deprecated");
const KString ExceptionsAttribute::NAME("Exceptions");
const KString InnerClassesAttribute::NAME("InnerClasses");
const KString SourceFileAttribute::NAME("SourceFile");
const KString SyntheticAttribute::NAME("Synthetic");

// ---------------------------------------------------------------- base

AttributeInfo::AttributeInfo(int attributeNameIndex, int attributeLength)
    : myAttributeNameIndex(attributeNameIndex), myAttributeLength(attributeLength) {
  KASSERT(attributeNameIndex > 0);
  KASSERT(attributeLength >= 0);
}

void AttributeInfo::write(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myAttributeNameIndex));
  out.writeInt(myAttributeLength);
  int start = out.size();
  writeTo(out);
  int written = out.size() - start;
  if (written != myAttributeLength) {
    throw ClassFormatError("an attribute body of %d bytes does not match its length %d", written, myAttributeLength);
  }
}

void AttributeInfo::writeAll(const KVector<AttributeInfo*>& attributes, DataOutput& out) {
  out.writeUnsignedShort(static_cast<unsigned int>(attributes.size()));
  for (int i = 0; i < attributes.size(); i++) {
    attributes[i]->write(out);
  }
}

void AttributeInfo::setAttributeLength(int attributeLength) {
  KASSERT(attributeLength >= 0);
  myAttributeLength = attributeLength;
}

bool AttributeInfo::hasName(const ConstantPool& pool, const KString& name) const {
  const ConstantPoolInfo* info = pool[myAttributeNameIndex];
  return info != nullptr && info->getTag() == ConstantUtf8Info::TAG && static_cast<const ConstantUtf8Info*>(info)->equals(name);
}

// ---------------------------------------------------------------- reader

namespace {

// Names are compared by length first: most attributes are told apart without touching a
// byte of their name. The order of the tests follows the order in which names are tried.
#define KJP_NAME_IS(name, literal) name->equals(literal, static_cast<int>(sizeof(literal) - 1))

AttributeInfo* createAttribute(DataInput& in, ConstantPool& pool, int nameIndex, int length, int codeLength) {
  const ConstantUtf8Info* name = static_cast<const ConstantUtf8Info*>(pool[nameIndex]);
  bool inCode = codeLength >= 0;
  // The debug tables and the stack map only mean something inside a Code attribute, and
  // a Code attribute only outside one; elsewhere they are carried like any unknown
  // attribute, which also keeps a malformed class from nesting Code in Code without end.
  if (!inCode && KJP_NAME_IS(name, "Code")) {
    return new CodeAttribute(in, pool, nameIndex, length);
  }
  if (!inCode) {
    if (KJP_NAME_IS(name, "ConstantValue")) {
      return new ConstantValueAttribute(in, nameIndex, length);
    }
    if (KJP_NAME_IS(name, "Deprecated")) {
      return new DeprecatedAttribute(nameIndex, length);
    }
    if (KJP_NAME_IS(name, "Exceptions")) {
      return new ExceptionsAttribute(in, nameIndex, length);
    }
    if (KJP_NAME_IS(name, "InnerClasses")) {
      return new InnerClassesAttribute(in, nameIndex, length);
    }
  }
  if (inCode) {
    if (KJP_NAME_IS(name, "LineNumberTable")) {
      return new LineNumberTableAttribute(in, nameIndex, length, codeLength);
    }
    if (KJP_NAME_IS(name, "LocalVariableTable")) {
      return new LocalVariableTableAttribute(in, pool, nameIndex, length, codeLength);
    }
  }
  if (!inCode) {
    if (KJP_NAME_IS(name, "SourceFile")) {
      return new SourceFileAttribute(in, nameIndex, length);
    }
    if (KJP_NAME_IS(name, "Synthetic")) {
      return new SyntheticAttribute(nameIndex, length);
    }
  }
  if (inCode) {
    if (KJP_NAME_IS(name, "LocalVariableTypeTable")) {
      return new LocalVariableTypeTableAttribute(in, pool, nameIndex, length, codeLength);
    }
    if (KJP_NAME_IS(name, "StackMapTable")) {
      return new StackMapTableAttribute(in, nameIndex, length);
    }
  }
  return new UnknownAttribute(in, nameIndex, length);
}

#undef KJP_NAME_IS

AttributeInfo* readAttribute(DataInput& in, ConstantPool& pool, int codeLength) {
  int nameIndex = in.readUnsignedShort();
  int length = in.readInt();
  if (nameIndex <= 0 || nameIndex >= pool.size() || pool[nameIndex] == nullptr ||
      pool[nameIndex]->getTag() != ConstantUtf8Info::TAG) {
    throw ClassFormatError("an attribute name index %d is not a string constant", nameIndex);
  }
  if (length < 0) {
    throw ClassFormatError("an attribute length of %u bytes", static_cast<unsigned int>(length));
  }
  int oldLimit = in.pushLimit(length);
  int end = in.getPosition() + length;
  AttributeInfo* attribute = createAttribute(in, pool, nameIndex, length, codeLength);
  if (in.getPosition() != end) {
    int consumed = length - (end - in.getPosition());
    delete attribute;
    throw ClassFormatError("attribute %s uses %d of its %d bytes",
                           static_cast<const ConstantUtf8Info*>(pool[nameIndex])->getValue().get(), consumed, length);
  }
  in.popLimit(oldLimit);
  return attribute;
}

}  // namespace

AttributeInfo* AttributeInfoReader::create(DataInput& in, ConstantPool& pool) { return readAttribute(in, pool, -1); }

void AttributeInfoReader::readAll(DataInput& in, ConstantPool& pool, KVector<AttributeInfo*>& out) {
  jint first = out.size();
  try {
    int attributeCount = in.readUnsignedShort();
    for (int i = 0; i < attributeCount; i++) {
      out.push(create(in, pool));
    }
  } catch (...) {
    for (jint i = first; i < out.size(); i++) {
      delete out[i];
    }
    out.removeRange(first, out.size());
    throw;
  }
}

AttributeInfo* AttributeInfoReader::createInCode(DataInput& in, ConstantPool& pool, int codeLength) {
  KASSERT(codeLength > 0);
  return readAttribute(in, pool, codeLength);
}

// ---------------------------------------------------------------- ConstantValue

ConstantValueAttribute::ConstantValueAttribute(DataInput& in, int nameIndex, int length)
    : AttributeInfo(nameIndex, length), myConstantValueIndex(in.readUnsignedShort()) {
  if (myConstantValueIndex <= 0) {
    throw ClassFormatError("a ConstantValue attribute names constant 0");
  }
}

void ConstantValueAttribute::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myConstantValueIndex));
}

// ---------------------------------------------------------------- Exceptions

ExceptionsAttribute::ExceptionsAttribute(DataInput& in, int nameIndex, int length)
    : AttributeInfo(nameIndex, length), myExceptions(10) {
  int numberOfExceptions = in.readUnsignedShort();
  for (int i = 0; i < numberOfExceptions; i++) {
    myExceptions.push(in.readUnsignedShort());
  }
}

void ExceptionsAttribute::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myExceptions.size()));
  for (int i = 0; i < myExceptions.size(); i++) {
    out.writeUnsignedShort(static_cast<unsigned int>(myExceptions[i]));
  }
}

// ---------------------------------------------------------------- InnerClasses

InnerClassesAttribute::InnerClassesAttribute(DataInput& in, int nameIndex, int length)
    : AttributeInfo(nameIndex, length), myClasses(10) {
  try {
    int numberOfClasses = in.readUnsignedShort();
    for (int i = 0; i < numberOfClasses; i++) {
      Classes* entry = new Classes();
      myClasses.push(entry);
      entry->myInnerClassInfoIndex = in.readUnsignedShort();
      entry->myOuterClassInfoIndex = in.readUnsignedShort();
      entry->myInnerClassNameIndex = in.readUnsignedShort();
      entry->myInnerClassAccessFlags = in.readUnsignedShort();
    }
  } catch (...) {
    for (int i = 0; i < myClasses.size(); i++) {
      delete myClasses[i];
    }
    throw;
  }
}

InnerClassesAttribute::~InnerClassesAttribute() {
  for (int i = 0; i < myClasses.size(); i++) {
    delete myClasses[i];
  }
}

void InnerClassesAttribute::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(myClasses.size()));
  for (int i = 0; i < myClasses.size(); i++) {
    const Classes* entry = myClasses[i];
    out.writeUnsignedShort(static_cast<unsigned int>(entry->myInnerClassInfoIndex));
    out.writeUnsignedShort(static_cast<unsigned int>(entry->myOuterClassInfoIndex));
    out.writeUnsignedShort(static_cast<unsigned int>(entry->myInnerClassNameIndex));
    out.writeUnsignedShort(static_cast<unsigned int>(entry->myInnerClassAccessFlags));
  }
}

// ---------------------------------------------------------------- SourceFile

SourceFileAttribute::SourceFileAttribute(DataInput& in, int nameIndex, int length)
    : AttributeInfo(nameIndex, length), mySourceFileIndex(in.readUnsignedShort()) {}

void SourceFileAttribute::writeTo(DataOutput& out) const {
  out.writeUnsignedShort(static_cast<unsigned int>(mySourceFileIndex));
}

// ---------------------------------------------------------------- Unknown

UnknownAttribute::UnknownAttribute(DataInput& in, int nameIndex, int length)
    : AttributeInfo(nameIndex, length), myInfo(nullptr) {
  if (length > 0) {
    const unsigned char* body = in.skip(length);
    myInfo = new unsigned char[length];
    memcpy(myInfo, body, static_cast<size_t>(length));
  }
}

void UnknownAttribute::writeTo(DataOutput& out) const {
  if (myAttributeLength > 0) {
    out.write(myInfo, myAttributeLength);
  }
}
