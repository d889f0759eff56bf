#ifndef KJP_TESTS_CALLBACKCLASSTESTSUPPORT_H
#define KJP_TESTS_CALLBACKCLASSTESTSUPPORT_H

// The callback class as the build embeds it, and a look into patched versions of it: method
// bodies, stack limits and what their pool references name.

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "agent/CallbackJar.h"
#include "agent/KVector.h"
#include "classfile/ClassFile.h"
#include "classfile/CodeAttribute.h"
#include "classfile/ConstantPoolInfo.h"
#include "classfile/MethodInfo.h"

namespace callbacktest {

typedef std::vector<uint8_t> ClassBytes;

inline uint32_t zipInt(const unsigned char* p, int size) {
  uint32_t value = 0;
  for (int i = size - 1; i >= 0; i--) {
    value = (value << 8) | p[i];
  }
  return value;
}

// Callback.class out of the embedded jar, whose entries are stored uncompressed.
inline ClassBytes embeddedCallbackClass() {
  const char* wanted = "com/kestrix/runtime/Callback.class";
  const unsigned char* p = ourCallbackJarBytes;
  const unsigned char* end = ourCallbackJarBytes + ourCallbackJarBytes_length;
  while (p + 30 <= end && zipInt(p, 4) == 0x04034b50) {
    uint32_t method = zipInt(p + 8, 2);
    uint32_t size = zipInt(p + 18, 4);
    uint32_t nameLength = zipInt(p + 26, 2);
    uint32_t extraLength = zipInt(p + 28, 2);
    const unsigned char* data = p + 30 + nameLength + extraLength;
    if (nameLength == strlen(wanted) && memcmp(p + 30, wanted, nameLength) == 0) {
      EXPECT_EQ(0u, method) << "the callback jar is expected to store its entries";
      return ClassBytes(data, data + size);
    }
    p = data + size;
  }
  ADD_FAILURE() << "no Callback.class in the embedded jar";
  return ClassBytes();
}

inline void toKVector(const ClassBytes& bytes, KVector<unsigned char>& out) {
  out.clear();
  for (uint8_t b : bytes) {
    out.push(b);
  }
}

inline ClassBytes fromKVector(const KVector<unsigned char>& bytes) {
  return ClassBytes(bytes.getArray(), bytes.getArray() + bytes.size());
}

// Renames the first pool text equal to 'from' to 'to' (of the same length), so that a
// member goes missing from the class.
inline ClassBytes renameText(ClassBytes bytes, const std::string& from, const std::string& to) {
  EXPECT_EQ(from.size(), to.size());
  std::vector<uint8_t> entry = {1, static_cast<uint8_t>(from.size() >> 8), static_cast<uint8_t>(from.size())};
  entry.insert(entry.end(), from.begin(), from.end());
  auto found = std::search(bytes.begin(), bytes.end(), entry.begin(), entry.end());
  EXPECT_NE(bytes.end(), found) << from;
  if (found != bytes.end()) {
    std::copy(to.begin(), to.end(), found + 3);
  }
  return bytes;
}

// A parsed class for inspection.
class ParsedClass {
 public:
  explicit ParsedClass(const ClassBytes& bytes) : myBytes(static_cast<jint>(bytes.size() + 1)) {
    toKVector(bytes, myBytes);
    DataInput in(myBytes);
    myClass = new ClassFile(in);
  }
  ~ParsedClass() { delete myClass; }

  int majorVersion() const { return myClass->getMajorVersion(); }

  CodeAttribute* code(const char* name, const char* descriptor) const {
    MethodInfo* method = myClass->findMethod(KString(name), KString(descriptor));
    EXPECT_NE(nullptr, method) << name;
    return method == nullptr ? nullptr : method->getCodeAttribute();
  }

  std::vector<uint8_t> body(const char* name, const char* descriptor) const {
    CodeAttribute* c = code(name, descriptor);
    return c == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(c->getCode(), c->getCode() + c->getCodeLength());
  }

  int maxStack(const char* name, const char* descriptor) const { return code(name, descriptor)->getMaxStack(); }

  // "owner.name:descriptor" of the member reference at 'index'.
  std::string memberRef(int index) const {
    const KVector<ConstantPoolInfo*>& pool = myClass->getConstantPool();
    const ConstantRefInfo* ref = static_cast<const ConstantRefInfo*>(pool[index]);
    const ConstantClassInfo* owner = static_cast<const ConstantClassInfo*>(pool[ref->getClassIndex()]);
    const ConstantNameAndTypeInfo* nat = static_cast<const ConstantNameAndTypeInfo*>(pool[ref->getNameAndTypeIndex()]);
    std::string kind = pool[index]->getTag() == ConstantFieldRefInfo::TAG    ? "field "
                       : pool[index]->getTag() == ConstantMethodRefInfo::TAG ? "method "
                                                                              : "other ";
    return kind + text(owner->getNameIndex()) + "." + text(nat->getNameIndex()) + ":" + text(nat->getDescriptorIndex());
  }

 private:
  std::string text(int index) const {
    return static_cast<const ConstantUtf8Info*>(myClass->getConstantPool()[index])->getValue().get();
  }

  KVector<unsigned char> myBytes;
  ClassFile* myClass;
};

inline int u2(const std::vector<uint8_t>& code, size_t at) { return (code.at(at) << 8) | code.at(at + 1); }

}  // namespace callbacktest

#endif
