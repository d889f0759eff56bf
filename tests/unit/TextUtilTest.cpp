#include <gtest/gtest.h>

#include <random>
#include <string>

#include "agent/TextUtil.h"

namespace {

std::string unquoted(const char* value) {
  char* result = unquote(value);
  std::string text = result;
  delete[] result;
  return text;
}

std::string fqName(const char* signature) {
  char* result = classSignature2fqName(signature);
  std::string text = result;
  delete[] result;
  return text;
}

TEST(TextUtilTest, UnquoteDecodesHexPairsAfterThePrefix) {
  EXPECT_EQ(nullptr, unquote(nullptr));
  EXPECT_EQ("AB", unquoted("KJPQUOTED4142"));
  EXPECT_EQ("", unquoted("KJPQUOTED"));
  // Either case, first digit the high nibble; commas and UTF-8 come through as bytes.
  EXPECT_EQ(",;,", unquoted("KJPQUOTED2c3B2C"));
  EXPECT_EQ("/tmp/caf\xc3\xa9 dir", unquoted("KJPQUOTED2f746d702f636166c3a920646972"));
  // A NUL pair ends the C string there; what comes before must survive.
  EXPECT_EQ("A", unquoted("KJPQUOTED410042"));
}

TEST(TextUtilTest, UnquoteReturnsMalformedOrPlainValuesUnchanged) {
  EXPECT_EQ("KJPQUOTED414", unquoted("KJPQUOTED414"));
  EXPECT_EQ("KJPQUOTED4g", unquoted("KJPQUOTED4g"));
  EXPECT_EQ("KJPQUOTED 41", unquoted("KJPQUOTED 41"));
  EXPECT_EQ("plain,value", unquoted("plain,value"));
  EXPECT_EQ("KJPQUOTE41", unquoted("KJPQUOTE41"));
  EXPECT_EQ("", unquoted(""));

  // Always a copy the caller may free, never the argument itself.
  const char* plain = "x";
  char* copy = unquote(plain);
  EXPECT_NE(plain, copy);
  delete[] copy;
}

TEST(TextUtilTest, WildcardMatchesStarRunsOnly) {
  EXPECT_TRUE(wildcardMatch("a*c", "abc"));
  EXPECT_TRUE(wildcardMatch("a*c", "ac"));
  EXPECT_FALSE(wildcardMatch("a*c", "abd"));
  EXPECT_TRUE(wildcardMatch("**", ""));
  EXPECT_TRUE(wildcardMatch("", ""));
  EXPECT_FALSE(wildcardMatch("", "a"));
  EXPECT_FALSE(wildcardMatch("a", ""));
  EXPECT_TRUE(wildcardMatch("a?c", "a?c"));
  EXPECT_FALSE(wildcardMatch("a?c", "abc"));
  EXPECT_FALSE(wildcardMatch("Java.*", "java.lang.String"));
  EXPECT_TRUE(wildcardMatch(nullptr, "anything"));

  EXPECT_TRUE(wildcardMatch("java.util.concurrent.*", "java.util.concurrent.locks.ReentrantLock"));
  EXPECT_FALSE(wildcardMatch("java.util.concurrent.*", "java.util.HashMap"));
  // A later literal part must find its place after an earlier one has matched too early.
  EXPECT_TRUE(wildcardMatch("*ab*ab", "xabyabab"));
  EXPECT_TRUE(wildcardMatch("*.Foo*", "a.Foob.Foo"));
  EXPECT_FALSE(wildcardMatch("*a*b", "ba"));
  EXPECT_TRUE(wildcardMatch("a*b*", "ab"));
}

// The plain recursive reading of the matching rules, to check the fast matcher against.
bool referenceMatch(const char* p, const char* t) {
  if (*t == 0) {
    while (*p == '*') {
      p++;
    }
    return *p == 0;
  }
  if (*p == '*') {
    while (*p == '*') {
      p++;
    }
    if (*p == 0) {
      return true;
    }
    for (; *t != 0; t++) {
      if (referenceMatch(p, t)) {
        return true;
      }
    }
    return false;
  }
  return *p == *t && referenceMatch(p + 1, t + 1);
}

TEST(TextUtilTest, WildcardAgreesWithRecursiveMatchingOnRandomInput) {
  std::mt19937 random(12345);
  const char alphabet[] = "ab*";
  for (int round = 0; round < 20000; round++) {
    std::string pattern, text;
    int patternLength = static_cast<int>(random() % 7);
    int textLength = static_cast<int>(random() % 8);
    for (int i = 0; i < patternLength; i++) {
      pattern += alphabet[random() % 3];
    }
    for (int i = 0; i < textLength; i++) {
      text += alphabet[random() % 2];
    }
    ASSERT_EQ(referenceMatch(pattern.c_str(), text.c_str()), wildcardMatch(pattern.c_str(), text.c_str()))
        << "pattern '" << pattern << "' text '" << text << "'";
  }
}

TEST(TextUtilTest, SignaturesBecomeJavaNames) {
  EXPECT_EQ("java.lang.String[][]", fqName("[[Ljava/lang/String;"));
  EXPECT_EQ("int[]", fqName("[I"));
  EXPECT_EQ("java.util.Map$Entry", fqName("Ljava/util/Map$Entry;"));
  EXPECT_EQ("java.util.Map", fqName("java/util/Map"));
  EXPECT_EQ("long", fqName("J"));
  EXPECT_EQ("boolean[][][]", fqName("[[[Z"));
  // A class in the unnamed package whose name starts like a primitive descriptor.
  EXPECT_EQ("Bar", fqName("Bar"));
  EXPECT_EQ("", fqName(""));
  EXPECT_EQ("[]", fqName("[L"));
}

TEST(TextUtilTest, EnglishErrorMessages) {
  EXPECT_STREQ("No such file or directory", getEnglishErrorMessage(2));
  EXPECT_STREQ("No space left on device", getEnglishErrorMessage(28));
  EXPECT_STREQ("Directory not empty", getEnglishErrorMessage(39));
  for (int errnum = 1; errnum <= 39; errnum++) {
    bool gap = errnum == 15 || errnum == 26;
    EXPECT_EQ(gap, getEnglishErrorMessage(errnum) == nullptr) << errnum;
  }
  EXPECT_EQ(nullptr, getEnglishErrorMessage(0));
  EXPECT_EQ(nullptr, getEnglishErrorMessage(40));
  EXPECT_EQ(nullptr, getEnglishErrorMessage(-1));
}

}  // namespace
