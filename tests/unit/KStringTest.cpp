#include <gtest/gtest.h>

#include "agent/KHelpers.h"
#include "agent/KLock.h"
#include "agent/KString.h"

#include <pthread.h>

namespace {

TEST(KStringTest, ConstructionCopiesAndConcatenates) {
  KString empty;
  EXPECT_STREQ("", empty.get());
  EXPECT_TRUE(empty.isEmpty());
  char source[] = "hello";
  KString s(source);
  source[0] = 'j';
  EXPECT_STREQ("hello", s.get());
  EXPECT_STREQ("hello world", KString("hello ", "world").get());
  EXPECT_STREQ("a-b", KString("a-", KString("b")).get());
  EXPECT_STREQ("hel", KString("hello", 3).get());
  EXPECT_STREQ("ell", KString("hello", 1, 4).get());
  KString t = s + "!";
  EXPECT_STREQ("hello!", t.get());
  t += "?";
  EXPECT_STREQ("hello!?", t.get());
  t = t;  // self-assignment keeps the value
  EXPECT_STREQ("hello!?", t.get());
  t = s;
  EXPECT_STREQ("hello", t.get());
  EXPECT_EQ(5, t.length());
}

TEST(KStringTest, ComparisonsAndSearch) {
  KString s("java.lang.String");
  EXPECT_TRUE(s == "java.lang.String");
  EXPECT_TRUE(s != "java.lang.Strin");
  EXPECT_TRUE(s != "java.lang.Stringx");
  EXPECT_TRUE(s.startsWith(""));
  EXPECT_TRUE(s.startsWith("java."));
  EXPECT_FALSE(s.startsWith("javax"));
  EXPECT_FALSE(KString("ja").startsWith("java"));
  EXPECT_TRUE(KString::startsWith("abc", "ab"));
  EXPECT_EQ(4, s.indexOf("."));
  EXPECT_EQ(10, s.indexOf("String"));
  EXPECT_EQ(-1, s.indexOf("Integer"));
}

TEST(KStringTest, Substrings) {
  KString s("abcdef");
  EXPECT_STREQ("", s.substring(0, 0).get());
  EXPECT_STREQ("cdef", s.substring(2).get());
  EXPECT_STREQ("", s.substring(6).get());
  EXPECT_STREQ("bc", s.substring(1, 3).get());
}

TEST(KStringDeathTest, SubstringBoundsAreChecked) {
  EXPECT_DEATH(KString("abc").substring(1, 0), "beginIndex <= endIndex");
  EXPECT_DEATH(KString("abc").substring(-1, 1), "beginIndex >= 0");
  EXPECT_DEATH(KString("abc").substring(0, 4), "endIndex <= len");
  EXPECT_DEATH(KString("abc", 4), "_length\\(s\\) >= length");
  EXPECT_DEATH(KString(static_cast<const char*>(nullptr), "x"), "part1");
}

TEST(KStringTest, SplitDropsEmptyRuns) {
  KVectorSafe<KString> parts(1);
  KString(",,a,,bc;d,").split(",;", parts);
  ASSERT_EQ(3, parts.size());
  EXPECT_STREQ("a", parts[0].get());
  EXPECT_STREQ("bc", parts[1].get());
  EXPECT_STREQ("d", parts[2].get());
  KVectorSafe<KString> none(1);
  KString(",;,").split(",;", none);
  EXPECT_EQ(0, none.size());
  KString("tail").split(",", none);
  ASSERT_EQ(1, none.size());
  EXPECT_STREQ("tail", none[0].get());
}

TEST(KStringTest, WideStrings) {
  const unsigned short text[] = {'a', 0x4e2d, 'b', 0};
  KWString w(text);
  EXPECT_EQ(3, w.length());
  const unsigned short suffix[] = {'!', 0};
  KWString joined = w + suffix;
  EXPECT_EQ(4, joined.length());
  EXPECT_EQ(0x4e2d, joined.get()[1]);
  EXPECT_TRUE(joined.startsWith(text));
}

TEST(KHelpersTest, DuplicateUsesArrayMemory) {
  char* copy = k_strdup("kestrix");
  EXPECT_STREQ("kestrix", copy);
  delete[] copy;
  EXPECT_EQ(nullptr, k_strdup(nullptr));
  EXPECT_EQ(5, k_abs(-5));
  char buffer[8];
  EXPECT_EQ(buffer, k_strcpy(buffer, "abc"));
  EXPECT_STREQ("abc", buffer);
}

struct LockedCounter {
  KLock lock;
  long value = 0;
};

void* incrementMany(void* argument) {
  LockedCounter* counter = static_cast<LockedCounter*>(argument);
  for (int i = 0; i < 100000; i++) {
    LockHolder outer(&counter->lock, "KStringTest(1)");
    LockHolder inner(&counter->lock, "KStringTest(2)");  // recursive entry by the same thread
    counter->value++;
  }
  return nullptr;
}

TEST(KLockTest, RecursiveAndExclusive) {
  LockedCounter counter;
  pthread_t threads[4];
  for (pthread_t& t : threads) {
    ASSERT_EQ(0, pthread_create(&t, nullptr, incrementMany, &counter));
  }
  for (pthread_t& t : threads) {
    pthread_join(t, nullptr);
  }
  EXPECT_EQ(400000, counter.value);
}

}  // namespace
