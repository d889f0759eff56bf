#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "CPUTestSupport.h"
#include "agent/CPUTime.h"
#include "engines/Sampling.h"

namespace {

class SamplingTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    ourStatus |= CPU_TIMES_BIT;
    Filter::reloadFilters(KString(""), KString("app.Net read *"));
  }
  jint chain(std::vector<jint> methods) {
    jint frame = 0;
    for (jint m : methods) {
      frame = ourFrameStorage.getChild(frame, m);
    }
    return frame;
  }
};

TEST_F(SamplingTest, SamplesChargeEveryFrameAndWallTimeRaisesTheFramesAbove) {
  ThreadInfo* info = startThread("worker");
  jint run = indexOf(myFake.method("Lapp/Net;", "run"));
  jint read = indexOf(myFake.method("Lapp/Net;", "read"));
  jint parse = indexOf(myFake.method("Lapp/Net;", "parse"));
  jint top = chain({run, read, parse});
  jlong wall = 20000000;

  chargeSample(info, top, 1000, &wall);  // first sight: no CPU delta, but the wall interval
  EXPECT_EQ(0, cpuRow(info, top)->time);
  EXPECT_EQ(20000000, cpuRow(info, chain({run, read}))->time);
  EXPECT_NE(nullptr, cpuRow(info, chain({run})));

  chargeSample(info, top, 1000 + 5000000, &wall);
  EXPECT_EQ(5000000, cpuRow(info, top)->time);
  EXPECT_EQ(40000000, cpuRow(info, chain({run, read}))->time) << "wall time from the first sample on";
  EXPECT_EQ(40000000, cpuRow(info, chain({run}))->time);
  EXPECT_TRUE(info->myNeedsWallTimeCorrection);

  // A CPU delta beyond the measured wait raises the wall value for the rest of the pass.
  jlong cpu = 1000 + 5000000 + 30000000;
  chargeSample(info, top, cpu, &wall);
  EXPECT_EQ(30000000, wall);
  EXPECT_EQ(35000000, cpuRow(info, top)->time);

  // Deltas outside 1 ns .. 99999999999 ns are dropped; the bound itself counts.
  jint idle = chain({parse});
  chargeSample(info, idle, cpu, &wall);
  chargeSample(info, idle, cpu + 99999999999LL, &wall);
  EXPECT_EQ(99999999999LL, cpuRow(info, idle)->time);
  jlong last = cpu + 99999999999LL;
  chargeSample(info, idle, last + 100000000000LL, &wall);
  chargeSample(info, idle, last, &wall);
  EXPECT_EQ(99999999999LL, cpuRow(info, idle)->time);
}

TEST_F(SamplingTest, PassesKeepThreadsApartAndSkipIdleAgentDeadAndHiddenThreads) {
  jmethodID main = myFake.method("Lapp/Main;", "main");
  jmethodID hotA = myFake.method("Lapp/Main;", "hotA");
  jmethodID hotB = myFake.method("Lapp/Main;", "hotB");
  jmethodID sleep = myFake.method("Ljava/lang/Thread;", "sleep", "(J)V", true);
  jmethodID probe = myFake.method("Lcom/kestrix/runtime/Callback;", "kjpMethodEntry");

  std::atomic<long> spinnerTid(0);
  std::atomic<bool> stop(false);
  std::thread spinner([&] {
    spinnerTid = getCurrentThreadID();
    volatile unsigned long sink = 0;
    while (!stop) {
      sink = sink + 1;
    }
  });
  while (spinnerTid == 0) {
  }
  ThreadInfo* a = startThread("a");
  a->myThreadID = getCurrentThreadID();
  ThreadInfo* b = startThread("b");
  b->myThreadID = spinnerTid;
  ThreadInfo* sleeper = startThread("sleeper");
  sleeper->myThreadID = spinnerTid;  // burning CPU, but sampled asleep
  ThreadInfo* agent = startThread("KJPAgent-Helper");
  ThreadInfo* hidden = startThread("hidden");
  ThreadInfo* dead = startThread("dead");
  jthread ta = reinterpret_cast<jthread>(0x100), tb = reinterpret_cast<jthread>(0x200),
          ts = reinterpret_cast<jthread>(0x300), tg = reinterpret_cast<jthread>(0x400),
          th = reinterpret_cast<jthread>(0x500), td = reinterpret_cast<jthread>(0x600);
  myFake.threadInfos = {{ta, a}, {tb, b}, {ts, sleeper}, {tg, agent}, {th, hidden}, {td, dead}};
  jint alive = JVMTI_THREAD_STATE_ALIVE | JVMTI_THREAD_STATE_RUNNABLE;
  myFake.allStacks = {{ta, alive, {hotA, main}},   {tb, alive, {hotB, main}}, {ts, alive, {sleep, main}},
                      {tg, alive, {hotA, main}},   {th, alive, {probe}},      {td, JVMTI_THREAD_STATE_TERMINATED, {hotA}}};

  jint m = indexOf(main), ia = indexOf(hotA), ib = indexOf(hotB), is = indexOf(sleep);
  indexOf(probe);
  myFake.deletedRefs = 0;
  samplingPass(&myEnv, 20000000);
  jlong spinStart = getCurrentThreadCPUTimeNs();
  volatile unsigned long sink = 0;
  while (getCurrentThreadCPUTimeNs() - spinStart < 20000000) {
    sink = sink + 1;
  }
  samplingPass(&myEnv, 20000000);
  jlong spent = getCurrentThreadCPUTimeNs() - spinStart;
  stop = true;
  spinner.join();

  CPUProfilingRecord* aHot = cpuRow(a, pathFrame({m, ia}));
  ASSERT_NE(nullptr, aHot);
  // Both passes read the same exact clock, so the time charged is what was spun between them.
  EXPECT_GT(aHot->time, 0);
  EXPECT_LE(aHot->time, spent + 10000000);
  EXPECT_EQ(aHot->time, cpuRow(a, pathFrame({m}))->time);
  EXPECT_EQ(nullptr, cpuRow(a, pathFrame({m, ib})));
  EXPECT_GT(cpuRow(b, pathFrame({m, ib}))->time, 0);
  EXPECT_EQ(nullptr, cpuRow(b, pathFrame({m, ia})));
  EXPECT_EQ(nullptr, cpuRow(sleeper, pathFrame({m, is}))) << "a thread in a wait-list method gets no time";
  EXPECT_NE(0, sleeper->myLastCPUTimeNs);
  EXPECT_EQ(nullptr, cpuRow(agent, pathFrame({m, ia})));
  EXPECT_EQ(0, hidden->myLastCPUTimeNs);
  EXPECT_EQ(0, dead->myLastCPUTimeNs);
  EXPECT_EQ(12, myFake.deletedRefs);

  // Tracing with the fast clock times every call itself: the pass takes no stacks.
  ourStatus |= CPU_COUNTS_BIT;
  myFake.allStacksError = JVMTI_ERROR_INTERNAL;
  samplingPass(&myEnv, 20000000);
  // Tracing without it: the probes' frame is used, and an unknown stack is skipped.
  ourLinuxFastThreadCPUTimeSupported = false;
  myFake.allStacksError = JVMTI_ERROR_WRONG_PHASE;
  samplingPass(&myEnv, 20000000);
  myFake.allStacksError = JVMTI_ERROR_NONE;
  myFake.allStacks = {{ta, alive, {}}};
  a->myCurrentFrameIndex = -1;
  jlong lastA = a->myLastCPUTimeNs;
  samplingPass(&myEnv, 20000000);
  EXPECT_EQ(lastA, a->myLastCPUTimeNs);
}

TEST_F(SamplingTest, ThreadStatesFillConsecutiveRows) {
  jmethodID run = myFake.method("Lapp/T;", "run");
  jmethodID probe = myFake.method("Lcom/kestrix/runtime/Callback;", "kjpMethodExit");
  ThreadInfo* a = startThread("a");
  ThreadInfo* b = startThread("b");
  jthread ta = reinterpret_cast<jthread>(0x10), tb = reinterpret_cast<jthread>(0x20);
  myFake.threadInfos = {{ta, a}, {tb, b}};
  jint waiting = JVMTI_THREAD_STATE_ALIVE | JVMTI_THREAD_STATE_WAITING;
  myFake.allStacks = {{ta, waiting, {probe, run}}, {tb, JVMTI_THREAD_STATE_ALIVE, {}}};
  ourDB->myThreadStateTable->getIndexPool().nextIndex();  // rows need not start at 0
  jint start = -5, count = -5;
  sampleThreadStatusesJVMTI(&myEnv, &start, &count);
  EXPECT_EQ(1, start);
  EXPECT_EQ(2, count);
  ThreadStateRecord* first = ourDB->myThreadStateTable->getRecord(1, false);
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(a->myRunningNumber, first->myThread);
  EXPECT_EQ(pathFrame({indexOf(run)}), first->myFrame) << "hidden frames on top are left out";
  EXPECT_EQ(waiting, first->myState);
  EXPECT_EQ(0, ourDB->myThreadStateTable->getRecord(2, false)->myFrame);

  myFake.allStacksError = JVMTI_ERROR_WRONG_PHASE;
  sampleThreadStatusesJVMTI(&myEnv, &start, &count);
  EXPECT_EQ(0, start);
  EXPECT_EQ(0, count);
  EXPECT_DEATH(sampleThreadStatusesJVMTI(&myEnv, nullptr, &count), "op_startIndex");
}

}  // namespace
