#include <gtest/gtest.h>

#include "DBTestSupport.h"
#include "engines/ThreadFrameIndex.h"
#include "engines/ThreadInfo.h"

namespace {

TEST(ThreadFrameIndexTest, PairsGetDenseStampedRowsAndLookupsWithoutCreateAllocateNothing) {
  DB db(3600);
  ThreadFrameIndex* index = db.myThreadFrameIndex;
  jlong emptyBytes = index->getAllocatedBytes();
  EXPECT_EQ(10 * 8 + 8, emptyBytes);

  EXPECT_EQ(-1, index->getTFI(7, 100, false));
  EXPECT_EQ(emptyBytes, index->getAllocatedBytes());

  db.myModificationStamp = 3;
  EXPECT_EQ(0, index->getTFI(7, 100, true));
  EXPECT_EQ(1, index->getTFI(7, 5000, true));
  EXPECT_EQ(2, index->getTFI(2, 100, true));
  EXPECT_EQ(0, index->getTFI(7, 100, false));
  EXPECT_EQ(0, index->getTFI(7, 100, true));
  EXPECT_EQ(-1, index->getTFI(7, 101, false));
  EXPECT_EQ(-1, index->getTFI(3, 100, false));
  EXPECT_EQ(3, db.myThreadFrameTable->getIndexPool().nextIndex());

  ThreadFrameRecord* row = db.myThreadFrameTable->getRecord(1, false);
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(3, row->myModificationStamp);
  EXPECT_EQ(7, row->myThreadIndexForTFI);
  EXPECT_EQ(5000, row->myFrameID);

  // Two maps of 20 chunk slots (frame 5000 grew one) and 8, with three chunks in all.
  EXPECT_EQ(10 * 8 + 8 + (20 * 8 + 2 * 1024) + (8 * 8 + 1024), index->getAllocatedBytes());
  index->clearThreadFrameIndex();
  EXPECT_EQ(-1, index->getTFI(7, 100, false));
  EXPECT_NE(nullptr, db.myThreadFrameTable->getRecord(1, false));

  EXPECT_DEATH(index->getTFI(-1, 0, false), "index >= 0");
}

// The agent's own database, where dead threads have an heir.
using ThreadFrameIndexChangeTest = AgentDBTest;

TEST_F(ThreadFrameIndexChangeTest, FiguresOfDeadThreadsEndInTheHeirsRowsWithBothSums) {
  ThreadInfo* first = startThread("first");
  ThreadInfo* second = startThread("second");
  first->getCPUProfilingRecord(10, true)->time = 100;
  first->getCPUProfilingRecord(10, true)->count = 1;
  first->getAllocInfo(10)->mySize = 64;
  first->getCPUProfilingRecord(20, true)->time = 7;
  second->getCPUProfilingRecord(10, true)->time = 50;
  second->getCPUProfilingRecord(10, true)->count = 2;
  second->getAllocInfo(10)->myCount = 3;
  jint secondTFI = ourDB->myThreadFrameIndex->getTFI(second->myIndexForTFI, 10, false);
  ASSERT_NE(-1, secondTFI);

  ourDB->myModificationStamp = 9;
  ThreadFrameIndex* index = ourDB->myThreadFrameIndex;
  index->changeThread(first->myIndexForTFI);
  index->changeThread(second->myIndexForTFI);
  EXPECT_TRUE(ourOldestDeadThreads->myNeedsWallTimeCorrection);

  EXPECT_EQ(-1, index->getTFI(first->myIndexForTFI, 10, false));
  EXPECT_EQ(nullptr, first->getCPUProfilingRecord(10, false));
  CPUProfilingRecord* heir10 = ourOldestDeadThreads->getCPUProfilingRecord(10, false);
  ASSERT_NE(nullptr, heir10);
  EXPECT_EQ(150, heir10->time);
  EXPECT_EQ(3, heir10->count);
  EXPECT_EQ(9, heir10->myModificationStamp);
  AllocInfoRecord* heirAlloc = ourOldestDeadThreads->getAllocInfo(10);
  EXPECT_EQ(64, heirAlloc->mySize);
  EXPECT_EQ(3, heirAlloc->myCount);
  EXPECT_EQ(7, ourOldestDeadThreads->getCPUProfilingRecord(20, false)->time);

  // The source rows are zeroed and deleted at the current stamp, so the client drops them.
  ThreadFrameRecord* pair = ourDB->myThreadFrameTable->getRecord(secondTFI, true);
  EXPECT_EQ(0, pair->myThreadIndexForTFI);
  EXPECT_EQ(0, pair->myFrameID);
  EXPECT_EQ(-9, pair->myModificationStamp);
  CPUProfilingRecord* cpu = ourDB->myCPUProfilingTable->getRecord(secondTFI, true);
  EXPECT_EQ(0, cpu->time);
  EXPECT_EQ(0, cpu->count);
  EXPECT_EQ(-9, cpu->myModificationStamp);
  EXPECT_EQ(0, ourDB->myAllocInfoTable->getRecord(secondTFI, true)->myCount);
  EXPECT_EQ(-9, ourDB->myAllocInfoTable->getRecordModificationStamp(secondTFI));

  // The freed TFI serves the next new pair, whose figures start at zero.
  ThreadInfo* third = startThread("third");
  CPUProfilingRecord* reused = third->getCPUProfilingRecord(99, true);
  EXPECT_EQ(secondTFI, ourDB->myThreadFrameIndex->getTFI(third->myIndexForTFI, 99, false));
  EXPECT_EQ(reused, ourDB->myCPUProfilingTable->getRecord(secondTFI, true));
  EXPECT_EQ(0, reused->time);
  EXPECT_EQ(0, reused->count);
  EXPECT_EQ(9, pair->myModificationStamp);
  EXPECT_EQ(third->myIndexForTFI, pair->myThreadIndexForTFI);
}

TEST_F(ThreadFrameIndexChangeTest, ClearThreadDropsFiguresWithoutHeir) {
  ThreadInfo* thread = startThread("worker");
  thread->getCPUProfilingRecord(10, true)->time = 100;
  jint tfi = ourDB->myThreadFrameIndex->getTFI(thread->myIndexForTFI, 10, false);
  ourDB->myModificationStamp = 2;
  ourDB->myThreadFrameIndex->clearThread(thread);
  EXPECT_EQ(-1, ourDB->myThreadFrameIndex->getTFI(thread->myIndexForTFI, 10, false));
  EXPECT_EQ(nullptr, ourOldestDeadThreads->getCPUProfilingRecord(10, false));
  EXPECT_EQ(-2, ourDB->myCPUProfilingTable->getRecordModificationStamp(tfi));
  EXPECT_EQ(-2, ourDB->myThreadFrameTable->getRecordModificationStamp(tfi));
  EXPECT_EQ(0, ourDB->myCPUProfilingTable->getRecord(tfi, true)->time);
  EXPECT_EQ(tfi, ourDB->myThreadFrameTable->getIndexPool().nextIndex());
}

TEST(ThreadFrameIndexTest, FillFromTableRebuildsPairsAndTakesEveryRowFromThePool) {
  DB db(3600);
  // Rows as the UI loads them: fields set through the natives, some stamped, one empty.
  db.myThreadFrameTable->getRecord(0, true)->myThreadIndexForTFI = 1;
  db.myThreadFrameTable->getRecord(0, true)->myFrameID = 0;
  *db.myThreadFrameTable->getRecord(2, true) = ThreadFrameRecord{1, 1, 40};
  *db.myThreadFrameTable->getRecord(3, true) = ThreadFrameRecord{1, 0, 0};
  *db.myThreadFrameTable->getRecord(600, true) = ThreadFrameRecord{1, 12, 40};
  db.myThreadFrameTable->getIndexPool().releaseIndex(5);

  db.myThreadFrameIndex->fillIndexFromTable();
  EXPECT_EQ(0, db.myThreadFrameIndex->getTFI(1, 0, false));
  EXPECT_EQ(2, db.myThreadFrameIndex->getTFI(1, 40, false));
  EXPECT_EQ(600, db.myThreadFrameIndex->getTFI(12, 40, false));
  EXPECT_EQ(-1, db.myThreadFrameIndex->getTFI(0, 0, false));
  // New pairs come after the table, never into one of its rows, empty ones included.
  EXPECT_EQ(1280, db.myThreadFrameIndex->getTFI(1, 41, true));
}

}  // namespace
