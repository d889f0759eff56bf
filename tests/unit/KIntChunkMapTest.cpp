#include <gtest/gtest.h>

#include "db/IndexPool.h"
#include "db/KIntChunkMap.h"

namespace {

struct Row {
  jint stamp;
  jint value;
};

TEST(KIntChunkMapTest, CapacityIsWholeChunksAndGrowsExactlyToTheChunkAsked) {
  KIntChunkMap<Row> map(1024, Row{0, 0});
  EXPECT_EQ(1280, map.getCapacity());
  EXPECT_EQ(5, map.getChunkCount());

  EXPECT_EQ(nullptr, map.getPtr(300, false));
  EXPECT_EQ(0, map.getAllocatedChunkCount());

  ASSERT_NE(nullptr, map.getPtr(300, true));
  EXPECT_EQ(1, map.getAllocatedChunkCount());
  EXPECT_EQ(1280, map.getCapacity());

  // Growth goes to exactly one chunk beyond the one asked for, with no doubling.
  ASSERT_NE(nullptr, map.getPtr(1280, true));
  EXPECT_EQ(1536, map.getCapacity());
  ASSERT_NE(nullptr, map.getPtr(5000, true));
  EXPECT_EQ(20 * 256, map.getCapacity());
  EXPECT_EQ(nullptr, map.getPtr(100000, false));
  EXPECT_EQ(20 * 256, map.getCapacity());

  KIntChunkMap<Row> methods(10485760, Row{0, 0});
  EXPECT_EQ(40961, methods.getChunkCount());
  EXPECT_EQ(10486016, methods.getCapacity());
}

TEST(KIntChunkMapTest, ElementExistsOnlyOnceItsFirstWordDiffersFromTheDefault) {
  KIntChunkMap<Row> map(10, Row{0, 7});
  Row* row = map.getPtr(3, true);
  EXPECT_EQ(0, row->stamp);
  EXPECT_EQ(7, row->value);
  row->value = 99;
  // Only the first word counts: a changed value without a stamp is still absent.
  EXPECT_EQ(nullptr, map.getPtr(3, false));
  row->stamp = -4;
  EXPECT_EQ(row, map.getPtr(3, false));
  EXPECT_EQ(row, map.getExistingPtr(3));
  EXPECT_EQ(map.getPtr(4, true), map.getExistingPtr(4));
  EXPECT_EQ(nullptr, map.getExistingPtr(256));

  KIntChunkMap<jint> ints(10, -1);
  *ints.getPtr(5, true) = 0;
  EXPECT_NE(nullptr, ints.getPtr(5, false));
  EXPECT_EQ(nullptr, ints.getPtr(6, false));
}

TEST(KIntChunkMapTest, ElementsNeverMoveWhenTheChunkArrayGrowsAndDeletedChunksReadAbsent) {
  KIntChunkMap<Row> map(1, Row{0, 0});
  Row* first = map.getPtr(10, true);
  first->stamp = 1;
  for (jint i = 0; i < 100; i++) {
    map.getPtr(i * 256 + 1, true)->stamp = 1;
  }
  EXPECT_EQ(first, map.getPtr(10, false));
  EXPECT_EQ(0, map.getMinIndex());

  map.deleteChunk(0);
  map.deleteChunk(1);
  EXPECT_EQ(nullptr, map.getPtr(10, false));
  EXPECT_EQ(512, map.getMinIndex());
  map.deleteAllChunks();
  EXPECT_EQ(-1, map.getMinIndex());
  EXPECT_EQ(100 * 256, map.getCapacity());
}

TEST(KIntChunkMapDeathTest, NegativeIndexAndCapacityFail) {
  KIntChunkMap<jint> map(1, 0);
  EXPECT_DEATH(map.getPtr(-1, false), "index >= 0");
  EXPECT_DEATH(KIntChunkMap<jint>(0, 0), "capacity > 0");
}

TEST(IndexPoolTest, ReleasedIndicesComeBackLastFirstBeforeNewOnes) {
  IndexPool pool(1);
  EXPECT_EQ(1, pool.nextIndex());
  EXPECT_EQ(2, pool.nextIndex());
  EXPECT_EQ(3, pool.nextIndex());
  pool.releaseIndex(1);
  pool.releaseIndex(3);
  EXPECT_EQ(3, pool.nextIndex());
  EXPECT_EQ(1, pool.nextIndex());
  EXPECT_EQ(4, pool.nextIndex());
  pool.releaseIndex(2);
  pool.clearIndexPool();
  EXPECT_EQ(1, pool.nextIndex());
  EXPECT_EQ(2, pool.nextIndex());
}

}  // namespace
