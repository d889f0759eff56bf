#include <gtest/gtest.h>

#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/StackMap.h"
#include "tests/unit/ClassBytesBuilder.h"
#include "tests/unit/ClassFileTestSupport.h"

using namespace kjptest;

namespace {

typedef VerificationType VT;

// Every frame form and every verification type, for a method whose first frame holds an
// object (#3) only, with 200 bytes of code.
const Bytes ALL_FORMS = {
    0, 8,                                      // 8 frames
    5,                                         // same_frame                     @5
    66, 1,                                     // same_locals_1_stack_item int   @8
    247, 0, 100, 7, 0, 4,                      // ..._extended, object #4        @109
    253, 0, 0, 4, 8, 0, 8,                     // append long, uninitialized(8)  @110
    249, 0, 1,                                 // chop 2                         @112
    251, 0, 2,                                 // same_frame_extended            @115
    255, 0, 3, 0, 5, 0, 2, 3, 5, 6, 0, 2, 7, 0, 5, 1,  // full_frame              @119
    250, 0, 0,                                 // chop 1                         @120
};

struct Initial {
  Initial() : locals(4) { locals.push(VT::of(VT::ITEM_OBJECT, 3)); }
  KVector<VerificationType> locals;
};

Bytes encode(const StackMap& map, const KVector<VerificationType>& initial) {
  KVector<unsigned char> out(64);
  DataOutput dataOut(out);
  map.encode(initial, dataOut);
  return toBytes(out);
}

void expectSameFrames(const StackMap& a, const StackMap& b) {
  ASSERT_EQ(a.getFrames().size(), b.getFrames().size());
  for (int i = 0; i < a.getFrames().size(); i++) {
    const StackMapFrame& x = *a.getFrames()[i];
    const StackMapFrame& y = *b.getFrames()[i];
    EXPECT_EQ(x.myOffset, y.myOffset) << i;
    ASSERT_EQ(x.myLocals.size(), y.myLocals.size()) << i;
    ASSERT_EQ(x.myStack.size(), y.myStack.size()) << i;
    for (int k = 0; k < x.myLocals.size(); k++) EXPECT_TRUE(x.myLocals[k] == y.myLocals[k]) << i << "/" << k;
    for (int k = 0; k < x.myStack.size(); k++) EXPECT_TRUE(x.myStack[k] == y.myStack[k]) << i << "/" << k;
  }
}

void expectRejected(const Bytes& body, const Initial& initial, const char* reason) {
  StackMap map;
  try {
    map.decode(body.data(), static_cast<int>(body.size()), 200, initial.locals);
    ADD_FAILURE() << "accepted; expected: " << reason;
  } catch (const ClassFormatError& error) {
    EXPECT_NE(nullptr, strstr(error.getReason(), reason)) << error.getReason();
  }
}

}  // namespace

TEST(StackMap, DecodesEveryFormIntoCompleteFramesAndEncodesThemBack) {
  Initial initial;
  StackMap map;
  map.decode(ALL_FORMS.data(), static_cast<int>(ALL_FORMS.size()), 200, initial.locals);
  const KVector<StackMapFrame*>& frames = map.getFrames();
  ASSERT_EQ(8, frames.size());
  const int offsets[] = {5, 8, 109, 110, 112, 115, 119, 120};
  const int locals[] = {1, 1, 1, 3, 1, 1, 5, 4};
  const int stacks[] = {0, 1, 1, 0, 0, 0, 2, 0};
  for (int i = 0; i < 8; i++) {
    EXPECT_EQ(offsets[i], frames[i]->myOffset) << i;
    EXPECT_EQ(locals[i], frames[i]->myLocals.size()) << i;
    EXPECT_EQ(stacks[i], frames[i]->myStack.size()) << i;
  }
  EXPECT_TRUE(frames[1]->myStack[0] == VT::of(VT::ITEM_INTEGER));
  EXPECT_TRUE(frames[2]->myStack[0] == VT::of(VT::ITEM_OBJECT, 4));
  EXPECT_TRUE(frames[3]->myLocals[0] == VT::of(VT::ITEM_OBJECT, 3));
  EXPECT_TRUE(frames[3]->myLocals[1] == VT::of(VT::ITEM_LONG));
  EXPECT_TRUE(frames[3]->myLocals[2] == VT::of(VT::ITEM_UNINITIALIZED, 8));
  const int fullLocals[] = {VT::ITEM_TOP, VT::ITEM_FLOAT, VT::ITEM_DOUBLE, VT::ITEM_NULL, VT::ITEM_UNINITIALIZED_THIS};
  for (int k = 0; k < 5; k++) EXPECT_EQ(fullLocals[k], frames[6]->myLocals[k].myTag) << k;
  EXPECT_TRUE(frames[6]->myStack[0] == VT::of(VT::ITEM_OBJECT, 5));
  EXPECT_EQ(VT::ITEM_NULL, frames[7]->myLocals[3].myTag);

  EXPECT_EQ(ALL_FORMS, encode(map, initial.locals));
}

TEST(StackMap, FramesThatMovedOrGrewGetAFormThatStillFits) {
  Initial initial;
  StackMap map;
  map.decode(ALL_FORMS.data(), static_cast<int>(ALL_FORMS.size()), 200, initial.locals);
  // 60 bytes put in front: the first same_frame no longer reaches its offset with a
  // one-byte delta and must become same_frame_extended; the rest keep their forms.
  for (int i = 0; i < map.getFrames().size(); i++) map.getFrames()[i]->myOffset += 60;
  Bytes moved = encode(map, initial.locals);
  Bytes expected = ALL_FORMS;
  expected.erase(expected.begin() + 2);
  expected.insert(expected.begin() + 2, {251, 0, 65});
  EXPECT_EQ(expected, moved);

  // A local added behind the parameters of every frame, as the agent's own are: the first
  // frame is no longer 'same' as the implicit one but an append; decoding what comes out
  // gives the changed frames back.
  for (int i = 0; i < map.getFrames().size(); i++) {
    StackMapFrame* frame = map.getFrames()[i];
    if (frame->myLocals.size() == 1) frame->myLocals.push(VT::of(VT::ITEM_INTEGER));
  }
  Bytes grown = encode(map, initial.locals);
  EXPECT_EQ(252, grown[2]);  // append one
  StackMap again;
  again.decode(grown.data(), static_cast<int>(grown.size()), 260, initial.locals);
  expectSameFrames(map, again);

  // A frame made by the agent, between two others, with no form of its own.
  StackMapFrame* inserted = new StackMapFrame(map.getFrames()[0]->myOffset + 1, StackMapFrame::NEW_FRAME);
  for (int k = 0; k < map.getFrames()[0]->myLocals.size(); k++) inserted->myLocals.push(map.getFrames()[0]->myLocals[k]);
  KVector<StackMapFrame*>& frames = map.getFrames();
  frames.push(nullptr);
  for (int i = frames.size() - 1; i > 1; i--) frames[i] = frames[i - 1];
  frames[1] = inserted;
  Bytes withNew = encode(map, initial.locals);
  EXPECT_EQ(0, withNew[6]);  // same_frame, delta 0, right behind the first frame (append, 4 bytes)
  StackMap third;
  third.decode(withNew.data(), static_cast<int>(withNew.size()), 260, initial.locals);
  expectSameFrames(map, third);
}

TEST(StackMap, MalformedTablesAreRejected) {
  Initial initial;
  expectRejected(Bytes{0, 1, 128}, initial, "reserved frame type 128");
  expectRejected(Bytes{0, 1, 246}, initial, "reserved frame type 246");
  expectRejected(Bytes{0, 1, 249, 0, 0}, initial, "chops 2 of 1 locals");
  expectRejected(Bytes{0, 1, 64, 9}, initial, "unknown verification type 9");
  expectRejected(Bytes{0, 2, 5}, initial, "ends early");
  expectRejected(Bytes{0, 1, 5, 0}, initial, "bytes behind its last frame");
  expectRejected(Bytes{0, 1, 251, 0, 200}, initial, "behind the code");
  expectRejected(Bytes{0, 1, 64, 8, 0, 200}, initial, "uninitialized object at 200");
  expectRejected(Bytes{0}, initial, "ends early");
}

TEST(StackMap, FramesOutOfOrderAreNotEncoded) {
  Initial initial;
  StackMap map;
  map.decode(ALL_FORMS.data(), static_cast<int>(ALL_FORMS.size()), 200, initial.locals);
  map.getFrames()[3]->myOffset = map.getFrames()[2]->myOffset;
  KVector<unsigned char> out(64);
  DataOutput dataOut(out);
  EXPECT_THROW(map.encode(initial.locals, dataOut), ClassFormatError);
}

TEST(StackMap, InitialLocalsFollowTheDescriptor) {
  ClassBytesBuilder b;
  b.method(0x1, "<init>", "(IJLjava/lang/String;[[D)V", {});
  b.method(0x9, "s", "(FZ)V", {});
  b.method(0x1, "bad", "(Lfoo)V", {});
  ParsedClass parsed = parse(b.build("kjptest/Built"));
  ClassFile& classFile = *parsed.model;
  KVector<VerificationType> locals(4);

  StackMap::initialLocals(classFile, *classFile.getMethods()[0], locals);
  ASSERT_EQ(5, locals.size());
  EXPECT_EQ(VT::ITEM_UNINITIALIZED_THIS, locals[0].myTag);
  EXPECT_EQ(VT::ITEM_INTEGER, locals[1].myTag);
  EXPECT_EQ(VT::ITEM_LONG, locals[2].myTag);
  ASSERT_EQ(VT::ITEM_OBJECT, locals[3].myTag);
  ASSERT_EQ(VT::ITEM_OBJECT, locals[4].myTag);
  const KVector<ConstantPoolInfo*>& pool = classFile.getConstantPool();
  EXPECT_STREQ("java/lang/String", static_cast<ConstantClassInfo*>(pool[locals[3].myData])->getName(pool).get());
  EXPECT_STREQ("[[D", static_cast<ConstantClassInfo*>(pool[locals[4].myData])->getName(pool).get());

  StackMap::initialLocals(classFile, *classFile.getMethods()[1], locals);
  ASSERT_EQ(2, locals.size());
  EXPECT_EQ(VT::ITEM_FLOAT, locals[0].myTag);
  EXPECT_EQ(VT::ITEM_INTEGER, locals[1].myTag);

  EXPECT_THROW(StackMap::initialLocals(classFile, *classFile.getMethods()[2], locals), ClassFormatError);
}
