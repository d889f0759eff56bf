#include <gtest/gtest.h>

#include <string>

#include "agent/Options.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/ClassRewriter.h"
#include "tests/unit/ClassBytesBuilder.h"
#include "tests/unit/ClassFileTestSupport.h"

using namespace kjptest;

namespace {

const std::string WARNING_PREFIX = "[Kestrix Java Profiler 8.0.1] *** Warning ***: class kjptest/Bad cannot be instrumented: ";

struct Outcome {
  bool rewritten;
  std::string stderrText;
  Bytes output;
};

Outcome rewrite(const Bytes& bytes, bool quiet = false) {
  bool wasQuiet = ourOptions.myQuiet;
  ourOptions.myQuiet = quiet;
  std::unique_ptr<KVector<unsigned char>> input = toKVector(bytes);
  KVector<unsigned char> output(16);
  testing::internal::CaptureStderr();
  Outcome outcome;
  outcome.rewritten = ClassRewriter::rewrite("kjptest/Bad", *input, output, nullptr, nullptr);
  outcome.stderrText = testing::internal::GetCapturedStderr();
  outcome.output = toBytes(output);
  ourOptions.myQuiet = wasQuiet;
  return outcome;
}

// Expects the class to be refused with one warning line whose reason contains 'reason'.
void expectRefused(const Bytes& bytes, const std::string& reason) {
  Outcome outcome = rewrite(bytes);
  EXPECT_FALSE(outcome.rewritten);
  EXPECT_TRUE(outcome.output.empty());
  EXPECT_EQ(0u, outcome.stderrText.find(WARNING_PREFIX)) << outcome.stderrText;
  EXPECT_NE(std::string::npos, outcome.stderrText.find(reason)) << outcome.stderrText;
  EXPECT_EQ('\n', outcome.stderrText.back());
  EXPECT_EQ(outcome.stderrText.find('\n'), outcome.stderrText.size() - 1) << "one line only";
}

// A class whose one method has the given Code body and nested attributes.
Bytes withCode(const Bytes& code, const std::vector<ClassBytesBuilder::Handler>& handlers = {},
               const std::vector<std::pair<std::string, Bytes>>& nested = {}) {
  ClassBytesBuilder b;
  int codeName = b.utf8("Code");
  std::vector<Bytes> attributes;
  for (const auto& n : nested) attributes.push_back(ClassBytesBuilder::attribute(b.utf8(n.first), n.second));
  b.method(0x9, "m", "()V", {ClassBytesBuilder::attribute(codeName, ClassBytesBuilder::codeBody(1, 1, code, handlers, attributes))});
  return b.build("kjptest/Bad");
}

}  // namespace

TEST(ClassFileRobustness, AGoodClassIsRewrittenSilently) {
  Bytes bytes = readTestClass("v17/kjptest/Modern17.class");
  Outcome outcome = rewrite(bytes);
  EXPECT_TRUE(outcome.rewritten);
  EXPECT_EQ(bytes, outcome.output);
  EXPECT_EQ("", outcome.stderrText);
}

TEST(ClassFileRobustness, EveryTruncationOfARealClassIsRefused) {
  Bytes bytes = readTestClass("v7/kjptest/Flow7.class");
  ASSERT_FALSE(bytes.empty());
  ourOptions.myQuiet = true;
  for (size_t length = 0; length < bytes.size(); length++) {
    std::unique_ptr<KVector<unsigned char>> input = toKVector(Bytes(bytes.begin(), bytes.begin() + length));
    KVector<unsigned char> output(16);
    EXPECT_FALSE(ClassRewriter::rewrite("kjptest/Bad", *input, output, nullptr, nullptr)) << length;
    EXPECT_EQ(0, output.size());
  }
  ourOptions.myQuiet = false;
  expectRefused(Bytes(bytes.begin(), bytes.begin() + 100), "truncated");
  // And bytes behind the end are no class either.
  Bytes longer = bytes;
  longer.push_back(0);
  expectRefused(longer, "follow the end");
}

TEST(ClassFileRobustness, QuietSuppressesTheWarning) {
  Outcome outcome = rewrite(Bytes{0xCA, 0xFE, 0xBA, 0xBE, 0}, true);
  EXPECT_FALSE(outcome.rewritten);
  EXPECT_EQ("", outcome.stderrText);
}

TEST(ClassFileRobustness, UnknownOrInconsistentConstantsAreRefused) {
  for (int tag : {0, 2, 13, 14, 21, 255}) {
    SCOPED_TRACE(tag);
    ClassBytesBuilder b;
    b.raw(Bytes{static_cast<uint8_t>(tag), 0, 1});
    expectRefused(b.build("kjptest/Bad"), "unknown constant pool tag " + std::to_string(tag));
  }
  {
    ClassBytesBuilder b;  // a class entry naming an int
    b.raw(Bytes{3, 0, 0, 0, 7});
    b.raw(Bytes{7, 0, 1});
    expectRefused(b.build("kjptest/Bad"), "refers to a missing or wrong entry");
  }
  {
    ClassBytesBuilder b;  // a reference to slot 0
    b.raw(Bytes{8, 0, 0});
    expectRefused(b.build("kjptest/Bad"), "string index 0");
  }
  {
    ClassBytesBuilder b;  // modified UTF-8 has no zero bytes
    b.raw(Bytes{1, 0, 3, 'a', 0, 'b'});
    expectRefused(b.build("kjptest/Bad"), "zero byte");
  }
  // A long in the last slot would need a slot behind the pool.
  expectRefused(Bytes{0xCA, 0xFE, 0xBA, 0xBE, 0, 0, 0, 52, 0, 2, 5, 0, 0, 0, 0, 0, 0, 0, 1}, "last pool slot");
}

TEST(ClassFileRobustness, CodeOfImpossibleLengthsIsRefused) {
  expectRefused(withCode(Bytes{}), "code length of 0");
  Bytes huge(65536, 0);
  expectRefused(withCode(huge), "code length of 65536");
  expectRefused(withCode(Bytes{0xB1}, {{0, 2, 0, 0}}), "exception handler lies outside");
  expectRefused(withCode(Bytes{0xB1, 0xB1}, {{1, 1, 0, 0}}), "is empty");
  Bytes lines;
  put2(lines, 1);
  put2(lines, 1);
  put2(lines, 7);
  expectRefused(withCode(Bytes{0xB1}, {}, {{"LineNumberTable", lines}}), "behind the code");
}

TEST(ClassFileRobustness, AttributesThatDisagreeWithTheirLengthsAreRefused) {
  // A table that claims more entries than its length holds: caught at its own end.
  Bytes lines;
  put2(lines, 2);
  put2(lines, 0);
  put2(lines, 1);
  expectRefused(withCode(Bytes{0xB1}, {}, {{"LineNumberTable", lines}}), "truncated");
  // A table with bytes to spare.
  Bytes spare;
  put2(spare, 0);
  put2(spare, 0);
  expectRefused(withCode(Bytes{0xB1}, {}, {{"LineNumberTable", spare}}), "uses 2 of its 4 bytes");
  // A nested attribute longer than the Code attribute around it.
  Bytes bytes = withCode(Bytes{0xB1}, {}, {{"KjpOther", Bytes{1, 2, 3, 4}}});
  bytes[bytes.size() - 10] = 0x7F;  // the nested attribute's length, now far too big
  expectRefused(bytes, "overruns its enclosing structure");
  // An attribute name that is no string constant.
  ClassBytesBuilder b;
  b.classAttribute(ClassBytesBuilder::attribute(999, Bytes{}));
  expectRefused(b.build("kjptest/Bad"), "attribute name index 999");
}

TEST(ClassFileRobustness, AClassTheEditorCannotChangeComesBackUnchanged) {
  Bytes bytes = readTestClass("v7/kjptest/Flow7.class");
  std::unique_ptr<KVector<unsigned char>> input = toKVector(bytes);
  KVector<unsigned char> output(16);
  testing::internal::CaptureStderr();
  bool rewritten = ClassRewriter::rewrite(
      "kjptest/Bad", *input, output,
      [](ClassFile& classFile, void*) {
        classFile.findOrCreateUtf8(KString("kjpSomething"));
        throw ClassFormatError("a branch no longer reaches");
      },
      nullptr);
  std::string text = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(rewritten);
  EXPECT_EQ(0, output.size());
  EXPECT_EQ(WARNING_PREFIX + "a branch no longer reaches\n", text);
  EXPECT_EQ(bytes, toBytes(*input));
}

TEST(ClassFileRobustness, AClassThatOutgrowsTheFormatIsNotWritten) {
  // 65535 is the most constants a class can count; one more and the class is refused
  // instead of being written with a wrapped count.
  Bytes bytes = readTestClass("v7/kjptest/Flow7.class");
  ParsedClass parsed = parse(bytes);
  int missing = 0x10000 - parsed.model->getConstantPool().size();
  KVectorSafe<KString> names(missing);
  for (int i = 0; i < missing; i++) {
    names.push(KString(("kjp" + std::to_string(i)).c_str()));
  }
  std::vector<int> indices(missing);
  parsed.model->initStrings(names, indices.data());
  ASSERT_EQ(0x10000, parsed.model->getConstantPool().size());
  KVector<unsigned char> out(16);
  DataOutput dataOut(out);
  EXPECT_THROW(parsed.model->writeClass(dataOut), ClassFormatError);
}
