#ifndef KJP_TESTS_CLASSBYTESBUILDER_H
#define KJP_TESTS_CLASSBYTESBUILDER_H

// Builds small class files byte by byte for the class-file model's tests: exact control
// over every count and length, so that both well-formed edge cases and broken classes can
// be made without a compiler.

#include <stdint.h>

#include <string>
#include <vector>

namespace kjptest {

typedef std::vector<uint8_t> Bytes;

inline void put1(Bytes& b, uint32_t v) { b.push_back(static_cast<uint8_t>(v)); }
inline void put2(Bytes& b, uint32_t v) {
  put1(b, v >> 8);
  put1(b, v);
}
inline void put4(Bytes& b, uint32_t v) {
  put2(b, v >> 16);
  put2(b, v & 0xFFFF);
}
inline void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }

class ClassBytesBuilder {
 public:
  int major = 52;
  int accessFlags = 0x21;

  int utf8(const std::string& s) {
    Bytes e;
    put1(e, 1);
    put2(e, static_cast<uint32_t>(s.size()));
    e.insert(e.end(), s.begin(), s.end());
    return raw(e);
  }
  int classRef(const std::string& name) {
    int n = utf8(name);
    Bytes e;
    put1(e, 7);
    put2(e, n);
    return raw(e);
  }
  // An entry given as its tag and body; a long or double takes two slots.
  int raw(const Bytes& entry, int slots = 1) {
    append(myPool, entry);
    int index = myNextIndex;
    myNextIndex += slots;
    return index;
  }

  static Bytes attribute(int nameIndex, const Bytes& body) {
    Bytes a;
    put2(a, nameIndex);
    put4(a, static_cast<uint32_t>(body.size()));
    append(a, body);
    return a;
  }

  struct Handler {
    int start, end, handler, catchType;
  };

  // The body of a Code attribute; 'attributes' are complete nested attributes.
  static Bytes codeBody(int maxStack, int maxLocals, const Bytes& code, const std::vector<Handler>& handlers = {},
                        const std::vector<Bytes>& attributes = {}) {
    Bytes b;
    put2(b, maxStack);
    put2(b, maxLocals);
    put4(b, static_cast<uint32_t>(code.size()));
    append(b, code);
    put2(b, static_cast<uint32_t>(handlers.size()));
    for (const Handler& h : handlers) {
      put2(b, h.start);
      put2(b, h.end);
      put2(b, h.handler);
      put2(b, h.catchType);
    }
    put2(b, static_cast<uint32_t>(attributes.size()));
    for (const Bytes& a : attributes) append(b, a);
    return b;
  }

  void method(int access, const std::string& name, const std::string& descriptor, const std::vector<Bytes>& attributes) {
    int n = utf8(name);
    int d = utf8(descriptor);
    put2(myMethods, access);
    put2(myMethods, n);
    put2(myMethods, d);
    put2(myMethods, static_cast<uint32_t>(attributes.size()));
    for (const Bytes& a : attributes) append(myMethods, a);
    myMethodCount++;
  }

  void classAttribute(const Bytes& attribute) {
    append(myAttributes, attribute);
    myAttributeCount++;
  }

  Bytes build(const std::string& thisName = "kjptest/Built", const std::string& superName = "java/lang/Object") {
    int thisClass = classRef(thisName);
    int superClass = superName.empty() ? 0 : classRef(superName);
    Bytes b;
    put4(b, 0xCAFEBABE);
    put2(b, 0);
    put2(b, major);
    put2(b, myNextIndex);
    append(b, myPool);
    put2(b, accessFlags);
    put2(b, thisClass);
    put2(b, superClass);
    put2(b, 0);
    put2(b, 0);
    put2(b, myMethodCount);
    append(b, myMethods);
    put2(b, myAttributeCount);
    append(b, myAttributes);
    return b;
  }

 private:
  Bytes myPool;
  int myNextIndex = 1;
  Bytes myMethods;
  int myMethodCount = 0;
  Bytes myAttributes;
  int myAttributeCount = 0;
};

}  // namespace kjptest

#endif
