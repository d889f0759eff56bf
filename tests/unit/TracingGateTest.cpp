#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "CPUTestSupport.h"
#include "agent/CPUTime.h"
#include "engines/CPUProfiling.h"
#include "engines/Tracing.h"
#include "engines/TracingGate.h"
#include "snapshot/TableStream.h"

// Traced calls recorded without ourLock, and the gate that lets holders of ourLock see every
// thread's tracing state standing still.
namespace {

// The JVM past VM Init, as the probes see it in an application, with the gate in use.
class LockFreeTracingTest : public TracedThreadTest {
 protected:
  void SetUp() override {
    TracedThreadTest::SetUp();
    TracingGate::init();
    if (!TracingGate::isUsable()) {
      GTEST_SKIP() << "no expedited membarrier here: every probe takes ourLock";
    }
    ourVMInitCalled = true;
  }

  void TearDown() override {
    ourVMInitCalled = false;
    TracedThreadTest::TearDown();
  }

  // One round of calls from 'loop': changing callees, a library call with a callback, nesting.
  void oneRound(const CallPattern& p) {
    methodEntry(&myEnv, p.loop);
    for (jint callee : {p.a, p.b, p.a, p.lib}) {
      traceCall(callee, p);
    }
    methodExit(&myEnv, p.loop);
  }
};

// With times from the thread clock and with sampled times (where the probes only count).
class LockFreeTracingTimesTest : public LockFreeTracingTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    LockFreeTracingTest::SetUp();
    ourTracingTimesSampled = GetParam();
  }

  void TearDown() override {
    ourTracingTimesSampled = false;
    LockFreeTracingTest::TearDown();
  }
};

TEST_P(LockFreeTracingTimesTest, KnownCallsAreRecordedExactlyWhileAnotherThreadHoldsOurLock) {
  CallPattern p = makeCallPattern();
  jint loop = p.loop, a = p.a, b = p.b, lib = p.lib, libInner = p.libInner;
  // The first round makes the frames and rows, under ourLock.
  oneRound(p);

  // Every later call is one the thread knows: a thread that holds ourLock meanwhile holds up
  // nothing. Were any of them to take the lock, the rounds would wait for it and time out.
  std::atomic<bool> locked(false);
  std::atomic<bool> release(false);
  std::thread holder([&] {
    LockHolder hold(&ourLock, "TracingGateTest(75)");
    locked = true;
    while (!release) {
      std::this_thread::yield();
    }
  });
  while (!locked) {
    std::this_thread::yield();
  }
  std::atomic<bool> done(false);
  std::thread rounds([&] {
    setCurrentThreadInfo(myThread);
    for (int i = 0; i < 99; i++) {
      oneRound(p);
    }
    done = true;
  });
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!done && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  bool finishedWithoutTheLock = done;
  release = true;
  holder.join();
  rounds.join();
  EXPECT_TRUE(finishedWithoutTheLock);

  expectBackAtTheRoot();
  EXPECT_EQ(100, countOn({loop}));
  EXPECT_EQ(200, countOn({loop, a}));
  EXPECT_EQ(100, countOn({loop, b}));
  EXPECT_EQ(100, countOn({loop, b, a}));
  EXPECT_EQ(100, countOn({loop, lib}));
  EXPECT_EQ(100, countOn({loop, lib, a}));
  EXPECT_EQ(-1, pathFrame({loop, lib, libInner}));
  if (GetParam()) {
    EXPECT_TRUE(myThread->myEntryTimesNs.isEmpty());
    EXPECT_EQ(0, cpuRow(myThread, pathFrame({loop, b, a}))->time) << "sampled times come from the sampler only";
  }
}

INSTANTIATE_TEST_SUITE_P(TimeSources, LockFreeTracingTimesTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& source) {
                           return source.param ? "SampledTimes" : "ClockTimes";
                         });

TEST_F(LockFreeTracingTest, AClosedGateWaitsForACallInProgressAndTurnsProbesToTheLock) {
  std::atomic<bool> inside(false);
  std::atomic<bool> leave(false);
  std::thread prober([&] {
    ASSERT_TRUE(TracingGate::enter(myThread));
    inside = true;
    while (!leave) {
      std::this_thread::yield();
    }
    TracingGate::leave(myThread);
  });
  while (!inside) {
    std::this_thread::yield();
  }
  std::atomic<bool> closed(false);
  std::thread closer([&] {
    LockHolder hold(&ourLock, "TracingGateTest(130)");
    TracingGate::Closure closure;
    closed = true;
    // Inside the closure nobody may enter; a nested closure leaves the gate closed.
    EXPECT_FALSE(TracingGate::enter(myThread));
    { TracingGate::Closure nested; }
    EXPECT_TRUE(TracingGate::isClosed());
    EXPECT_FALSE(TracingGate::enter(myThread));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(closed) << "the gate closed while a thread was inside";
  leave = true;
  prober.join();
  closer.join();
  EXPECT_TRUE(closed);
  EXPECT_FALSE(TracingGate::isClosed());
  EXPECT_TRUE(TracingGate::enter(myThread));
  TracingGate::leave(myThread);
}

// A worker keeps tracing known calls while another thread takes table updates and snapshots'
// view of it over and over: each view must find the worker between two calls, never inside one,
// and nothing is lost.
TEST_F(LockFreeTracingTest, ClosersAlwaysFindTheWorkerBetweenCalls) {
  jint loop = indexOf(myFake.method("Lapp/L;", "loop"));
  jint a = indexOf(myFake.method("Lapp/L;", "a"));
  jint b = indexOf(myFake.method("Lapp/L;", "b"));
  methodEntry(&myEnv, loop);
  methodEntry(&myEnv, a);
  methodExit(&myEnv, a);
  methodEntry(&myEnv, a);
  methodEntry(&myEnv, b);
  methodExit(&myEnv, b);
  methodExit(&myEnv, a);
  jint frameA = pathFrame({loop, a});
  jint frameB = pathFrame({loop, a, b});
  const int rounds = 20000;
  std::atomic<bool> done(false);
  std::thread worker([&] {
    setCurrentThreadInfo(myThread);
    for (int i = 0; i < rounds; i++) {
      methodEntry(&myEnv, a);
      methodEntry(&myEnv, b);
      methodExit(&myEnv, b);
      methodExit(&myEnv, a);
    }
    done = true;
  });
  int views = 0;
  int torn = 0;
  jlong lastA = 0;
  while (!done) {
    LockHolder hold(&ourLock, "TracingGateTest(190)");
    TracingGate::Closure closure;
    closeOpenCalls();
    jint depth = myThread->myTracedCalls.size();
    jlong countA = cpuRow(myThread, frameA)->count;
    jlong countB = cpuRow(myThread, frameB)->count;
    // The shadow stack and the counts agree. a was called once more than b before the worker
    // began; inside a but before b, a is two ahead, anywhere else one.
    bool consistent = myThread->myEntryTimesNs.size() == 0 && depth >= 1 && depth <= 3 &&
                      (countA == countB + 1 || (depth == 2 && countA == countB + 2));
    if (!consistent || countA < lastA) {
      torn++;
    }
    lastA = countA;
    reopenOpenCalls();
    views++;
  }
  worker.join();
  methodExit(&myEnv, loop);
  EXPECT_GT(views, 0);
  EXPECT_EQ(0, torn) << "of " << views << " views";
  EXPECT_EQ(rounds + 2, countOn({loop, a}));
  EXPECT_EQ(rounds + 1, countOn({loop, a, b}));
}

TEST_F(LockFreeTracingTest, StartingWithOtherFiltersForgetsTheKnownCallees) {
  ourStatus &= ~CPU_PROFILING;
  ASSERT_EQ(0, startCPUProfilingWithSpecs(&myEnv, CPU_TIMES_BIT | CPU_COUNTS_BIT, "", ""));
  myThread->myCurrentFrameIndex = 0;
  jint outer = indexOf(myFake.method("Lapp/Outer;", "run"));
  jint inner = indexOf(myFake.method("Lapp/Inner;", "step"));
  methodEntry(&myEnv, outer);
  methodEntry(&myEnv, inner);
  methodExit(&myEnv, inner);
  methodExit(&myEnv, outer);
  EXPECT_EQ(1, countOn({outer, inner}));

  // Both classes become library code: inner now collapses into outer, even though the thread
  // knew the pair as a call of its own.
  stopCPUProfiling(&myEnv);
  ASSERT_EQ(0, startCPUProfilingWithSpecs(&myEnv, CPU_TIMES_BIT | CPU_COUNTS_BIT, "app.*", ""));
  myThread->myCurrentFrameIndex = 0;
  methodEntry(&myEnv, outer);
  methodEntry(&myEnv, inner);
  methodExit(&myEnv, inner);
  methodExit(&myEnv, outer);
  EXPECT_EQ(2, countOn({outer}));
  EXPECT_EQ(1, countOn({outer, inner}));
  EXPECT_EQ(0, myThread->myFilteredCallsStack.size());
}

TEST_F(LockFreeTracingTest, TheCurrentThreadIsFoundWithoutAskingTheJVM) {
  runOn(nullptr);
  setCurrentThreadInfo(nullptr);
  myFake.currentThread = myThread;
  // The first question fills the mirror from the JVM's slot; after that the slot isn't read.
  EXPECT_EQ(myThread, getCurrentThreadInfo());
  myFake.currentThread = nullptr;
  EXPECT_EQ(myThread, getCurrentThreadInfo());
  EXPECT_EQ(myThread, getThreadInfoJVMTI(nullptr));
  // Once the JVM dies, the slot is asked again.
  ourVMDeathCalled = true;
  EXPECT_EQ(nullptr, getCurrentThreadInfo());
  ourVMDeathCalled = false;

  // Where virtual threads exist, a thread-local would answer for the carrier: the slot is asked
  // every time.
  ourHasVirtualThreads = true;
  setCurrentThreadInfo(myThread);
  EXPECT_EQ(nullptr, getCurrentThreadInfo());
  myFake.currentThread = myThread;
  EXPECT_EQ(myThread, getCurrentThreadInfo());
  myFake.currentThread = nullptr;
  EXPECT_EQ(nullptr, getCurrentThreadInfo());

  // Told when virtual threads come and go, the mirror serves again. A mounted virtual thread has
  // no ThreadInfo, whatever the carrier's slot holds, and leaving gives the carrier its own back.
  ourTracksVirtualThreads = true;
  setCurrentThreadInfo(myThread);
  EXPECT_EQ(myThread, getCurrentThreadInfo());
  myFake.currentThread = myThread;
  enterVirtualThread();
  EXPECT_EQ(nullptr, getCurrentThreadInfo());
  EXPECT_EQ(nullptr, getThreadInfoJVMTI(nullptr));
  myFake.currentThread = nullptr;
  leaveVirtualThread();
  EXPECT_EQ(myThread, getCurrentThreadInfo());
  // A carrier whose own start went unseen looks its slot up once it runs its own code again.
  setCurrentThreadInfo(nullptr);
  enterVirtualThread();
  leaveVirtualThread();
  myFake.currentThread = myThread;
  EXPECT_EQ(myThread, getCurrentThreadInfo());
  ourTracksVirtualThreads = false;
  ourHasVirtualThreads = false;
}

TEST(CalleeCacheTest, PairsAreFoundUntilReplacedOrCleared) {
  CalleeCache cache;
  CPUProfilingRecord rows[3] = {};
  EXPECT_EQ(nullptr, cache.find(0, 1));
  cache.put(0, 1, 10, 0, &rows[0]);
  cache.put(10, 1, 11, MF_WALL_TIME, &rows[1]);
  ASSERT_NE(nullptr, cache.find(0, 1));
  EXPECT_EQ(10, cache.find(0, 1)->myFrame);
  EXPECT_EQ(&rows[1], cache.find(10, 1)->myRecord);
  EXPECT_EQ(MF_WALL_TIME, cache.find(10, 1)->myFlags);
  EXPECT_EQ(nullptr, cache.find(1, 0)) << "the pair is ordered";
  // Many pairs into few slots: whatever is found is right, and the last put is always found.
  for (jint parent = 0; parent < 2000; parent++) {
    cache.put(parent, 7, parent + 100000, 0, &rows[2]);
    ASSERT_EQ(parent + 100000, cache.find(parent, 7)->myFrame);
  }
  for (jint parent = 0; parent < 2000; parent++) {
    const CalleeCache::Entry* entry = cache.find(parent, 7);
    if (entry != nullptr) {
      EXPECT_EQ(parent + 100000, entry->myFrame);
    }
  }
  cache.clear();
  EXPECT_EQ(nullptr, cache.find(1999, 7));
}

// Pairs called round after round, as a thread does, with a put for every miss.
int missesInRound(CalleeCache& cache, jint pairs, CPUProfilingRecord* row) {
  int misses = 0;
  for (jint parent = 0; parent < pairs; parent++) {
    if (cache.find(parent, 3) == nullptr) {
      misses++;
      cache.put(parent, 3, parent + 1, 0, row);
    }
  }
  return misses;
}

TEST(CalleeCacheTest, GrowsWhilePairsPushEachOtherOutAndStaysSmallOtherwise) {
  CPUProfilingRecord row = {};
  CalleeCache few;
  for (int round = 0; round < 50; round++) {
    missesInRound(few, 40, &row);
  }
  EXPECT_EQ(256, few.capacity());

  // 3,000 pairs missed nearly every time in 256 slots; grown, they fit, and most are found.
  CalleeCache many;
  for (int round = 0; round < 30; round++) {
    missesInRound(many, 3000, &row);
  }
  EXPECT_GE(many.capacity(), 4096);
  EXPECT_LT(missesInRound(many, 3000, &row), 3000 / 4);
  many.clear();
  EXPECT_GE(many.capacity(), 4096) << "a cleared cache keeps its size";

  // The size stops at its cap however many pairs there are.
  CalleeCache huge;
  for (int round = 0; round < 20; round++) {
    missesInRound(huge, 100000, &row);
  }
  EXPECT_EQ(16384, huge.capacity());
}

}  // namespace
