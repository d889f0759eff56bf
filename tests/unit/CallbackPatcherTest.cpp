#include <gtest/gtest.h>
#include <unistd.h>

#include "CallbackClassTestSupport.h"
#include "instrument/CallbackPatcher.h"

using namespace callbacktest;

namespace {

typedef std::vector<uint8_t> Code;

const char* const ENTRY = "kjpMethodEntry";
const char* const EXIT = "kjpMethodExit";
const char* const INIT = "kjpInit";
const char* const SS = "(SS)V";
const char* const OI = "(Ljava/lang/Object;I)I";

ClassBytes patch(bool (*patcher)(KVector<unsigned char>&, KVector<unsigned char>&), const ClassBytes& input) {
  KVector<unsigned char> in(4096);
  KVector<unsigned char> out(4096);
  toKVector(input, in);
  EXPECT_TRUE(patcher(in, out));
  return fromKVector(out);
}

ClassBytes prepare(const ClassBytes& input, bool useFlags) {
  KVector<unsigned char> in(4096);
  KVector<unsigned char> out(4096);
  toKVector(input, in);
  EXPECT_TRUE(patchCallback(in, out, useFlags));
  return fromKVector(out);
}

TEST(CallbackPatcherTest, withoutFlagsTheProbeBodiesStayEmpty) {
  ClassBytes stored = embeddedCallbackClass();
  ParsedClass before(stored);
  ParsedClass after(prepare(stored, false));
  EXPECT_EQ(Code({0xB1}), after.body(ENTRY, SS));
  EXPECT_EQ(Code({0xB1}), after.body(EXIT, SS));
  EXPECT_EQ(Code({0x02, 0xAC}), after.body(INIT, OI));
  EXPECT_EQ(before.maxStack(ENTRY, SS), after.maxStack(ENTRY, SS));
  EXPECT_EQ(before.maxStack(INIT, OI), after.maxStack(INIT, OI));
  EXPECT_EQ(before.majorVersion(), after.majorVersion());
}

TEST(CallbackPatcherTest, flagBodiesReadTheirFlagAndBranchAroundTheNativeCall) {
  ClassBytes stored = embeddedCallbackClass();
  ParsedClass before(stored);
  ParsedClass after(prepare(stored, true));

  for (const char* name : {ENTRY, EXIT}) {
    Code body = after.body(name, SS);
    ASSERT_EQ(12u, body.size()) << name;
    EXPECT_EQ(0xB2, body[0]);
    EXPECT_EQ("field com/kestrix/runtime/Callback.ourKJPMethodEntryExit:Z", after.memberRef(u2(body, 1)));
    EXPECT_EQ(Code({0x99, 0x00, 0x08, 0x1A, 0x1B, 0xB8}), Code(body.begin() + 3, body.begin() + 9));
    EXPECT_EQ("method com/kestrix/runtime/Callback." + std::string(name) + "0:(SS)V", after.memberRef(u2(body, 9)));
    EXPECT_EQ(0xB1, body[11]);
    EXPECT_EQ(before.maxStack(name, SS) + 2, after.maxStack(name, SS)) << name;
  }

  Code init = after.body(INIT, OI);
  ASSERT_EQ(14u, init.size());
  EXPECT_EQ(0xB2, init[0]);
  EXPECT_EQ("field com/kestrix/runtime/Callback.ourKJPAlloc:Z", after.memberRef(u2(init, 1)));
  EXPECT_EQ(Code({0x99, 0x00, 0x09, 0x2A, 0x1B, 0xB8}), Code(init.begin() + 3, init.begin() + 9));
  EXPECT_EQ("method com/kestrix/runtime/Callback.kjpInit0:(Ljava/lang/Object;I)I", after.memberRef(u2(init, 9)));
  EXPECT_EQ(Code({0xAC, 0x02, 0xAC}), Code(init.begin() + 11, init.end()));
  EXPECT_EQ(before.maxStack(INIT, OI) + 1, after.maxStack(INIT, OI));

  // The branches have no stack map frames, so the class must be one that is verified
  // without them.
  EXPECT_GE(before.majorVersion(), 50);
  EXPECT_EQ(49, after.majorVersion());
}

TEST(CallbackPatcherTest, enablingBodiesForwardToTheNativesAndLeaveTheOtherProbeAlone) {
  ClassBytes stored = prepare(embeddedCallbackClass(), false);
  ParsedClass before(stored);

  ParsedClass counting(patch(patchCallbackToEnableInvocationCounting, stored));
  for (const char* name : {ENTRY, EXIT}) {
    Code body = counting.body(name, SS);
    ASSERT_EQ(6u, body.size()) << name;
    EXPECT_EQ(Code({0x1A, 0x1B, 0xB8}), Code(body.begin(), body.begin() + 3));
    EXPECT_EQ("method com/kestrix/runtime/Callback." + std::string(name) + "0:(SS)V", counting.memberRef(u2(body, 3)));
    EXPECT_EQ(0xB1, body[5]);
    EXPECT_EQ(before.maxStack(name, SS) + 2, counting.maxStack(name, SS));
  }
  EXPECT_EQ(Code({0x02, 0xAC}), counting.body(INIT, OI));
  EXPECT_EQ(before.majorVersion(), counting.majorVersion());

  ParsedClass allocations(patch(patchCallbackToEnableAllocations, stored));
  Code init = allocations.body(INIT, OI);
  ASSERT_EQ(6u, init.size());
  EXPECT_EQ(Code({0x2A, 0x1B, 0xB8}), Code(init.begin(), init.begin() + 3));
  EXPECT_EQ("method com/kestrix/runtime/Callback.kjpInit0:(Ljava/lang/Object;I)I", allocations.memberRef(u2(init, 3)));
  EXPECT_EQ(0xAC, init[5]);
  EXPECT_EQ(before.maxStack(INIT, OI) + 2, allocations.maxStack(INIT, OI));
  EXPECT_EQ(Code({0xB1}), allocations.body(ENTRY, SS));

  // Both, one after the other, as a redefinition with both modes on builds them.
  ParsedClass both(patch(patchCallbackToEnableAllocations, patch(patchCallbackToEnableInvocationCounting, stored)));
  EXPECT_EQ(6u, both.body(ENTRY, SS).size());
  EXPECT_EQ(6u, both.body(INIT, OI).size());
}

// The patchers print their complaint on stdout; the death test watches stderr.
void patchWithStdoutOnStderr(bool (*patcher)(KVector<unsigned char>&, KVector<unsigned char>&),
                             const ClassBytes& input) {
  dup2(2, 1);
  patch(patcher, input);
}

TEST(CallbackPatcherDeathTest, aMissingProbeMethodIsNamedAndEndsTheProcess) {
  ClassBytes stored = embeddedCallbackClass();
  EXPECT_DEATH(patchWithStdoutOnStderr(patchCallbackToEnableInvocationCounting,
                                       renameText(stored, "kjpMethodEntry", "kjpMethodEntrY")),
               "kjpMethodEntry\\(SS\\) not found\n.*Assertion `0' failed");
  EXPECT_DEATH(patchWithStdoutOnStderr(patchCallbackToEnableInvocationCounting,
                                       renameText(stored, "kjpMethodExit", "kjpMethodExiT")),
               "kjpMethodExit\\(\\) not found\n.*Assertion `0' failed");
  EXPECT_DEATH(patchWithStdoutOnStderr(patchCallbackToEnableAllocations, renameText(stored, "kjpInit", "kjpIniT")),
               "kjpInit\\(Ljava/lang/Object;I\\) not found\n.*Assertion `0' failed");
}

TEST(CallbackPatcherDeathTest, inputMustHoldAClassAndOutputMustBeEmpty) {
  KVector<unsigned char> empty(16);
  KVector<unsigned char> full(16);
  full.push(1);
  EXPECT_DEATH(patchCallback(empty, empty, false), "Assertion `input.size\\(\\) > 0' failed");
  EXPECT_DEATH(patchCallback(full, full, false), "Assertion `output.size\\(\\) == 0' failed");
  EXPECT_DEATH(patchCallbackToEnableInvocationCounting(empty, empty), "Assertion `input.size\\(\\) > 0' failed");
  EXPECT_DEATH(patchCallbackToEnableAllocations(full, full), "Assertion `output.size\\(\\) == 0' failed");
}

}  // namespace
