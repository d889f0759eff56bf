#include <gtest/gtest.h>

#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"
#include "classfile/LineNumberTableAttribute.h"
#include "classfile/LocalVariableTableAttribute.h"
#include "classfile/StackMapTableAttribute.h"
#include "tests/classfile/StackMapStripper.h"
#include "tests/unit/ClassBytesBuilder.h"
#include "tests/unit/ClassFileTestSupport.h"

using namespace kjptest;

namespace {

// One method, 10 bytes of code, two handlers (one that covers the whole code and is
// handled at 5, one from 2 to 4 catching a class, handled at 6), two lines, both
// local-variable tables and two stack maps.
Bytes methodClass(int major) {
  ClassBytesBuilder b;
  b.major = major;
  int code = b.utf8("Code");
  int lines = b.utf8("LineNumberTable");
  int locals = b.utf8("LocalVariableTable");
  int types = b.utf8("LocalVariableTypeTable");
  int maps = b.utf8("StackMapTable");
  int name = b.utf8("this");
  int descriptor = b.utf8("Lkjptest/Built;");
  int exception = b.classRef("java/lang/Exception");
  Bytes body = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB1};
  Bytes lineTable, localTable, typeTable;
  put2(lineTable, 2);
  put2(lineTable, 0);
  put2(lineTable, 10);
  put2(lineTable, 4);
  put2(lineTable, 11);
  for (Bytes* table : {&localTable, &typeTable}) {
    put2(*table, 1);
    put2(*table, 0);
    put2(*table, 10);
    put2(*table, name);
    put2(*table, descriptor);
    put2(*table, 0);
  }
  Bytes map = {0, 1, 5};  // one same_frame at offset 5
  b.method(0x1, "run", "()V",
           {ClassBytesBuilder::attribute(
               code, ClassBytesBuilder::codeBody(2, 3, body, {{0, 10, 5, 0}, {2, 4, 6, exception}},
                                                 {ClassBytesBuilder::attribute(lines, lineTable),
                                                  ClassBytesBuilder::attribute(maps, map),
                                                  ClassBytesBuilder::attribute(locals, localTable),
                                                  ClassBytesBuilder::attribute(types, typeTable),
                                                  ClassBytesBuilder::attribute(maps, map)}))});
  b.method(0x401, "abstractOne", "()V", {});
  return b.build();
}

struct Fixture {
  explicit Fixture(int major = 52) : bytes(methodClass(major)), parsed(parse(bytes)) {
    code = parsed.model->getMethods()[0]->getCodeAttribute();
  }
  Bytes bytes;
  ParsedClass parsed;
  CodeAttribute* code;

  int startPc(int i) { return code->getExceptionTable()[i]->myStartPc; }
  int endPc(int i) { return code->getExceptionTable()[i]->myEndPc; }
  int handlerPc(int i) { return code->getExceptionTable()[i]->myHandlerPc; }
  int line(int i) {
    for (int a = 0; a < code->getAttributes().size(); a++) {
      if (code->getAttributes()[a]->hasName(code->getConstantPool(), LineNumberTableAttribute::NAME)) {
        return static_cast<LineNumberTableAttribute*>(code->getAttributes()[a])->getLineNumbers()[i].myStartPc;
      }
    }
    return -1;
  }
};

}  // namespace

TEST(CodeAttribute, ReadsTheWholeStructure) {
  Fixture f;
  ASSERT_NE(nullptr, f.code);
  EXPECT_EQ(2, f.code->getMaxStack());
  EXPECT_EQ(3, f.code->getMaxLocals());
  EXPECT_EQ(10, f.code->getCodeLength());
  EXPECT_EQ(2, f.code->getExceptionTable().size());
  ASSERT_NE(nullptr, f.code->getLocalVariableTable());
  ASSERT_NE(nullptr, f.code->getLocalVariableTypeTable());
  EXPECT_STREQ("this", f.code->getLocalVariableTable()->getLocalVariables()[0]->getName(f.code->getConstantPool()).get());
  ASSERT_NE(nullptr, f.code->getStackMapTable());
  EXPECT_EQ(f.bytes, write(*f.parsed.model));
}

TEST(CodeAttribute, ShiftByAConstantMovesHandlersAndLinesButTheFirstLineCoversTheNewCode) {
  Fixture f;
  f.code->shiftExceptionTableAndLineNumbers(7);
  EXPECT_EQ(7, f.startPc(0));
  EXPECT_EQ(17, f.endPc(0));
  EXPECT_EQ(12, f.handlerPc(0));
  EXPECT_EQ(9, f.startPc(1));
  EXPECT_EQ(11, f.endPc(1));
  EXPECT_EQ(13, f.handlerPc(1));
  // The method's first line starts at 0 still, so the entry code has a line to show.
  EXPECT_EQ(0, f.line(0));
  EXPECT_EQ(11, f.line(1));
}

TEST(CodeAttribute, ShiftThroughAMapSendsAnEndAtTheOldLengthToTheNewLength) {
  Fixture f;
  Bytes longer(25, 0);
  longer.back() = 0xB1;
  f.code->setCode(longer.data(), 25);
  int indices[10];
  for (int i = 0; i < 10; i++) indices[i] = 2 * i + 1;
  f.code->shiftExceptionTableAndLineNumbers(indices, 10);
  EXPECT_EQ(1, f.startPc(0));
  EXPECT_EQ(25, f.endPc(0));  // the old end, 10, has no element in the map
  EXPECT_EQ(11, f.handlerPc(0));
  EXPECT_EQ(5, f.startPc(1));
  EXPECT_EQ(9, f.endPc(1));
  EXPECT_EQ(13, f.handlerPc(1));
  EXPECT_EQ(1, f.line(0));
  EXPECT_EQ(9, f.line(1));
  // setCode kept the attribute length right: the class writes and reads back.
  Bytes written = write(*f.parsed.model);
  EXPECT_EQ(f.bytes.size() + 15, written.size());
  ParsedClass reread = parse(written);
  EXPECT_EQ(25, reread.model->getMethods()[0]->getCodeAttribute()->getCodeLength());
}

TEST(CodeAttribute, CountsClampAndLocalsComeInPairs) {
  Fixture f;
  EXPECT_EQ(4, f.code->addLocalVariableToTable(*f.parsed.model, 0, 10, KString("kjpIdx"), KString("I")));
  EXPECT_EQ(6, f.code->addLocalVariableToTable(*f.parsed.model, 0, 10, KString("kjpParameter"), KString("Ljava/lang/Object;")));
  EXPECT_EQ(7, f.code->getMaxLocals());
  // Nothing was added to the table: the agent's locals stay out of debuggers' sight.
  EXPECT_EQ(1, f.code->getLocalVariableTable()->getLocalVariables().size());

  f.code->incMaxStackCount(32764);
  EXPECT_EQ(32766, f.code->getMaxStack());
  f.code->incMaxStackCount(1);
  EXPECT_EQ(32767, f.code->getMaxStack());
  f.code->incMaxStackCount(100);
  EXPECT_EQ(32767, f.code->getMaxStack());
  f.code->incMaxLocalsCount(40000);
  EXPECT_EQ(32767, f.code->getMaxLocals());
}

TEST(CodeAttribute, CreatedCodeIsALoneReturnThatWritesConsistently) {
  Fixture f;
  MethodInfo* method = f.parsed.model->getMethods()[1];
  ASSERT_EQ(nullptr, method->getCodeAttribute());
  CodeAttribute* created = method->createCodeAttribute();
  EXPECT_EQ(created, method->getCodeAttribute());
  EXPECT_EQ(13, created->getAttributeLength());
  ASSERT_EQ(1, created->getCodeLength());
  EXPECT_EQ(0xB1, created->getCode()[0]);
  const unsigned char body[] = {0x2A, 0xB1};
  created->setCode(body, 2);
  created->incMaxLocalsCount(1);
  created->incMaxStackCount(1);
  ParsedClass reread = parse(write(*f.parsed.model));
  CodeAttribute* readBack = reread.model->getMethods()[1]->getCodeAttribute();
  ASSERT_NE(nullptr, readBack);
  EXPECT_EQ(2, readBack->getCodeLength());
  EXPECT_EQ(1, readBack->getMaxStack());
}

TEST(CodeAttribute, AnAttributeLengthThatDisagreesWithItsBodyIsNeverWritten) {
  Fixture f;
  f.code->setAttributeLength(f.code->getAttributeLength() + 1);
  KVector<unsigned char> out(64);
  DataOutput dataOut(out);
  EXPECT_THROW(f.parsed.model->writeClass(dataOut), ClassFormatError);
}

TEST(CodeAttribute, EveryStackMapOfAVersion50ClassIsDroppedWithTheLengthsCorrected) {
  Fixture f(50);
  EXPECT_EQ(nullptr, f.code->getStackMapTable());
  EXPECT_EQ(3, f.code->getAttributes().size());
  Bytes written = write(*f.parsed.model);
  EXPECT_EQ(StackMapStripper::strip(f.bytes), written);
  EXPECT_EQ(f.bytes.size() - 2 * (6 + 3), written.size());
}

TEST(CodeAttribute, ReplacingTheStackMapBodyKeepsTheCodeLengthRight) {
  Fixture f(52);
  const unsigned char map[] = {0, 2, 5, 1};  // same_frame at 5, same_frame at 7
  f.code->setStackMapTable(map, 4);
  Bytes written = write(*f.parsed.model);
  EXPECT_EQ(f.bytes.size() + 1, written.size());
  ParsedClass reread = parse(written);
  EXPECT_EQ(4, reread.model->getMethods()[0]->getCodeAttribute()->getStackMapTable()->getBodyLength());
}
