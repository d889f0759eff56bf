#include <gtest/gtest.h>

#include "agent/JVMTI_Agent.h"
#include "classfile/LocalVariableTableAttribute.h"
#include "classfile/MethodInfo.h"
#include "classfile/StackMap.h"
#include "classfile/StackMapTableAttribute.h"
#include "db/records/MethodRecord.h"
#include "tests/unit/InstrumentTestSupport.h"

using namespace kjptest;

namespace {

// max locals 1 -> two slots reserved, the higher one is kjpIdx.
const int KJP_IDX_AFTER_ONE_LOCAL = 2;

TEST(TracingProbes, ReturnsGetExitProbesAndBranchesToAReturnLandOnItsProbe) {
  // 0 iload_0; 1 ifeq 6; 4 nop; 5 return; 6 return
  ClassBytesBuilder b;
  b.major = 49;
  Bytes cls = oneMethodClass(b, {0x1A, 0x99, 0x00, 0x05, 0x00, 0xB1, 0xB1}, "(I)V", 1, 1);
  TestMethodIDProvider provider;
  Instrumented r = instrument(cls, provider, true, true, "(I)V");
  ASSERT_TRUE(r.ok);
  Bytes expected = entryProbe(KJP_IDX_AFTER_ONE_LOCAL, r.entryRef, false);
  // The branch to the second return now reaches the exit probe in front of it (at 15).
  append(expected, {0x1A, 0x99, 0x00, 0x0E, 0x00});
  append(expected, exitProbe(r.exitRef, false));
  put1(expected, 0xB1);
  append(expected, exitProbe(r.exitRef, false));
  put1(expected, 0xB1);
  EXPECT_EQ(expected, r.bytes());
  EXPECT_EQ(1 + 2 + 2, r.code->getMaxStack());
  EXPECT_EQ(3, r.code->getMaxLocals());
}

TEST(TracingProbes, LoopBackToTheStartLandsBehindTheEntryCodeAndNoReturnMeansNoExitProbe) {
  ClassBytesBuilder b;
  b.major = 49;
  Bytes cls = oneMethodClass(b, {0x00, 0xA7, 0xFF, 0xFF}, "()V", 0, 0);
  TestMethodIDProvider provider;
  Instrumented r = instrument(cls, provider, false, true, "()V");
  ASSERT_TRUE(r.ok);
  Bytes expected = entryProbe(1, r.entryRef, false);
  append(expected, {0x00, 0xA7, 0xFF, 0xFF});
  EXPECT_EQ(expected, r.bytes());
}

TEST(TracingProbes, ExceptionRangeToTheEndCoversTheLastExitProbe) {
  // 0 nop; 1 return; 2 athrow (handler of [0, 3))
  ClassBytesBuilder b;
  b.major = 49;
  Bytes cls = oneMethodClass(b, {0x00, 0xB1, 0xBF}, "()V", 1, 0, {{0, 3, 2, 0}});
  TestMethodIDProvider provider;
  Instrumented r = instrument(cls, provider, false, true, "()V");
  ASSERT_TRUE(r.ok);
  ASSERT_EQ(14 + 1 + 9 + 1 + 1, r.code->getCodeLength());
  const CodeAttribute::ExceptionTableElement* e = r.code->getExceptionTable()[0];
  EXPECT_EQ(14, e->myStartPc);
  EXPECT_EQ(r.code->getCodeLength(), e->myEndPc);
  EXPECT_EQ(14 + 1 + 9 + 1, e->myHandlerPc);
}

TEST(TracingProbes, SwitchKeepsItsPaddingAndProbesArePaddedToFourBytes) {
  // 0 iload_0; 1 tableswitch (pad 2, 3) default 20, 0..0 -> 20; 20 return
  Bytes code = {0x1A, 0xAA, 0x00, 0x00};
  put4(code, 19);
  put4(code, 0);
  put4(code, 0);
  put4(code, 19);
  put1(code, 0xB1);
  ClassBytesBuilder b;
  b.major = 49;
  Bytes cls = oneMethodClass(b, code, "(I)V", 1, 1);
  TestMethodIDProvider provider;
  Instrumented r = instrument(cls, provider, false, true, "(I)V");
  ASSERT_TRUE(r.ok);
  Bytes expected = entryProbe(KJP_IDX_AFTER_ONE_LOCAL, r.entryRef, true);
  EXPECT_EQ(16u, expected.size());
  append(expected, Bytes(code.begin(), code.end() - 1));
  append(expected, exitProbe(r.exitRef, true));
  put1(expected, 0xB1);
  EXPECT_EQ(expected, r.bytes());
}

TEST(TracingProbes, AllocationOnlyEntryCode) {
  ClassBytesBuilder b;
  b.major = 49;
  Bytes cls = oneMethodClass(b, {0x00, 0x00, 0xB1}, "()V", 0, 1);
  TestMethodIDProvider provider;
  Instrumented r = instrument(cls, provider, true, false, "()V");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Bytes({0x02, 0xC4, 0x36, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0xB1}), r.bytes());
}

TEST(TracingProbes, NewWithAndWithoutDupAndShuffledNew) {
  ClassBytesBuilder b;
  b.major = 49;
  int cls = b.classRef("kjptest/C");
  int init = methodRef(b, "kjptest/C", "<init>", "()V");
  auto hi2 = [](Bytes& v, int x) { put2(v, static_cast<uint32_t>(x)); };
  Bytes code;
  // new C; dup; invokespecial; pop          -> kind 5
  put1(code, 0xBB); hi2(code, cls); put1(code, 0x59); put1(code, 0xB7); hi2(code, init); put1(code, 0x57);
  // new C; invokespecial                    -> kinds 2 and 6
  put1(code, 0xBB); hi2(code, cls); put1(code, 0xB7); hi2(code, init);
  // new C; dup2_x1; invokespecial            -> kind 3, never reported
  put1(code, 0xBB); hi2(code, cls); put1(code, 0x5D); put1(code, 0xB7); hi2(code, init);
  // new C; dup_x1; invokespecial             -> counts as with dup
  put1(code, 0xBB); hi2(code, cls); put1(code, 0x5A); put1(code, 0xB7); hi2(code, init);
  // iconst_1; newarray int; pop              -> kind 4
  append(code, {0x04, 0xBC, 0x0A, 0x57});
  put1(code, 0xB1);
  Bytes bytes = oneMethodClass(b, code, "()V", 4, 1);
  TestMethodIDProvider provider;
  Instrumented r = instrument(bytes, provider, true, false, "()V");
  ASSERT_TRUE(r.ok);
  const int v = KJP_IDX_AFTER_ONE_LOCAL;
  Bytes expected = {0x02, 0xC4, 0x36, 0x00, 0x02, 0x00, 0x00, 0x00};
  put1(expected, 0xBB); hi2(expected, cls); put1(expected, 0x59); put1(expected, 0xB7); hi2(expected, init);
  append(expected, initProbe(0x59, v, r.initRef)); put1(expected, 0x57);
  put1(expected, 0xBB); hi2(expected, cls); append(expected, {0x59, 0x00, 0x00, 0x00});
  put1(expected, 0xB7); hi2(expected, init); append(expected, initProbe(0x00, v, r.initRef));
  put1(expected, 0xBB); hi2(expected, cls); append(expected, {0x00, 0x00, 0x00, 0x00});
  put1(expected, 0x5D); put1(expected, 0xB7); hi2(expected, init);
  put1(expected, 0xBB); hi2(expected, cls); put1(expected, 0x5A); put1(expected, 0xB7); hi2(expected, init);
  append(expected, initProbe(0x59, v, r.initRef));
  append(expected, {0x04, 0xBC, 0x0A});
  append(expected, initProbe(0x59, v, r.initRef));
  append(expected, {0x57, 0xB1});
  EXPECT_EQ(expected, r.bytes());
}

TEST(TracingProbes, NestedNewPairsConstructorsByTheStack) {
  ClassBytesBuilder b;
  b.major = 49;
  int a = b.classRef("kjptest/A");
  int c = b.classRef("kjptest/B");
  int initA = methodRef(b, "kjptest/A", "<init>", "(Lkjptest/B;)V");
  int initB = methodRef(b, "kjptest/B", "<init>", "()V");
  auto hi2 = [](Bytes& v, int x) { put2(v, static_cast<uint32_t>(x)); };
  // new A; new B; dup; invokespecial B; invokespecial A; return: the inner call goes with B
  // (with dup), the outer with A (without).
  Bytes code;
  put1(code, 0xBB); hi2(code, a);
  put1(code, 0xBB); hi2(code, c); put1(code, 0x59);
  put1(code, 0xB7); hi2(code, initB);
  put1(code, 0xB7); hi2(code, initA);
  put1(code, 0xB1);
  Bytes bytes = oneMethodClass(b, code, "()V", 4, 1);
  TestMethodIDProvider provider;
  Instrumented r = instrument(bytes, provider, true, false, "()V");
  ASSERT_TRUE(r.ok);
  const int v = KJP_IDX_AFTER_ONE_LOCAL;
  Bytes expected = {0x02, 0xC4, 0x36, 0x00, 0x02, 0x00, 0x00, 0x00};
  put1(expected, 0xBB); hi2(expected, a); append(expected, {0x59, 0x00, 0x00, 0x00});
  put1(expected, 0xBB); hi2(expected, c); put1(expected, 0x59);
  put1(expected, 0xB7); hi2(expected, initB); append(expected, initProbe(0x59, v, r.initRef));
  put1(expected, 0xB7); hi2(expected, initA); append(expected, initProbe(0x00, v, r.initRef));
  put1(expected, 0xB1);
  EXPECT_EQ(expected, r.bytes());
}

TEST(TracingProbes, IOCallSiteIsTimedWithTheCalleesIndexAndInterfaceSuperCallsAreOrdinary) {
  ClassBytesBuilder b;
  b.major = 49;
  int read = methodRef(b, "java/io/RandomAccessFile", "read", "()I");
  int iface = methodRef(b, "kjptest/I", "run", "()V", 11);
  auto hi2 = [](Bytes& v, int x) { put2(v, static_cast<uint32_t>(x)); };
  Bytes code;
  put1(code, 0x2A); put1(code, 0xB7); hi2(code, read); put1(code, 0x57);
  put1(code, 0x2A); put1(code, 0xB7); hi2(code, iface);
  put1(code, 0xB1);
  Bytes bytes = oneMethodClass(b, code, "()V", 2, 1, {}, {}, 0x0001);
  TestMethodIDProvider provider;
  // Allocation-only: the call site is timed all the same.
  Instrumented r = instrument(bytes, provider, true, false, "()V");
  ASSERT_TRUE(r.ok);
  jint callee = provider.myIndices.at("java/io/RandomAccessFile.read");
  Bytes expected = {0x02, 0xC4, 0x36, 0x00, 0x02, 0x00, 0x00, 0x00, 0x2A};
  Bytes calleeEntry = exitProbe(r.entryRef, false, callee);
  append(expected, calleeEntry);
  put1(expected, 0xB7); hi2(expected, read);
  append(expected, exitProbe(r.exitRef, false, callee));
  put1(expected, 0x57);
  put1(expected, 0x2A); put1(expected, 0xB7); hi2(expected, iface);
  put1(expected, 0xB1);
  EXPECT_EQ(expected, r.bytes());
}

TEST(TracingProbes, TrivialAndShortMethodsAreLeftAloneButNumbered) {
  ClassBytesBuilder b;
  b.major = 49;
  int field = methodRef(b, "kjptest/Built", "f", "I", 9);
  Bytes getter = {0x2A, 0xB4};
  put2(getter, static_cast<uint32_t>(field));
  put1(getter, 0xAC);
  Bytes cls = oneMethodClass(b, getter, "()I", 1, 1, {}, {}, 0x0001);
  TestMethodIDProvider provider;
  Instrumented r = instrument(cls, provider, true, true, "()I");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(getter, r.bytes());
  EXPECT_EQ(1, r.code->getMaxLocals());
}

Bytes manyReturns(int branchOpcode, int count, int prefixNops, Bytes tail) {
  // [nops] branch -> T; return * count; T: tail
  Bytes code(static_cast<size_t>(prefixNops), 0x00);
  put1(code, static_cast<uint32_t>(branchOpcode));
  put2(code, static_cast<uint32_t>(3 + count));
  for (int i = 0; i < count; i++) put1(code, 0xB1);
  append(code, tail);
  return code;
}

TEST(TracingProbes, ShortBranchesThatNoLongerReachAreWidened) {
  const int count = 3700;  // 3700 exit probes of 9 bytes put 33300 bytes between branch and target
  struct Case {
    int opcode;
    int prefix;
    Bytes tail;
    Bytes widened;
  };
  // goto at index 0 (the key 0 case), jsr (return address = the first nop), ifeq: the
  // inverse jumps over a goto_w.
  std::vector<Case> cases = {
      {0xA7, 0, {0xB1}, {0xC8}},
      {0xA8, 0, {0x4B, 0xA9, 0x00}, {0xC9}},
      {0x99, 1, {0xB1}, {0x9A, 0x00, 0x0B, 0xC8}},
  };
  for (const Case& c : cases) {
    ClassBytesBuilder b;
    b.major = 49;
    Bytes code = manyReturns(c.opcode, count, c.prefix, c.tail);
    if (c.prefix == 1) code[0] = 0x1A;
    Bytes cls = oneMethodClass(b, code, "(I)V", 1, 1);
    TestMethodIDProvider provider;
    Instrumented r = instrument(cls, provider, false, true, "(I)V");
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(provider.myFlags.empty());
    Bytes out = r.bytes();
    int at = 14 + c.prefix;
    ASSERT_GT(out.size(), static_cast<size_t>(at + 11));
    for (size_t k = 0; k < c.widened.size(); k++) EXPECT_EQ(c.widened[k], out[at + k]) << c.opcode << " " << k;
    bool conditional = c.opcode == 0x99;
    int wideAt = at + (conditional ? 3 : 0);
    int32_t offset = static_cast<int32_t>(out[wideAt + 1] << 24 | out[wideAt + 2] << 16 | out[wideAt + 3] << 8 | out[wideAt + 4]);
    int nops = conditional ? 3 : 2;
    for (int k = 0; k < nops; k++) EXPECT_EQ(0x00, out[wideAt + 5 + k]) << c.opcode;
    int firstReturn = wideAt + 5 + nops;
    // The target: behind 3700 exit probes and returns, the exit probe (or the tail).
    int target = firstReturn + count * 10;
    EXPECT_EQ(target - wideAt, offset) << c.opcode;
    if (c.opcode == 0xB1 || c.tail[0] == 0xB1) {
      EXPECT_EQ(0x11, out[target]);
    } else {
      EXPECT_EQ(0x4B, out[target]);
    }
  }
}

TEST(TracingProbes, LengthLimitOfTracing) {
  for (int length : {65512, 65513}) {
    Bytes code(static_cast<size_t>(length - 1), 0x00);
    put1(code, 0xB1);
    ClassBytesBuilder b;
    b.major = 49;
    Bytes cls = oneMethodClass(b, code, "()V", 0, 0);
    TestMethodIDProvider provider;
    testing::internal::CaptureStderr();
    Instrumented r = instrument(cls, provider, false, true, "()V");
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(r.ok);
    if (length == 65512) {
      // 65521 bytes behind the entry code: the largest that commits.
      EXPECT_EQ(65535, r.code->getCodeLength());
      EXPECT_TRUE(provider.myFlags.empty());
      EXPECT_EQ("", err);
    } else {
      EXPECT_EQ(length, r.code->getCodeLength());
      EXPECT_EQ(MF_NOT_INSTRUMENTED, provider.myFlags[TestMethodIDProvider::M_INDEX]);
      EXPECT_EQ(std::string("[Kestrix Java Profiler 8.0.1] *** Warning ***: method kjptest/Built.m()V cannot be "
                            "instrumented: the resulting bytecode is too long. This means that the method will not "
                            "be included into profiling results.\n"),
                err);
      // The reserved locals stay.
      EXPECT_EQ(2, r.code->getMaxLocals());
    }
  }
}

TEST(TracingProbes, NativeMethodsAreWrapped) {
  bool wasMustang = ourIsMustang;
  ourIsMustang = true;
  ClassBytesBuilder b;
  b.major = 49;
  b.method(0x0109, "f", "(IJLjava/lang/String;[[I)J", {});  // public static native
  b.method(0x0102, "g", "(D)I", {});                         // private native
  Bytes cls = b.build();
  TestMethodIDProvider provider;
  auto input = toKVector(cls);
  KVector<unsigned char> output(1024);
  ASSERT_TRUE(instrumentForTracingAllocationJ2EE(&provider, "kjptest/Built", *input, output, false, true, false));
  ourIsMustang = wasMustang;
  ParsedClass parsed = parse(toBytes(output));
  ClassFile& cf = *parsed.model;
  MethodInfo* prefixedF = cf.findMethod(KString("$$KJP$$f"), KString("(IJLjava/lang/String;[[I)J"));
  ASSERT_NE(nullptr, prefixedF);
  EXPECT_EQ(0x0109, prefixedF->getAccessFlags());
  EXPECT_EQ(nullptr, prefixedF->getCodeAttribute());
  MethodInfo* f = cf.findMethod(KString("f"), KString("(IJLjava/lang/String;[[I)J"));
  ASSERT_NE(nullptr, f->getCodeAttribute());
  EXPECT_EQ(0x0009, f->getAccessFlags());
  int refF = cf.findOrCreateMethodRef(KString("kjptest/Built"), KString("$$KJP$$f"), KString("(IJLjava/lang/String;[[I)J"));
  int refG = cf.findOrCreateMethodRef(KString("kjptest/Built"), KString("$$KJP$$g"), KString("(D)I"));
  int exitRef = cf.findOrCreateMethodRef(KString("com/kestrix/runtime/Callback"), KString("kjpMethodExit"), KString("(SS)V"));
  // Wrapper of f behind its 14-byte entry probe: iload_0, lload_1, aload 3, aload 4,
  // invokestatic, exit probe, lreturn.
  CodeAttribute* code = f->getCodeAttribute();
  Bytes body(code->getCode() + 14, code->getCode() + code->getCodeLength());
  Bytes expected = {0x1A, 0x16, 0x01, 0x19, 0x03, 0x19, 0x04, 0xB8};
  put2(expected, static_cast<uint32_t>(refF));
  append(expected, exitProbe(exitRef, false, provider.myIndices.at("kjptest/Built.f")));
  put1(expected, 0xAD);
  EXPECT_EQ(expected, body);
  EXPECT_EQ(5 + 2, code->getMaxLocals());  // five parameter slots and the two reserved
  // g: aload_0, dload_1, invokespecial (private), ireturn
  MethodInfo* g = cf.findMethod(KString("g"), KString("(D)I"));
  CodeAttribute* gCode = g->getCodeAttribute();
  Bytes gBody(gCode->getCode() + 14, gCode->getCode() + gCode->getCodeLength());
  Bytes gExpected = {0x2A, 0x18, 0x01, 0xB7};
  put2(gExpected, static_cast<uint32_t>(refG));
  append(gExpected, exitProbe(exitRef, false, provider.myIndices.at("kjptest/Built.g")));
  put1(gExpected, 0xAC);
  EXPECT_EQ(gExpected, gBody);
}

TEST(TracingProbes, NativesOfExcludedClassesStayNative) {
  bool wasMustang = ourIsMustang;
  ourIsMustang = true;
  for (const char* name : {"java/lang/Object", "java/lang/invoke/MethodHandle", "jdk/internal/misc/Unsafe", "java/lang/Thread"}) {
    ClassBytesBuilder b;
    b.major = 49;
    b.method(0x0109, "f", "()V", {});
    Bytes cls = b.build(name, std::string(name) == "java/lang/Object" ? "" : "java/lang/Object");
    TestMethodIDProvider provider;
    auto input = toKVector(cls);
    KVector<unsigned char> output(1024);
    ASSERT_TRUE(instrumentForTracingAllocationJ2EE(&provider, name, *input, output, true, true, false));
    ParsedClass parsed = parse(toBytes(output));
    EXPECT_EQ(1, parsed.model->getMethods().size()) << name;
    EXPECT_EQ(nullptr, parsed.model->getMethods()[0]->getCodeAttribute()) << name;
  }
  ourIsMustang = wasMustang;
}

TEST(TracingProbes, StackMapFramesFollowTheCodeAndShowTheAgentsValues) {
  ClassBytesBuilder b;
  b.major = 52;
  int cls = b.classRef("kjptest/C");
  int init = methodRef(b, "kjptest/C", "<init>", "(I)V");
  int smt = b.utf8("StackMapTable");
  Bytes code;
  put1(code, 0xBB); put2(code, static_cast<uint32_t>(cls));  // 0 new C (no dup)
  put1(code, 0x1A);                                          // 3 iload_0
  append(code, {0x99, 0x00, 0x07});                          // 4 ifeq 11
  put1(code, 0x04);                                          // 7 iconst_1
  append(code, {0xA7, 0x00, 0x04});                          // 8 goto 12
  put1(code, 0x03);                                          // 11 iconst_0
  put1(code, 0xB7); put2(code, static_cast<uint32_t>(init));  // 12 invokespecial C.<init>(I)V
  put1(code, 0xB1);                                          // 15 return
  Bytes frames = {0, 2,
                  255, 0, 11, 0, 1, 1, 0, 1, 8, 0, 0,          // @11 [int] [U(0)]
                  255, 0, 0, 0, 1, 1, 0, 2, 8, 0, 0, 1};       // @12 [int] [U(0), int]
  Bytes bytes = oneMethodClass(b, code, "(I)V", 3, 1, {}, {ClassBytesBuilder::attribute(smt, frames)});
  TestMethodIDProvider provider;
  Instrumented r = instrument(bytes, provider, true, true, "(I)V");
  ASSERT_TRUE(r.ok);
  const int v = KJP_IDX_AFTER_ONE_LOCAL;
  // entry 14; 14 new; 17 dup nop nop nop; 21 iload_0; 22 ifeq 29; 25 iconst_1; 26 goto 30;
  // 29 iconst_0; 30 invokespecial; 33 object probe; 45 exit probe; 54 return
  ASSERT_EQ(55, r.code->getCodeLength());
  Bytes out = r.bytes();
  EXPECT_EQ(Bytes({0x99, 0x00, 0x07}), Bytes(out.begin() + 22, out.begin() + 25));
  EXPECT_EQ(Bytes({0xA7, 0x00, 0x04}), Bytes(out.begin() + 26, out.begin() + 29));
  EXPECT_EQ(initProbe(0x00, v, r.initRef), Bytes(out.begin() + 33, out.begin() + 45));

  ClassFile& cf = *r.parsed.model;
  MethodInfo* m = cf.findMethod(KString("m"), KString("(I)V"));
  StackMapTableAttribute* table = r.code->getStackMapTable();
  ASSERT_NE(nullptr, table);
  KVector<VerificationType> initial(4);
  StackMap::initialLocals(cf, *m, initial);
  StackMap map;
  map.decode(table->getBody(), table->getBodyLength(), r.code->getCodeLength(), initial);
  ASSERT_EQ(2, map.getFrames().size());
  typedef VerificationType VT;
  const VT u = VT::of(VT::ITEM_UNINITIALIZED, 14);
  for (int f = 0; f < 2; f++) {
    StackMapFrame* frame = map.getFrames()[f];
    EXPECT_EQ(29 + f, frame->myOffset);
    ASSERT_EQ(3, frame->myLocals.size());
    EXPECT_TRUE(frame->myLocals[0] == VT::of(VT::ITEM_INTEGER));
    EXPECT_TRUE(frame->myLocals[1] == VT::of(VT::ITEM_TOP));
    EXPECT_TRUE(frame->myLocals[v] == VT::of(VT::ITEM_INTEGER));
    // The spare reference of the dup behind 'new' sits above the original one.
    ASSERT_EQ(2 + f, frame->myStack.size());
    EXPECT_TRUE(frame->myStack[0] == u);
    EXPECT_TRUE(frame->myStack[1] == u);
    if (f == 1) {
      EXPECT_TRUE(frame->myStack[2] == VT::of(VT::ITEM_INTEGER));
    }
  }
}

TEST(TracingProbes, WideningIsNotDoneInClassesWithStackMaps) {
  ClassBytesBuilder b;
  b.major = 52;
  int smt = b.utf8("StackMapTable");
  Bytes code = manyReturns(0xA7, 3700, 0, {0xB1});
  // one frame at the target, 3 + 3700
  Bytes frames = {0, 1, 255};
  put2(frames, 3 + 3700);
  append(frames, {0, 1, 1, 0, 0});
  Bytes cls = oneMethodClass(b, code, "(I)V", 1, 1, {}, {ClassBytesBuilder::attribute(smt, frames)});
  TestMethodIDProvider provider;
  testing::internal::CaptureStderr();
  Instrumented r = instrument(cls, provider, false, true, "(I)V");
  std::string err = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(code, r.bytes());
  EXPECT_EQ(MF_NOT_INSTRUMENTED, provider.myFlags[TestMethodIDProvider::M_INDEX]);
  EXPECT_NE(std::string::npos, err.find("method kjptest/Built.m(I)V cannot be instrumented"));
}

TEST(TracingProbes, UndefinedOpcodeLeavesTheClassUnchanged) {
  ClassBytesBuilder b;
  b.major = 49;
  Bytes cls = oneMethodClass(b, {0x00, 0xCB, 0xB1}, "()V", 0, 0);
  TestMethodIDProvider provider;
  auto input = toKVector(cls);
  KVector<unsigned char> output(1024);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(instrumentForTracingAllocationJ2EE(&provider, nullptr, *input, output, true, true, false));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0, output.size());
  EXPECT_NE(std::string::npos, err.find("class <NULL> cannot be instrumented: the undefined opcode 203"));
}

}  // namespace
