#include <gtest/gtest.h>

#include "classfile/ClassFile.h"
#include "classfile/CodeAttribute.h"
#include "classfile/StackMapTableAttribute.h"
#include "tests/classfile/StackMapStripper.h"
#include "tests/unit/ClassBytesBuilder.h"
#include "tests/unit/ClassFileTestSupport.h"

using namespace kjptest;

namespace {

const char* const REAL_CLASSES[] = {
    "v7/kjptest/Flow7.class",           "v7/kjptest/Closeable7.class",       "v17/kjptest/Modern17.class",
    "v17/kjptest/Modern17$Circle.class", "v17/kjptest/Modern17$Inner.class",  "v17/kjptest/Modern17$Shape.class",
    "mod/module-info.class",            "mod/kjptest/mod/Api.class",         "v25/kjptest/Modern17.class",
    "v25/kjptest/Modern17$Inner.class",
};

bool poolHasTag(const ClassFile& classFile, int tag) {
  const KVector<ConstantPoolInfo*>& pool = classFile.getConstantPool();
  for (int i = 1; i < pool.size(); i++) {
    if (pool[i] != nullptr && pool[i]->getTag() == tag) return true;
  }
  return false;
}

int countStackMaps(const ClassFile& classFile) {
  int count = 0;
  ClassFile& mutableClass = const_cast<ClassFile&>(classFile);
  for (int i = 0; i < mutableClass.getMethods().size(); i++) {
    CodeAttribute* code = mutableClass.getMethods()[i]->getCodeAttribute();
    if (code != nullptr && code->getStackMapTable() != nullptr) count++;
  }
  return count;
}

}  // namespace

TEST(ClassFileRoundTrip, UnchangedClassesOfVersion51AndAboveComeBackByteForByte) {
  for (const char* name : REAL_CLASSES) {
    SCOPED_TRACE(name);
    std::vector<uint8_t> bytes = readTestClass(name);
    ASSERT_FALSE(bytes.empty()) << "missing test class; run tests/data/classfile/make-classes.sh";
    ASSERT_GE(majorVersionOf(bytes), 51);
    ParsedClass parsed = parse(bytes);
    EXPECT_EQ(write(*parsed.model), bytes);
    // Writing consumes nothing: a second write is the same.
    EXPECT_EQ(write(*parsed.model), bytes);
  }
}

TEST(ClassFileRoundTrip, NewerConstantKindsAreCarried) {
  // Lambdas and records bring method handles and invokedynamic, module-info modules and
  // packages; the round trip above shows they come back, this that they were there.
  ParsedClass modern = parse(readTestClass("v17/kjptest/Modern17.class"));
  EXPECT_TRUE(poolHasTag(*modern.model, ConstantMethodHandleInfo::TAG));
  EXPECT_TRUE(poolHasTag(*modern.model, ConstantMethodTypeInfo::TAG));
  EXPECT_TRUE(poolHasTag(*modern.model, ConstantInvokeDynamicInfo::TAG));
  ParsedClass module = parse(readTestClass("mod/module-info.class"));
  EXPECT_TRUE(poolHasTag(*module.model, ConstantModuleInfo::TAG));
  EXPECT_TRUE(poolHasTag(*module.model, ConstantPackageInfo::TAG));
  EXPECT_EQ(0, module.model->getMethods().size());
}

TEST(ClassFileRoundTrip, Version50BecomesVersion49WithoutStackMaps) {
  std::vector<uint8_t> bytes = readTestClass("v7/kjptest/Flow7.class");
  ASSERT_GT(countStackMaps(*parse(bytes).model), 2);
  bytes[7] = 50;
  ParsedClass parsed = parse(bytes);
  EXPECT_EQ(49, parsed.model->getMajorVersion());
  EXPECT_EQ(0, countStackMaps(*parsed.model));
  std::vector<uint8_t> written = write(*parsed.model);
  EXPECT_EQ(49, majorVersionOf(written));
  // The rest, Code lengths and attribute counts included, as an independent stripper has it.
  EXPECT_EQ(StackMapStripper::strip(bytes), written);
  // What comes out reads again, and is then stable.
  EXPECT_EQ(written, write(*parse(written).model));
}

TEST(ClassFileRoundTrip, Version51KeepsItsVersionAndStackMaps) {
  std::vector<uint8_t> bytes = readTestClass("v7/kjptest/Flow7.class");
  ASSERT_EQ(51, majorVersionOf(bytes));
  ParsedClass parsed = parse(bytes);
  EXPECT_EQ(51, parsed.model->getMajorVersion());
  EXPECT_GT(countStackMaps(*parsed.model), 2);
}

TEST(ClassFileModel, NamesMembersAndCode) {
  ParsedClass parsed = parse(readTestClass("v7/kjptest/Flow7.class"));
  ClassFile& flow = *parsed.model;
  EXPECT_STREQ("kjptest/Flow7", flow.getSignature().get());
  MethodInfo* loop = flow.findMethod("loop", "(IJDLjava/lang/Object;[I)I");
  ASSERT_NE(nullptr, loop);
  EXPECT_STREQ("loop", loop->getName().get());
  EXPECT_FALSE(loop->isStatic());
  ASSERT_NE(nullptr, loop->getCodeAttribute());
  EXPECT_GT(loop->getCodeAttribute()->getCodeLength(), 10);
  EXPECT_EQ(nullptr, flow.findMethod("loop", "()V"));

  ParsedClass closeable = parse(readTestClass("v7/kjptest/Closeable7.class"));
  MethodInfo* close = closeable.model->findMethod("close", "()V");
  ASSERT_NE(nullptr, close);
  EXPECT_EQ(nullptr, close->getCodeAttribute());  // abstract

  // A long or double holds the slot after it: it is null, and walkers must step over it.
  const KVector<ConstantPoolInfo*>& pool = flow.getConstantPool();
  int wide = 0;
  for (int i = 1; i < pool.size(); i++) {
    ASSERT_NE(nullptr, pool[i]) << "unexpected null at " << i;
    if (pool[i]->getTag() == ConstantLongInfo::TAG || pool[i]->getTag() == ConstantDoubleInfo::TAG) {
      wide++;
      ASSERT_LT(i + 1, pool.size());
      EXPECT_EQ(nullptr, pool[i + 1]);
      i++;
    }
  }
  EXPECT_GE(wide, 2);
}

TEST(ClassFileModel, ReferencesResolveToClassNameAndDescriptor) {
  ParsedClass parsed = parse(readTestClass("v7/kjptest/Flow7.class"));
  ClassFile& flow = *parsed.model;
  int index = flow.findOrCreateMethodRef(KString("java/util/ArrayList"), KString("<init>"), KString("(I)V"));
  const ConstantMethodRefInfo* ref = static_cast<const ConstantMethodRefInfo*>(flow.getConstantPool()[index]);
  EXPECT_STREQ("java/util/ArrayList|<init>|(I)V", ref->getMethodUIDString(flow.getConstantPool()).get());
  EXPECT_STREQ("java/util/ArrayList", ref->getClassSignature(flow.getConstantPool()));
}

TEST(ClassFileModel, FindOrCreateReusesEntriesAndAppendsMissingOnes) {
  std::vector<uint8_t> bytes = readTestClass("v7/kjptest/Flow7.class");
  ParsedClass parsed = parse(bytes);
  ClassFile& flow = *parsed.model;
  KVector<ConstantPoolInfo*>& pool = flow.getConstantPool();
  int size = pool.size();

  // Existing entries are found, and nothing is added.
  int object = flow.findOrCreateConstantClass(KString("java/lang/Object"));
  EXPECT_EQ(ConstantClassInfo::TAG, pool[object]->getTag());
  int init = flow.findOrCreateMethodRef(KString("java/lang/Object"), KString("<init>"), KString("()V"));
  EXPECT_EQ(ConstantMethodRefInfo::TAG, pool[init]->getTag());
  EXPECT_EQ(init, flow.findOrCreateMethodRef(object, flow.findOrCreateUtf8(KString("<init>")),
                                             flow.findOrCreateUtf8(KString("()V"))));
  EXPECT_EQ(flow.findOrCreateUtf8(KString("loop")), flow.findOrCreateUtf8(KString("loop")));
  EXPECT_EQ(size, pool.size());
  EXPECT_EQ(bytes, write(flow));

  // Missing ones are appended at the end, leaving every old index as it was.
  int text = flow.findOrCreateStringInfo(KString("kjp \xc3\xa4"));
  EXPECT_EQ(size + 1, text);  // the Utf8 first, then the String
  EXPECT_EQ(size + 2, pool.size());
  int number = flow.findOrCreateIntInfo(123456);
  EXPECT_EQ(number, flow.findOrCreateIntInfo(123456));
  int field = flow.findOrCreateFieldRef(KString("kjptest/Flow7"), KString("kjpField"), KString("I"));
  EXPECT_EQ(ConstantFieldRefInfo::TAG, pool[field]->getTag());
  int method = flow.findOrCreateMethodRef(KString("com/kestrix/runtime/Callback"), KString("kjpMethodEntry"), KString("(SS)V"));
  EXPECT_EQ(method, pool.size() - 1);
  EXPECT_EQ(method, flow.findOrCreateMethodRef(KString("com/kestrix/runtime/Callback"), KString("kjpMethodEntry"),
                                               KString("(SS)V")));

  // Methods match by name and descriptor, fields by name alone.
  int methods = flow.getMethods().size();
  int close = flow.findOrCreateMethod(KString("close"), KString("()V"), 9);
  EXPECT_STREQ("close", flow.getMethods()[close]->getName().get());
  EXPECT_EQ(methods, flow.getMethods().size());
  int added = flow.findOrCreateMethod(KString("close"), KString("(I)V"), 9);
  EXPECT_EQ(methods, added);
  EXPECT_EQ(9, flow.getMethods()[added]->getAccessFlags());
  EXPECT_EQ(nullptr, flow.getMethods()[added]->getCodeAttribute());
  int fields = flow.getFields().size();
  int total = flow.findOrCreateField(KString("total"), KString("Ljava/lang/Object;"), 9);
  EXPECT_LT(total, fields);
  EXPECT_EQ(fields, flow.findOrCreateField(KString("ourKJPAlloc"), KString("Z"), 10));
  EXPECT_EQ(fields + 1, flow.getFields().size());

  // The grown class is a valid class again, with the new entries where they were put.
  std::vector<uint8_t> grown = write(flow);
  ParsedClass reread = parse(grown);
  EXPECT_EQ(pool.size(), reread.model->getConstantPool().size());
  EXPECT_EQ(grown, write(*reread.model));
  const ConstantUtf8Info* utf8 = static_cast<const ConstantUtf8Info*>(reread.model->getConstantPool()[size]);
  EXPECT_STREQ("kjp \xc3\xa4", utf8->getValue().get());
  EXPECT_EQ(6, utf8->getLength());
}

TEST(ClassFileModel, InitStringsTakesExistingEntriesOnceAndAppendsTheRest) {
  ParsedClass parsed = parse(readTestClass("v7/kjptest/Flow7.class"));
  ClassFile& flow = *parsed.model;
  int size = flow.getConstantPool().size();
  int codeIndex = flow.findOrCreateUtf8(KString("Code"));
  KVectorSafe<KString> names(4);
  names.push(KString("kjpNew"));
  names.push(KString("Code"));
  names.push(KString("Code"));
  names.push(KString("kjpNew"));
  names.push(KString(""));
  int indices[5];
  flow.initStrings(names, indices);
  EXPECT_EQ(codeIndex, indices[1]);
  // A name standing twice gets the existing entry once; every other occurrence is new.
  EXPECT_EQ(size, indices[0]);
  EXPECT_EQ(size + 1, indices[2]);
  EXPECT_EQ(size + 2, indices[3]);
  EXPECT_EQ(size + 3, indices[4]);
  EXPECT_EQ(size + 4, flow.getConstantPool().size());
  // The empty string is an entry like any other, written as a tag and a zero length.
  std::vector<uint8_t> written = write(flow);
  ParsedClass reread = parse(written);
  EXPECT_EQ(0, static_cast<ConstantUtf8Info*>(reread.model->getConstantPool()[size + 3])->getLength());
}

TEST(ClassFileModel, BuiltClassesWithoutSuperOrWithOddShapesRoundTrip) {
  // java/lang/Object has no super class (index 0); a Code attribute may hold 65535 bytes
  // of code; an attribute nested in Code that the model doesn't know is carried as it is.
  ClassBytesBuilder b;
  int code = b.utf8("Code");
  int custom = b.utf8("KjpCustomNested");
  Bytes big(65535, 0x00);
  big.back() = 0xB1;
  b.method(0x9, "big", "()V",
           {ClassBytesBuilder::attribute(code, ClassBytesBuilder::codeBody(0, 0, big, {},
                                                                           {ClassBytesBuilder::attribute(custom, {1, 2, 3})}))});
  Bytes bytes = b.build("java/lang/Object", "");
  ParsedClass parsed = parse(bytes);
  EXPECT_STREQ("java/lang/Object", parsed.model->getSignature().get());
  EXPECT_EQ(65535, parsed.model->getMethods()[0]->getCodeAttribute()->getCodeLength());
  EXPECT_EQ(bytes, write(*parsed.model));
}
