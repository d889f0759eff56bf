#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "DBTestSupport.h"
#include "db/StringPool.h"
#include "engines/DeadThreadFolder.h"
#include "engines/J2EEIndex.h"
#include "engines/ThreadFrameIndex.h"
#include "engines/ThreadInfo.h"

namespace {

using ThreadRegistryTest = AgentDBTest;

ThreadRecord* rowOf(jint runningNumber) {
  ThreadRecord* found = nullptr;
  ourDB->myThreadTable->forEachStampedRecord([&](jint, ThreadRecord* record) {
    if (record->myRunningNumber == runningNumber) {
      found = record;
    }
  });
  return found;
}

TEST_F(ThreadRegistryTest, NewThreadsFillTheirRowAndAgentThreadsAreRecordedButExempt) {
  ourDB->myModificationStamp = 4;
  ThreadInfo* main = new ThreadInfo("main", "system", 777);
  EXPECT_EQ(3, main->myRunningNumber);
  EXPECT_EQ(3, main->myIndexForTFI);
  EXPECT_FALSE(main->myIsAgentThread);
  EXPECT_EQ(-1, main->myCurrentFrameIndex);
  ThreadRecord* row = ourDB->myThreadTable->getRecord(main->myThreadTableIndex, false);
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(4, row->myModificationStamp);
  EXPECT_EQ("main", stringAt(row->myNameStrID));
  EXPECT_EQ("system", stringAt(row->myGroupStrID));
  EXPECT_EQ(3, row->myIndexForTFI);
  EXPECT_EQ(3, row->myRunningNumber);
  EXPECT_EQ(777, row->myThreadID);

  ThreadInfo* sampler = new ThreadInfo("KJPAgent-CPUSampler", nullptr, 1);
  EXPECT_TRUE(sampler->myIsAgentThread);
  EXPECT_EQ(4, sampler->myRunningNumber);
  EXPECT_EQ("", stringAt(sampler->getThreadRecord()->myGroupStrID));
  ThreadInfo* unnamed = new ThreadInfo(nullptr, nullptr, 2);
  EXPECT_FALSE(unnamed->myIsAgentThread);
  EXPECT_EQ("", stringAt(unnamed->getThreadRecord()->myNameStrID));

  EXPECT_TRUE(isAgentThreadName("(GC Main Thread)"));
  EXPECT_TRUE(isAgentThreadName("KJPAgent-"));
  EXPECT_FALSE(isAgentThreadName("KJPAgent"));
  EXPECT_FALSE(isAgentThreadName("(GC Main Thread) 2"));
  EXPECT_FALSE(isAgentThreadName(nullptr));
  delete main;
  delete sampler;
  delete unnamed;
}

TEST_F(ThreadRegistryTest, RenamingComparesStringIndicesAndReDecidesExemption) {
  ThreadInfo* thread = startThread("Thread-0");
  ourDB->myStrPool->getDBIndex("worker", true);  // already pooled by someone else
  ourDB->myModificationStamp = 6;
  thread->updateName("Thread-0");
  EXPECT_EQ(1, thread->getThreadRecord()->myModificationStamp);

  thread->updateName("worker");
  EXPECT_EQ("worker", stringAt(thread->getThreadRecord()->myNameStrID));
  EXPECT_EQ(6, thread->getThreadRecord()->myModificationStamp);
  thread->updateName("KJPAgent-Telemetry");
  EXPECT_TRUE(thread->myIsAgentThread);
  thread->updateName("worker");
  EXPECT_FALSE(thread->myIsAgentThread);
}

TEST_F(ThreadRegistryTest, ClearingCPUAndJ2EEInfoForgetsTheCallStackAndTheThreadsJ2EERows) {
  ThreadInfo* thread = startThread("worker");
  J2EERecord* record = thread->getJ2EERecord(ourDB->myStrPool->getDBIndex("select 1", true), 2, 5);
  record->myCount = 3;
  thread->myEntryTimesNs.push(10);
  thread->myJ2EETimesStack.push(11);
  thread->myJ2EERecordsStack.push(record);
  thread->myFilteredCallsStack.push(true);
  thread->myCurrentFrameIndex = 5;
  thread->myLastCPUTimeNs = 99;
  thread->myNeedsWallTimeCorrection = true;
  ourDB->myModificationStamp = 3;
  thread->clearCPUAndJ2EEInfo();
  EXPECT_TRUE(thread->myEntryTimesNs.isEmpty());
  EXPECT_TRUE(thread->myJ2EETimesStack.isEmpty());
  EXPECT_TRUE(thread->myJ2EERecordsStack.isEmpty());
  EXPECT_TRUE(thread->myFilteredCallsStack.isEmpty());
  EXPECT_EQ(-1, thread->myCurrentFrameIndex);
  EXPECT_EQ(0, thread->myLastCPUTimeNs);
  EXPECT_FALSE(thread->myNeedsWallTimeCorrection);
  EXPECT_EQ(0, record->myCount);
  EXPECT_EQ(-3, record->myModificationStamp);
  EXPECT_EQ(0, ourDB->myJ2EEIndex->size());
}

TEST_F(ThreadRegistryTest, SixtyDeadThreadsWaitAndTheSixtyFirstFoldsTheElevenOldest) {
  std::vector<ThreadInfo*> threads;
  for (int i = 0; i < 61; i++) {
    threads.push_back(startThread("worker"));
    threads.back()->getCPUProfilingRecord(1, true)->count = 1;
  }
  std::vector<jint> numbers;
  for (int i = 0; i < 60; i++) {
    numbers.push_back(threads[i]->myRunningNumber);
    DeadThreadFolder::threadEnded(threads[i]);
  }
  EXPECT_EQ(60, ourDeadThreadRunningNumbers.size());
  EXPECT_EQ(nullptr, ourOldestDeadThreads->getCPUProfilingRecord(1, false));
  EXPECT_EQ(1, ourAllThreadInfos.size());

  ourDB->myModificationStamp = 5;
  numbers.push_back(threads[60]->myRunningNumber);
  jint slotOfFirst = rowOf(numbers[0])->myIndexForTFI;
  DeadThreadFolder::threadEnded(threads[60]);
  ASSERT_EQ(50, ourDeadThreadRunningNumbers.size());
  for (int i = 0; i < 50; i++) {
    EXPECT_EQ(numbers[11 + i], ourDeadThreadRunningNumbers.get(i));
  }
  for (int i = 0; i < 61; i++) {
    ThreadRecord* row = rowOf(numbers[i]);
    ASSERT_NE(nullptr, row) << i;
    if (i < 11) {
      EXPECT_EQ(0, row->myIndexForTFI) << i;
      EXPECT_EQ(5, row->myModificationStamp) << i;
    } else {
      EXPECT_NE(0, row->myIndexForTFI) << i;
    }
  }
  EXPECT_EQ(11, ourOldestDeadThreads->getCPUProfilingRecord(1, false)->count);
  // The folded slots are free again, the last folded first.
  EXPECT_EQ(11 + slotOfFirst - 1, startThread("next")->myIndexForTFI);
  EXPECT_EQ(11 + slotOfFirst - 2, startThread("next")->myIndexForTFI);
}

TEST_F(ThreadRegistryTest, WhileNothingRecordsThreadsThatDiedBeforeStayApart) {
  std::vector<jint> early;
  for (int i = 0; i < 5; i++) {
    ThreadInfo* thread = startThread("early");
    early.push_back(thread->myRunningNumber);
    DeadThreadFolder::threadEnded(thread);
  }
  ourStatus = 0;
  for (int i = 0; i < 70; i++) {
    DeadThreadFolder::threadEnded(startThread("quiet"));
  }
  EXPECT_EQ(5, DeadThreadFolder::ourFirstDeadNumberToMerge);
  // Each time the list passes 60, only what lies between the pinned five and the newest 50
  // is folded: folds at 61 leave 55, so after 70 quiet deaths 57 wait.
  EXPECT_EQ(57, ourDeadThreadRunningNumbers.size());
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(early[i], ourDeadThreadRunningNumbers.get(i));
    EXPECT_NE(0, rowOf(early[i])->myIndexForTFI);
  }

  ourStatus = CPU_TIMES_BIT;
  for (int i = 0; i < 3; i++) {
    DeadThreadFolder::threadEnded(startThread("recording"));
  }
  EXPECT_EQ(0, DeadThreadFolder::ourFirstDeadNumberToMerge);
  EXPECT_EQ(60, ourDeadThreadRunningNumbers.size());
  EXPECT_NE(0, rowOf(early[0])->myIndexForTFI);
  DeadThreadFolder::threadEnded(startThread("recording"));
  EXPECT_EQ(50, ourDeadThreadRunningNumbers.size());
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(0, rowOf(early[i])->myIndexForTFI);
  }
  // An end without a ThreadInfo still counts.
  DeadThreadFolder::threadEnded(nullptr);
  EXPECT_EQ(50, ourDeadThreadRunningNumbers.size());
  EXPECT_EQ(80, DeadThreadFolder::ourThreadEndCount);
}

TEST_F(ThreadRegistryTest, StringsAreCollectedOnTheFirstAndEveryHundredthThreadEnd) {
  jint before = ourDB->myStrPool->getDBIndex("orphan before", true);
  DeadThreadFolder::threadEnded(startThread("t"));
  EXPECT_EQ(nullptr, ourDB->myStringTable->getRecord(before, false)->myText);

  jint after = ourDB->myStrPool->getDBIndex("orphan after", true);
  for (int i = 2; i <= 100; i++) {
    DeadThreadFolder::threadEnded(startThread("t"));
  }
  EXPECT_STREQ("orphan after", ourDB->myStringTable->getRecord(after, false)->myText);
  DeadThreadFolder::threadEnded(startThread("t"));
  EXPECT_EQ(nullptr, ourDB->myStringTable->getRecord(after, false)->myText);
  // Names of dead threads stay: their rows are kept for good.
  EXPECT_NE(0, ourDB->myStrPool->getDBIndex("t", false));
}

TEST_F(ThreadRegistryTest, TwoHundredThreadsEndWithTheNewestApartAndTheRestFolded) {
  std::map<jint, jlong> expectedHeirTime;
  std::vector<jint> numbers;
  for (int i = 0; i < 200; i++) {
    ThreadInfo* thread = startThread("pool-thread");
    numbers.push_back(thread->myRunningNumber);
    CPUProfilingRecord* cpu = thread->getCPUProfilingRecord(1 + i % 3, true);
    cpu->time = 1000 + i;
    cpu->count = 1;
    thread->getAllocInfo(7)->mySize = 16;
    J2EERecord* j2ee = thread->getJ2EERecord(ourDB->myStrPool->getDBIndex("select", true), 1, 7);
    j2ee->myCount = 2;
    DeadThreadFolder::threadEnded(thread);
  }
  // Folds ran at deaths 61, 72, ... 193; deaths 194 to 200 wait with the 50 before them.
  ASSERT_EQ(57, ourDeadThreadRunningNumbers.size());
  jlong heirTimes[4] = {0, 0, 0, 0};
  for (int i = 0; i < 200; i++) {
    ThreadRecord* row = rowOf(numbers[i]);
    ASSERT_NE(nullptr, row);
    EXPECT_EQ(i < 143, row->myIndexForTFI == 0) << i;
    if (i < 143) {
      heirTimes[1 + i % 3] += 1000 + i;
    } else {
      EXPECT_EQ(1000 + i, ourDB->myCPUProfilingTable
                              ->getRecord(ourDB->myThreadFrameIndex->getTFI(row->myIndexForTFI, 1 + i % 3, false), true)
                              ->time);
    }
  }
  for (jint frame = 1; frame <= 3; frame++) {
    EXPECT_EQ(heirTimes[frame], ourOldestDeadThreads->getCPUProfilingRecord(frame, false)->time);
  }
  EXPECT_EQ(143 * 16, ourOldestDeadThreads->getAllocInfo(7)->mySize);
  J2EERecord* heirJ2EE = ourOldestDeadThreads->getJ2EERecord(ourDB->myStrPool->getDBIndex("select", true), 1, 7);
  EXPECT_EQ(143 * 2, heirJ2EE->myCount);

  // The tables stay dense: rows of folded pairs were reused, not appended.
  jint liveThreadFrames = 0;
  ourDB->myThreadFrameTable->forEachStampedRecord([&](jint, ThreadFrameRecord* record) {
    if (record->myModificationStamp > 0) {
      liveThreadFrames++;
    }
  });
  EXPECT_EQ(57 * 2 + 4, liveThreadFrames);
  EXPECT_LT(ourDB->myThreadFrameTable->getIndexPool().getNextNewIndex(), 200);
  EXPECT_LE(ThreadInfo::ourIndexForTFIPool.getNextNewIndex(), 2 + 62);
}

TEST_F(ThreadRegistryTest, J2EEIndexKeepsEventsApartAndRebuildsFromTheTable) {
  J2EEIndex* index = ourDB->myJ2EEIndex;
  jint a = index->getIndex(4, 1, 10, 3);
  EXPECT_EQ(a, index->getIndex(4, 1, 10, 3));
  jint b = index->getIndex(5, 1, 10, 3);
  EXPECT_NE(a, b);
  // Same 32-bit hash, same thread: one list, two rows.
  ASSERT_EQ(J2EEIndex::makeKey(3, 0, 1, 0), J2EEIndex::makeKey(3, 0, 0, 29));
  jint c = index->getIndex(1, 0, 0, 3);
  jint d = index->getIndex(0, 29, 0, 3);
  EXPECT_NE(c, d);
  EXPECT_EQ(c, index->getIndex(1, 0, 0, 3));
  EXPECT_EQ(d, index->getIndex(0, 29, 0, 3));
  EXPECT_EQ(3, index->size());
  J2EERecord* record = ourDB->myJ2EETable->getRecord(d, false);
  EXPECT_EQ(3, record->myThread);
  EXPECT_EQ(0, record->myFrame);
  EXPECT_EQ(0, record->myStrID);
  EXPECT_EQ(29, record->myKind);

  // Rebuilt from the rows, with an empty row left among them.
  ourDB->myJ2EETable->getRecord(10, true);
  index->fillIndexFromTable();
  EXPECT_EQ(3, index->size());
  EXPECT_EQ(d, index->getIndex(0, 29, 0, 3));
  EXPECT_EQ(1280, index->getIndex(9, 9, 9, 3));
}

}  // namespace
