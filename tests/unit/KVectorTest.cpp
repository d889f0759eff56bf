#include <gtest/gtest.h>

#include "agent/KString.h"
#include "agent/KVector.h"
#include "agent/KVectorSafe.h"

namespace {

TEST(KVectorTest, CapacityDoublesAsElementsArePushed) {
  KVector<int> v(1);
  EXPECT_EQ(1, v.capacity());
  int expected[] = {1, 2, 4, 4, 8, 8, 8, 8, 16};
  for (int i = 0; i < 9; i++) {
    v.push(i * 10);
    EXPECT_EQ(expected[i], v.capacity()) << "after push " << i;
  }
  ASSERT_EQ(9, v.size());
  for (int i = 0; i < 9; i++) {
    EXPECT_EQ(i * 10, v[i]);
  }
}

TEST(KVectorTest, PushOfOwnElementSurvivesGrowth) {
  KVector<long> v(2);
  v.push(7);
  v.push(8);
  v.push(v[0]);  // grows while the argument points into the old array
  EXPECT_EQ(7, v[2]);
}

TEST(KVectorTest, PopSetAndLast) {
  KVector<int> v(4);
  v.push(1);
  v.push(2);
  v.set(0, 5, 3);
  EXPECT_EQ(5, v.get(0));
  EXPECT_EQ(2, v.last());
  EXPECT_EQ(2, v.pop());
  EXPECT_EQ(1, v.size());
  EXPECT_EQ(4, v.capacity());
}

TEST(KVectorTest, RemoveRangeMovesTailAndKeepsCapacity) {
  KVector<int> v(2);
  for (int i = 0; i < 10; i++) {
    v.push(i);
  }
  v.removeRange(4, 4);
  EXPECT_EQ(10, v.size());
  v.removeRange(2, 5);
  ASSERT_EQ(7, v.size());
  int expected[] = {0, 1, 5, 6, 7, 8, 9};
  for (int i = 0; i < 7; i++) {
    EXPECT_EQ(expected[i], v[i]);
  }
  v.removeRange(0, 7);
  EXPECT_TRUE(v.isEmpty());
  EXPECT_EQ(16, v.capacity());
}

TEST(KVectorDeathTest, MisuseEndsTheProcessWithTheCondition) {
  EXPECT_DEATH({ KVector<int> v(0); }, "initialCapacity > 0");
  EXPECT_DEATH(
      {
        KVector<int> v(1);
        v.pop();
      },
      "mySize > 0");
  EXPECT_DEATH(
      {
        KVector<int> v(1);
        v.push(1);
        v.get(1);
      },
      "index < mySize");
  EXPECT_DEATH(
      {
        KVector<int> v(1);
        v.get(-1);
      },
      "index >= 0");
  EXPECT_DEATH(
      {
        KVector<int> v(1);
        v.set(0, 1, 7);
      },
      "index >= 0 && index < mySize");
  EXPECT_DEATH(
      {
        KVector<int> v(1);
        v.push(1);
        v.removeRange(0, 2);
      },
      "toIndex <= mySize");
  EXPECT_DEATH(
      {
        KVector<int> v(1);
        v.removeRange(-1, 0);
      },
      "fromIndex >= 0");
}

TEST(KVectorSafeTest, ElementsAreDeepCopiesThatSurviveGrowthAndRemoval) {
  KVectorSafe<KString> v(1);
  char buffer[16] = "alpha";
  v.push(KString(buffer));
  buffer[0] = 'X';  // the vector must not share the caller's memory
  v.push(KString("beta"));
  v.push(KString("gamma"));
  v.push(KString("delta"));
  EXPECT_EQ(4, v.capacity());
  EXPECT_TRUE(v[0] == "alpha");
  v.removeRange(1, 3);
  ASSERT_EQ(2, v.size());
  EXPECT_TRUE(v[0] == "alpha");
  EXPECT_TRUE(v[1] == "delta");
  v.set(0, KString("omega"), 1);
  EXPECT_TRUE(v[0] == "omega");
  KString popped = v.pop();
  EXPECT_TRUE(popped == "delta");
}

}  // namespace
