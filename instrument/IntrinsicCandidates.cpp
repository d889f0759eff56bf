#include "instrument/IntrinsicCandidates.h"

#include "agent/KString.h"
#include "classfile/AttributeInfo.h"
#include "classfile/ClassFile.h"
#include "classfile/ConstantPoolInfo.h"
#include "classfile/MethodInfo.h"

namespace {

const KString RUNTIME_VISIBLE_ANNOTATIONS("RuntimeVisibleAnnotations");
const char* const INTRINSIC_MARKS[] = {
    "Ljdk/internal/vm/annotation/IntrinsicCandidate;",
    "Ljdk/internal/HotSpotIntrinsicCandidate;",
};

// A bounded reader over an attribute body: every read past the end leaves it failed, so a
// malformed body ends the walk instead of reading beyond it.
class BodyReader {
 public:
  BodyReader(const unsigned char* data, int length) : myData(data), myLength(length), myPosition(0), myFailed(false) {}

  int u1() {
    if (myFailed || myPosition + 1 > myLength) {
      myFailed = true;
      return 0;
    }
    return myData[myPosition++];
  }

  int u2() {
    int high = u1();
    return (high << 8) | u1();
  }

  bool failed() const { return myFailed; }

 private:
  const unsigned char* myData;
  int myLength;
  int myPosition;
  bool myFailed;
};

void skipAnnotation(BodyReader& in, int depth);

// Annotations nest through element values; a depth limit keeps hostile input from
// exhausting the stack.
void skipElementValue(BodyReader& in, int depth) {
  if (depth > 32) {
    in.u1();
    in.u1();
    return;
  }
  int tag = in.u1();
  switch (tag) {
    case 'B': case 'C': case 'D': case 'F': case 'I': case 'J': case 'S': case 'Z': case 's': case 'c':
      in.u2();
      break;
    case 'e':
      in.u2();
      in.u2();
      break;
    case '@':
      skipAnnotation(in, depth + 1);
      break;
    case '[': {
      int count = in.u2();
      for (int i = 0; i < count && !in.failed(); i++) {
        skipElementValue(in, depth + 1);
      }
      break;
    }
    default:
      // An unknown tag: nothing after it can be trusted.
      while (!in.failed()) {
        in.u1();
      }
  }
}

void skipAnnotation(BodyReader& in, int depth) {
  in.u2();
  int pairs = in.u2();
  for (int i = 0; i < pairs && !in.failed(); i++) {
    in.u2();
    skipElementValue(in, depth);
  }
}

bool isIntrinsicMark(const ConstantPool& pool, int typeIndex) {
  if (!isUtf8(pool, typeIndex)) {
    return false;
  }
  const KString& type = static_cast<const ConstantUtf8Info*>(pool[typeIndex])->getValue();
  for (const char* mark : INTRINSIC_MARKS) {
    if (type == mark) {
      return true;
    }
  }
  return false;
}

}  // namespace

bool IntrinsicCandidates::isIntrinsicCandidate(const ClassFile& classFile, const MethodInfo& method) {
  const ConstantPool& pool = classFile.getConstantPool();
  const KVector<AttributeInfo*>& attributes = method.getAttributes();
  for (int i = 0; i < attributes.size(); i++) {
    const AttributeInfo* attribute = attributes[i];
    if (!attribute->hasName(pool, RUNTIME_VISIBLE_ANNOTATIONS)) {
      continue;
    }
    const UnknownAttribute* body = dynamic_cast<const UnknownAttribute*>(attribute);
    if (body == nullptr || body->getInfo() == nullptr) {
      continue;
    }
    BodyReader in(body->getInfo(), body->getAttributeLength());
    int count = in.u2();
    for (int a = 0; a < count && !in.failed(); a++) {
      int typeIndex = in.u2();
      if (in.failed()) {
        break;
      }
      if (isIntrinsicMark(pool, typeIndex)) {
        return true;
      }
      int pairs = in.u2();
      for (int p = 0; p < pairs && !in.failed(); p++) {
        in.u2();
        skipElementValue(in, 0);
      }
    }
  }
  return false;
}
