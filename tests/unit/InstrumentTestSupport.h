#ifndef KJP_TESTS_INSTRUMENTTESTSUPPORT_H
#define KJP_TESTS_INSTRUMENTTESTSUPPORT_H

// One-method classes put through instrumentForTracingAllocationJ2EE, with a method
// numbering that needs no database.

#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "classfile/ClassFile.h"
#include "classfile/CodeAttribute.h"
#include "instrument/MethodIDProvider.h"
#include "instrument/TracingInstrumentation.h"
#include "tests/unit/ClassBytesBuilder.h"
#include "tests/unit/ClassFileTestSupport.h"

namespace kjptest {

// The method "m" gets 0x00020003 (low half 3, high half 2); every other method the next
// number from 100 on, the same for the same name.
class TestMethodIDProvider : public MethodIDProvider {
 public:
  static constexpr jint M_INDEX = 0x00020003;
  jint getMethodID(const char* className, const char* methodName, const char* descriptor) const override {
    (void)descriptor;
    if (strcmp(methodName, "m") == 0) return M_INDEX;
    std::string key = std::string(className) + "." + methodName;
    auto it = myIndices.find(key);
    if (it != myIndices.end()) return it->second;
    jint index = 100 + static_cast<jint>(myIndices.size());
    myIndices[key] = index;
    return index;
  }
  void addMethodFlags(jint methodIndex, jint flags) const override { myFlags[methodIndex] |= flags; }
  mutable std::map<std::string, jint> myIndices;
  mutable std::map<jint, jint> myFlags;
};

inline int methodRef(ClassBytesBuilder& b, const std::string& cls, const std::string& name, const std::string& desc,
                     int tag = 10) {
  int c = b.classRef(cls);
  int n = b.utf8(name);
  int d = b.utf8(desc);
  Bytes nat;
  put1(nat, 12);
  put2(nat, n);
  put2(nat, d);
  int natIndex = b.raw(nat);
  Bytes ref;
  put1(ref, tag);
  put2(ref, c);
  put2(ref, natIndex);
  return b.raw(ref);
}

struct Instrumented {
  bool ok = false;
  ParsedClass parsed;
  CodeAttribute* code = nullptr;
  int entryRef = 0, exitRef = 0, initRef = 0;
  std::vector<uint8_t> bytes() const { return std::vector<uint8_t>(code->getCode(), code->getCode() + code->getCodeLength()); }
};

inline Instrumented instrument(const Bytes& classBytes, const TestMethodIDProvider& provider, bool allocations,
                               bool tracing, const std::string& descriptor, const std::string& name = "m") {
  Instrumented result;
  auto input = toKVector(classBytes);
  KVector<unsigned char> output(1024);
  result.ok = instrumentForTracingAllocationJ2EE(&provider, "kjptest/Built", *input, output, allocations, tracing, false);
  if (!result.ok) return result;
  result.parsed = parse(toBytes(output));
  ClassFile& cf = *result.parsed.model;
  result.code = cf.findMethod(KString(name.c_str()), KString(descriptor.c_str()))->getCodeAttribute();
  result.entryRef = cf.findOrCreateMethodRef(KString("com/kestrix/runtime/Callback"), KString("kjpMethodEntry"), KString("(SS)V"));
  result.exitRef = cf.findOrCreateMethodRef(KString("com/kestrix/runtime/Callback"), KString("kjpMethodExit"), KString("(SS)V"));
  result.initRef = cf.findOrCreateMethodRef(KString("com/kestrix/runtime/Callback"), KString("kjpInit"), KString("(Ljava/lang/Object;I)I"));
  return result;
}

// A class "kjptest/Built" with the one static method m.
inline Bytes oneMethodClass(ClassBytesBuilder& b, const Bytes& code, const std::string& descriptor, int maxStack,
                            int maxLocals, const std::vector<ClassBytesBuilder::Handler>& handlers = {},
                            const std::vector<Bytes>& attributes = {}, int access = 0x0009) {
  int codeName = b.utf8("Code");
  b.method(access, "m", descriptor, {ClassBytesBuilder::attribute(codeName, ClassBytesBuilder::codeBody(maxStack, maxLocals, code, handlers, attributes))});
  return b.build();
}

inline void hi(Bytes& b, int v) { put2(b, static_cast<uint32_t>(v)); }

// The probes as bytes, for the expectations.
inline Bytes entryProbe(int local, int entryRef, bool withSwitch) {
  Bytes b = {0x02, 0xC4, 0x36};
  hi(b, local);
  append(b, {0x11, 0x00, 0x03, 0x11, 0x00, 0x02, 0xB8});
  hi(b, entryRef);
  if (withSwitch) append(b, {0x00, 0x00});
  return b;
}
inline Bytes exitProbe(int exitRef, bool withSwitch, jint index = TestMethodIDProvider::M_INDEX) {
  Bytes b = {0x11};
  hi(b, index & 0xFFFF);
  put1(b, 0x11);
  hi(b, (index >> 16) & 0xFFFF);
  put1(b, 0xB8);
  hi(b, exitRef);
  if (withSwitch) append(b, {0x00, 0x00, 0x00});
  return b;
}
inline Bytes initProbe(int first, int local, int initRef) {
  Bytes b = {static_cast<uint8_t>(first), 0xC4, 0x15};
  hi(b, local);
  put1(b, 0xB8);
  hi(b, initRef);
  append(b, {0xC4, 0x36});
  hi(b, local);
  return b;
}

}  // namespace kjptest

#endif
