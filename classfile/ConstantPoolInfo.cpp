#include "classfile/ConstantPoolInfo.h"

#include <stdio.h>

#include <new>

#include "classfile/ClassFormatError.h"

// ---------------------------------------------------------------- block cache

namespace {

// Every pool entry fits a block of this size.
const size_t BLOCK_SIZE = 32;
#if defined(__SANITIZE_ADDRESS__)
#define KJP_NO_BLOCK_CACHE 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KJP_NO_BLOCK_CACHE 1
#endif
#endif

#ifndef KJP_NO_BLOCK_CACHE
// At most this many free blocks stay cached on a thread (512 KB), enough for the pool of
// any ordinary class; beyond it blocks go back to the heap.
const int MAX_CACHED_BLOCKS = 16384;

struct FreeBlock {
  FreeBlock* myNext;
};

struct BlockCache {
  FreeBlock* myHead = nullptr;
  int myCount = 0;

  ~BlockCache() {
    while (myHead != nullptr) {
      FreeBlock* next = myHead->myNext;
      ::operator delete(myHead);
      myHead = next;
    }
    // Entries deleted on this thread after this point go straight back to the heap.
    myCount = MAX_CACHED_BLOCKS;
  }
};

thread_local BlockCache ourBlockCache;
#endif

}  // namespace

void* ConstantPoolInfo::operator new(size_t size) {
  KASSERT(size <= BLOCK_SIZE);
#ifndef KJP_NO_BLOCK_CACHE
  BlockCache& cache = ourBlockCache;
  if (cache.myHead != nullptr) {
    FreeBlock* block = cache.myHead;
    cache.myHead = block->myNext;
    cache.myCount--;
    return block;
  }
#endif
  return ::operator new(BLOCK_SIZE);
}

void ConstantPoolInfo::operator delete(void* block) {
  if (block == nullptr) {
    return;
  }
#ifndef KJP_NO_BLOCK_CACHE
  BlockCache& cache = ourBlockCache;
  if (cache.myCount < MAX_CACHED_BLOCKS) {
    FreeBlock* free = static_cast<FreeBlock*>(block);
    free->myNext = cache.myHead;
    cache.myHead = free;
    cache.myCount++;
    return;
  }
#endif
  ::operator delete(block);
}

static_assert(sizeof(ConstantUtf8Info) <= BLOCK_SIZE, "pool entries fit a block");
static_assert(sizeof(ConstantLongInfo) <= BLOCK_SIZE, "pool entries fit a block");
static_assert(sizeof(ConstantRefInfo) <= BLOCK_SIZE, "pool entries fit a block");
static_assert(sizeof(ConstantNameAndTypeInfo) <= BLOCK_SIZE, "pool entries fit a block");
static_assert(sizeof(ConstantDynamicInfo) <= BLOCK_SIZE, "pool entries fit a block");
static_assert(sizeof(ConstantMethodHandleInfo) <= BLOCK_SIZE, "pool entries fit a block");

namespace {

// A pool index read from a class must name an entry; 0 never does.
int readPoolIndex(DataInput& in, const char* what) {
  int index = in.readUnsignedShort();
  if (index <= 0) {
    throw ClassFormatError("constant pool entry with %s 0", what);
  }
  return index;
}

const ConstantUtf8Info* utf8At(const ConstantPool& pool, int index) {
  const ConstantPoolInfo* info = pool[index];
  KASSERT_TEXT(info != nullptr && ConstantUtf8Info::TAG == info->getTag(), "ConstantUtf8Info::TAG == nameInfo->getTag()");
  return static_cast<const ConstantUtf8Info*>(info);
}

}  // namespace

// ---------------------------------------------------------------- Utf8

ConstantUtf8Info::ConstantUtf8Info(DataInput& in) : ConstantUtf8Info(in, in.readUnsignedShort()) {}

ConstantUtf8Info::ConstantUtf8Info(DataInput& in, int length) : myValue(in.readString(length)), myLength(length) {}

ConstantUtf8Info::ConstantUtf8Info(const KString& value) : myValue(value), myLength(value.length()) {}

void ConstantUtf8Info::writeTo(DataOutput& out) const {
  if (myLength > 0xFFFF) {
    // Only a string the agent made can be this long; its length would not fit the format.
    throw ClassFormatError("a string constant of %d bytes is too long", myLength);
  }
  out.writeUnsignedByte(TAG);
  out.writeUnsignedShort(static_cast<unsigned int>(myLength));
  out.write(reinterpret_cast<const unsigned char*>(myValue.get()), myLength);
}

bool ConstantUtf8Info::equals(const KString& value) const {
  // Both texts are terminated and free of inner zero bytes, so the byte-wise comparison up
  // to the terminator is the whole comparison.
  return strcmp(myValue.get(), value.get()) == 0;
}

// ---------------------------------------------------------------- numbers

void ConstantIntInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeInt(myValue);
}

void ConstantFloatInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeInt(myBits);
}

void ConstantLongInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeInt(myHighBytes);
  out.writeInt(myLowBytes);
}

void ConstantDoubleInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeInt(myHighBytes);
  out.writeInt(myLowBytes);
}

// ---------------------------------------------------------------- Class

ConstantClassInfo::ConstantClassInfo(DataInput& in) : myNameIndex(readPoolIndex(in, "name index")) {}

ConstantClassInfo::ConstantClassInfo(int nameIndex) : myNameIndex(nameIndex) { KASSERT(nameIndex > 0); }

void ConstantClassInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeUnsignedShort(static_cast<unsigned int>(myNameIndex));
}

const KString& ConstantClassInfo::getName(const ConstantPool& pool) const { return utf8At(pool, myNameIndex)->getValue(); }

bool ConstantClassInfo::equals(int nameIndex) const {
  KASSERT(nameIndex > 0);
  return myNameIndex == nameIndex;
}

// ---------------------------------------------------------------- String

ConstantStringInfo::ConstantStringInfo(DataInput& in) : myStringIndex(readPoolIndex(in, "string index")) {}

ConstantStringInfo::ConstantStringInfo(int stringIndex) : myStringIndex(stringIndex) { KASSERT(stringIndex > 0); }

void ConstantStringInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeUnsignedShort(static_cast<unsigned int>(myStringIndex));
}

bool ConstantStringInfo::equals(int stringIndex) const {
  KASSERT(stringIndex > 0);
  return myStringIndex == stringIndex;
}

// ---------------------------------------------------------------- member references

ConstantRefInfo::ConstantRefInfo(DataInput& in) : myClassIndex(0), myNameAndTypeIndex(0) {
  myClassIndex = readPoolIndex(in, "class index");
  myNameAndTypeIndex = readPoolIndex(in, "name-and-type index");
}

ConstantRefInfo::ConstantRefInfo(int classIndex, int nameAndTypeIndex)
    : myClassIndex(classIndex), myNameAndTypeIndex(nameAndTypeIndex) {
  KASSERT(classIndex > 0);
  KASSERT(nameAndTypeIndex > 0);
}

void ConstantRefInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(getTag());
  out.writeUnsignedShort(static_cast<unsigned int>(myClassIndex));
  out.writeUnsignedShort(static_cast<unsigned int>(myNameAndTypeIndex));
}

namespace {

const ConstantNameAndTypeInfo* nameAndTypeOf(const ConstantPool& pool, int index) {
  const ConstantPoolInfo* nameAndTypeInfoTmp = pool[index];
  KASSERT(nameAndTypeInfoTmp != nullptr);
  KASSERT(ConstantNameAndTypeInfo::TAG == nameAndTypeInfoTmp->getTag());
  return static_cast<const ConstantNameAndTypeInfo*>(nameAndTypeInfoTmp);
}

}  // namespace

const char* ConstantRefInfo::getClassSignature(const ConstantPool& pool) const {
  const ConstantPoolInfo* classInfoTmp = pool[myClassIndex];
  KASSERT(classInfoTmp != nullptr);
  KASSERT(ConstantClassInfo::TAG == classInfoTmp->getTag());
  return static_cast<const ConstantClassInfo*>(classInfoTmp)->getName(pool).get();
}

const char* ConstantRefInfo::getMethodName(const ConstantPool& pool) const {
  return nameAndTypeOf(pool, myNameAndTypeIndex)->getName(pool).get();
}

const char* ConstantRefInfo::getMethodSignature(const ConstantPool& pool) const {
  return nameAndTypeOf(pool, myNameAndTypeIndex)->getDescriptor(pool).get();
}

KString ConstantRefInfo::getMethodUIDString(const ConstantPool& pool) const {
  KString result(getClassSignature(pool), "|");
  result += getMethodName(pool);
  result += "|";
  result += getMethodSignature(pool);
  return result;
}

bool ConstantFieldRefInfo::equals(int classIndex, int nameAndTypeIndex) const {
  KASSERT(classIndex > 0);
  KASSERT(nameAndTypeIndex > 0);
  return myClassIndex == classIndex && myNameAndTypeIndex == nameAndTypeIndex;
}

bool ConstantMethodRefInfo::equals(int classIndex, int nameAndTypeIndex) const {
  KASSERT(classIndex > 0);
  KASSERT(nameAndTypeIndex > 0);
  return myClassIndex == classIndex && myNameAndTypeIndex == nameAndTypeIndex;
}

// ---------------------------------------------------------------- NameAndType

ConstantNameAndTypeInfo::ConstantNameAndTypeInfo(DataInput& in) : myNameIndex(0), myDescriptorIndex(0) {
  myNameIndex = readPoolIndex(in, "name index");
  myDescriptorIndex = readPoolIndex(in, "descriptor index");
}

ConstantNameAndTypeInfo::ConstantNameAndTypeInfo(int nameIndex, int descriptorIndex)
    : myNameIndex(nameIndex), myDescriptorIndex(descriptorIndex) {
  KASSERT(nameIndex > 0);
  KASSERT(descriptorIndex > 0);
}

void ConstantNameAndTypeInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeUnsignedShort(static_cast<unsigned int>(myNameIndex));
  out.writeUnsignedShort(static_cast<unsigned int>(myDescriptorIndex));
}

const KString& ConstantNameAndTypeInfo::getName(const ConstantPool& pool) const {
  return utf8At(pool, myNameIndex)->getValue();
}

const KString& ConstantNameAndTypeInfo::getDescriptor(const ConstantPool& pool) const {
  const ConstantPoolInfo* descriptorInfo = pool[myDescriptorIndex];
  KASSERT(descriptorInfo != nullptr);
  KASSERT(ConstantUtf8Info::TAG == descriptorInfo->getTag());
  return static_cast<const ConstantUtf8Info*>(descriptorInfo)->getValue();
}

bool ConstantNameAndTypeInfo::equals(int nameIndex, int descriptorIndex) const {
  KASSERT(nameIndex > 0);
  KASSERT(descriptorIndex > 0);
  return myNameIndex == nameIndex && myDescriptorIndex == descriptorIndex;
}

// ---------------------------------------------------------------- carried entries

void ConstantMethodHandleInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeUnsignedByte(myReferenceKind);
  out.writeUnsignedShort(static_cast<unsigned int>(myReferenceIndex));
}

void ConstantMethodTypeInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(TAG);
  out.writeUnsignedShort(static_cast<unsigned int>(myDescriptorIndex));
}

void ConstantDynamicInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(myTag);
  out.writeUnsignedShort(static_cast<unsigned int>(myBootstrapMethodAttrIndex));
  out.writeUnsignedShort(static_cast<unsigned int>(myNameAndTypeIndex));
}

void ConstantModuleInfo::writeTo(DataOutput& out) const {
  out.writeUnsignedByte(myTag);
  out.writeUnsignedShort(static_cast<unsigned int>(myNameIndex));
}

// ---------------------------------------------------------------- reader

ConstantPoolInfo* ConstantPoolInfoReader::create(DataInput& in) {
  int tag = in.readUnsignedByte();
  switch (tag) {
    case ConstantUtf8Info::TAG: return new ConstantUtf8Info(in);
    case ConstantIntInfo::TAG: return new ConstantIntInfo(in);
    case ConstantFloatInfo::TAG: return new ConstantFloatInfo(in);
    case ConstantLongInfo::TAG: return new ConstantLongInfo(in);
    case ConstantDoubleInfo::TAG: return new ConstantDoubleInfo(in);
    case ConstantClassInfo::TAG: return new ConstantClassInfo(in);
    case ConstantStringInfo::TAG: return new ConstantStringInfo(in);
    case ConstantFieldRefInfo::TAG: return new ConstantFieldRefInfo(in);
    case ConstantMethodRefInfo::TAG: return new ConstantMethodRefInfo(in);
    case ConstantInterfaceMethodRefInfo::TAG: return new ConstantInterfaceMethodRefInfo(in);
    case ConstantNameAndTypeInfo::TAG: return new ConstantNameAndTypeInfo(in);
    case ConstantMethodHandleInfo::TAG: return new ConstantMethodHandleInfo(in);
    case ConstantMethodTypeInfo::TAG: return new ConstantMethodTypeInfo(in);
    case ConstantDynamicInfo::TAG: return new ConstantDynamicInfo(in);
    case ConstantInvokeDynamicInfo::TAG: return new ConstantInvokeDynamicInfo(in);
    case ConstantModuleInfo::TAG: return new ConstantModuleInfo(in);
    case ConstantPackageInfo::TAG: return new ConstantPackageInfo(in);
    default: throw ClassFormatError("unknown constant pool tag %d", tag);
  }
}
