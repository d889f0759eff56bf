#include <gtest/gtest.h>

#include "agent/JVMTI_Agent.h"
#include "classfile/MethodInfo.h"
#include "instrument/IntrinsicCandidates.h"
#include "tests/unit/InstrumentTestSupport.h"

using namespace kjptest;

namespace {

// RuntimeVisibleAnnotations with one annotation of 'type' and no elements.
Bytes annotations(ClassBytesBuilder& b, const std::vector<Bytes>& each) {
  Bytes body;
  put2(body, static_cast<uint32_t>(each.size()));
  for (const Bytes& a : each) {
    append(body, a);
  }
  return ClassBytesBuilder::attribute(b.utf8("RuntimeVisibleAnnotations"), body);
}

Bytes plainAnnotation(ClassBytesBuilder& b, const std::string& type) {
  Bytes a;
  put2(a, static_cast<uint32_t>(b.utf8(type)));
  put2(a, 0);
  return a;
}

// An annotation with elements of every nesting kind in front of the mark, so that finding the
// mark depends on walking them right: @Deprecated(since="9", forRemoval=true) with an array
// of an enum and a nested annotation.
Bytes annotationWithElements(ClassBytesBuilder& b) {
  Bytes a;
  put2(a, static_cast<uint32_t>(b.utf8("Ljava/lang/Deprecated;")));
  put2(a, 3);
  put2(a, static_cast<uint32_t>(b.utf8("since")));
  put1(a, 's');
  put2(a, static_cast<uint32_t>(b.utf8("9")));
  put2(a, static_cast<uint32_t>(b.utf8("forRemoval")));
  put1(a, 'Z');
  put2(a, static_cast<uint32_t>(b.utf8("I")));
  put2(a, static_cast<uint32_t>(b.utf8("values")));
  put1(a, '[');
  put2(a, 2);
  put1(a, 'e');
  put2(a, static_cast<uint32_t>(b.utf8("Lkjptest/E;")));
  put2(a, static_cast<uint32_t>(b.utf8("A")));
  put1(a, '@');
  append(a, plainAnnotation(b, "Lkjptest/Inner;"));
  return a;
}

TEST(IntrinsicCandidates, NativesMarkedAsIntrinsicsStayNativeWhileOthersAreWrapped) {
  bool wasMustang = ourIsMustang;
  ourIsMustang = true;
  ClassBytesBuilder b;
  b.major = 61;
  Bytes current = annotations(b, {plainAnnotation(b, "Ljdk/internal/vm/annotation/IntrinsicCandidate;")});
  Bytes older = annotations(b, {annotationWithElements(b), plainAnnotation(b, "Ljdk/internal/HotSpotIntrinsicCandidate;")});
  Bytes other = annotations(b, {annotationWithElements(b)});
  b.method(0x0109, "getLength", "(Ljava/lang/Object;)I", {current});
  b.method(0x0109, "newArray", "(Ljava/lang/Class;I)Ljava/lang/Object;", {older});
  b.method(0x0109, "plain", "(I)I", {other});
  Bytes cls = b.build("kjptest/Arrays");
  TestMethodIDProvider provider;
  auto input = toKVector(cls);
  KVector<unsigned char> output(1024);
  ASSERT_TRUE(instrumentForTracingAllocationJ2EE(&provider, "kjptest/Arrays", *input, output, false, true, false));
  ourIsMustang = wasMustang;
  ParsedClass parsed = parse(toBytes(output));
  ClassFile& cf = *parsed.model;
  EXPECT_EQ(nullptr, cf.findMethod(KString("getLength"), KString("(Ljava/lang/Object;)I"))->getCodeAttribute());
  EXPECT_EQ(nullptr, cf.findMethod(KString("newArray"), KString("(Ljava/lang/Class;I)Ljava/lang/Object;"))->getCodeAttribute());
  EXPECT_EQ(nullptr, cf.findMethod(KString("$$KJP$$getLength"), KString("(Ljava/lang/Object;)I")));
  EXPECT_NE(nullptr, cf.findMethod(KString("plain"), KString("(I)I"))->getCodeAttribute());
  EXPECT_NE(nullptr, cf.findMethod(KString("$$KJP$$plain"), KString("(I)I")));
}

TEST(IntrinsicCandidates, TruncatedOrNonsenseAnnotationsCountAsNoMark) {
  ClassBytesBuilder b;
  b.major = 61;
  int type = b.utf8("Ljdk/internal/vm/annotation/IntrinsicCandidate;");
  // Claims two annotations, the first with an element of an unknown tag; the mark behind it
  // must not be trusted.
  Bytes broken;
  put2(broken, 2);
  put2(broken, static_cast<uint32_t>(b.utf8("Lkjptest/A;")));
  put2(broken, 1);
  put2(broken, static_cast<uint32_t>(b.utf8("v")));
  put1(broken, '?');
  put2(broken, static_cast<uint32_t>(type));
  put2(broken, 0);
  // Cut short in the middle of the count.
  Bytes truncated = {0x00};
  b.method(0x0109, "broken", "()V", {ClassBytesBuilder::attribute(b.utf8("RuntimeVisibleAnnotations"), broken)});
  b.method(0x0109, "truncated", "()V", {ClassBytesBuilder::attribute(b.utf8("RuntimeVisibleAnnotations"), truncated)});
  ParsedClass parsed = parse(b.build("kjptest/Odd"));
  ClassFile& cf = *parsed.model;
  EXPECT_FALSE(IntrinsicCandidates::isIntrinsicCandidate(cf, *cf.findMethod(KString("broken"), KString("()V"))));
  EXPECT_FALSE(IntrinsicCandidates::isIntrinsicCandidate(cf, *cf.findMethod(KString("truncated"), KString("()V"))));
}

}  // namespace
