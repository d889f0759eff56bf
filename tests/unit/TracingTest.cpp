#include <gtest/gtest.h>
#include <time.h>

#include "CPUTestSupport.h"
#include "agent/CPUTime.h"
#include "agent/KLock.h"
#include "engines/CPUProfiling.h"
#include "engines/Tracing.h"

namespace {

class TracingTest : public TracedThreadTest {};

TEST_F(TracingTest, CallsAreCountedOnTheirPathAndTimedInThreadCPU) {
  jint outer = indexOf(myFake.method("Lapp/M;", "outer"));
  jint inner = indexOf(myFake.method("Lapp/M;", "inner"));
  methodEntry(&myEnv, outer);
  jlong spent = 0;
  for (int i = 0; i < 7; i++) {
    methodEntry(&myEnv, inner);
    spent += spinCPU(2000000);
    methodExit(&myEnv, inner);
  }
  methodExit(&myEnv, outer);
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);
  EXPECT_EQ(0, myThread->myEntryTimesNs.size());
  EXPECT_EQ(0, myThread->myFilteredCallsStack.size());
  CPUProfilingRecord* innerRow = cpuRow(myThread, pathFrame({outer, inner}));
  CPUProfilingRecord* outerRow = cpuRow(myThread, pathFrame({outer}));
  ASSERT_NE(nullptr, innerRow);
  EXPECT_EQ(7, innerRow->count);
  EXPECT_EQ(1, outerRow->count);
  EXPECT_GE(innerRow->time, spent);
  EXPECT_LE(innerRow->time, spent + spent / 10 + 2000000);
  EXPECT_GE(outerRow->time, innerRow->time) << "times include callees";
  EXPECT_EQ(methodIndexFromHalves(static_cast<jshort>(0x8001), 2), 0x28001);
}

TEST_F(TracingTest, FilteredRunsCollapseWithoutTouchingTheTree) {
  Filter::reloadFilters(KString("lib.*"), KString(""));
  jint app = indexOf(myFake.method("Lapp/A;", "a"));
  jint lib1 = indexOf(myFake.method("Llib/B;", "b"));
  jint lib2 = indexOf(myFake.method("Llib/C;", "c"));
  jint back = indexOf(myFake.method("Lapp/D;", "d"));
  methodEntry(&myEnv, app);
  methodEntry(&myEnv, lib1);
  jint lib1Frame = myThread->myCurrentFrameIndex;
  methodEntry(&myEnv, lib2);
  EXPECT_EQ(lib1Frame, myThread->myCurrentFrameIndex) << "a filtered call within a filtered call is no node";
  methodEntry(&myEnv, back);
  EXPECT_EQ((std::vector<jint>{app, lib1, back}), pathOf(myThread->myCurrentFrameIndex));
  methodExit(&myEnv, back);
  methodExit(&myEnv, lib2);
  EXPECT_EQ(lib1Frame, myThread->myCurrentFrameIndex);
  methodExit(&myEnv, lib1);
  methodExit(&myEnv, app);
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);
  EXPECT_EQ(-1, pathFrame({app, lib1, lib2}));
  EXPECT_EQ(1, cpuRow(myThread, pathFrame({app, lib1, back}))->count);
}

TEST_F(TracingTest, LostStacksAreRebuiltFromTheRealStackAndMismatchesDropThem) {
  jmethodID f = myFake.method("Lapp/F;", "f");
  jmethodID g = myFake.method("Lapp/F;", "g");
  jmethodID probe = myFake.method("Lcom/kestrix/runtime/Callback;", "kjpMethodEntry");
  myThread->myCurrentFrameIndex = -1;
  myFake.currentStack = {probe, g, f};
  methodEntry(&myEnv, indexOf(g));
  jint fg = pathFrame({indexOf(f), indexOf(g)});
  EXPECT_EQ(fg, myThread->myCurrentFrameIndex);
  EXPECT_EQ(2, myThread->myEntryTimesNs.size());
  EXPECT_EQ(2, myThread->myFilteredCallsStack.size());
  EXPECT_EQ(1, cpuRow(myThread, fg)->count);
  EXPECT_EQ(nullptr, cpuRow(myThread, pathFrame({indexOf(f)}))) << "the caller's entry was missed";
  spinCPU(1000000);
  methodExit(&myEnv, indexOf(g));
  methodExit(&myEnv, indexOf(f));
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);
  CPUProfilingRecord* fRow = cpuRow(myThread, pathFrame({indexOf(f)}));
  ASSERT_NE(nullptr, fRow);
  EXPECT_EQ(0, fRow->count);
  EXPECT_GE(fRow->time, 1000000);

  // An exit of another method than the current one: every open call ends now.
  myFake.currentStack = {g, f};
  myThread->myCurrentFrameIndex = -1;
  methodEntry(&myEnv, indexOf(g));
  jlong before = cpuRow(myThread, fg)->time;
  spinCPU(1000000);
  methodExit(&myEnv, indexOf(f));
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
  EXPECT_EQ(0, myThread->myEntryTimesNs.size());
  EXPECT_EQ(0, myThread->myFilteredCallsStack.size());
  EXPECT_GE(cpuRow(myThread, fg)->time - before, 1000000);
  // An exit with nothing open is the end of a call that began before tracing.
  methodExit(&myEnv, indexOf(f));
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
}

TEST_F(TracingTest, ExceptionsAndDeathDropTheShadowStackAndNoFastClockLeavesTimesToTheSampler) {
  jint m = indexOf(myFake.method("Lapp/E;", "m"));
  methodEntry(&myEnv, m);
  exception(&myJVMTI, &myEnv, nullptr, nullptr, 0, nullptr, nullptr, 0);
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
  EXPECT_EQ(0, myThread->myFilteredCallsStack.size());

  myThread->myCurrentFrameIndex = 0;
  methodEntry(&myEnv, m);
  ourVMDeathCalled = true;
  EXPECT_FALSE(isMethodTracingActive());
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
  ourVMDeathCalled = false;

  ourLinuxFastThreadCPUTimeSupported = false;
  myThread->myCurrentFrameIndex = 0;
  myThread->myFilteredCallsStack.clear();
  jint fresh = indexOf(myFake.method("Lapp/E;", "n"));
  methodEntry(&myEnv, fresh);
  EXPECT_EQ(0, myThread->myEntryTimesNs.size());
  methodExit(&myEnv, fresh);
  CPUProfilingRecord* row = cpuRow(myThread, pathFrame({fresh}));
  EXPECT_EQ(1, row->count);
  EXPECT_EQ(0, row->time);
}

TEST_F(TracingTest, CallsReadBackFromALogCountAsTheNativesCountThemUntilTheStackIsLost) {
  ourTracingTimesSampled = true;  // logs serve only tracing with sampled times
  Filter::reloadFilters(KString("lib.*"), KString(""));
  jint app = indexOf(myFake.method("Lapp/A;", "a"));
  jint lib = indexOf(myFake.method("Llib/B;", "b"));
  jint libInner = indexOf(myFake.method("Llib/C;", "c"));
  jint back = indexOf(myFake.method("Lapp/D;", "d"));
  // Each call of 'app' makes a library call that calls back twice, once from a nested library
  // call, which folds into the outer one.
  std::vector<jint> events;
  for (int i = 0; i < 3; i++) {
    events.insert(events.end(), {app, lib, back, ~back, libInner, back, ~back, ~libInner, ~lib, ~app});
  }
  auto counts = [&]() {
    return std::vector<jlong>{countOn({app}), countOn({app, lib}), countOn({app, lib, back})};
  };
  for (jint event : events) {
    event >= 0 ? methodEntry(&myEnv, event) : methodExit(&myEnv, ~event);
  }
  EXPECT_EQ((std::vector<jlong>{3, 3, 6}), counts());
  {
    LockHolder holder(&ourLock, "test");
    for (jint event : events) {
      event >= 0 ? replayEntry(myThread, event) : replayExit(myThread, ~event);
    }
  }
  EXPECT_EQ((std::vector<jlong>{6, 6, 12}), counts()) << "read back, the calls land where the natives put them";
  {
    // The same with the calls back logged as whole calls, as the log writes a call that made
    // none of its own.
    LockHolder holder(&ourLock, "test");
    for (int i = 0; i < 3; i++) {
      replayEntry(myThread, app);
      replayEntry(myThread, lib);
      replayCall(myThread, back);
      replayEntry(myThread, libInner);
      replayCall(myThread, back);
      replayExit(myThread, libInner);
      replayExit(myThread, lib);
      replayExit(myThread, app);
    }
  }
  EXPECT_EQ((std::vector<jlong>{9, 9, 18}), counts());
  myThread->myCallees.clear();
  {
    LockHolder holder(&ourLock, "test");
    replayCall(myThread, app);
  }
  EXPECT_EQ(10, countOn({app})) << "an unknown callee takes the long way";
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);
  EXPECT_EQ(0, myThread->myFilteredCallsStack.size());
  EXPECT_EQ(0, myThread->myTracedCalls.size());

  LockHolder holder(&ourLock, "test");
  replayEntry(myThread, app);
  replayExit(myThread, back);
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex) << "an exit of a call never entered loses the stack";
  replayEntry(myThread, app);
  replayExit(myThread, app);
  EXPECT_EQ(11, countOn({app})) << "without the stack a logged call can't be placed, and counts nothing";
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
  EXPECT_EQ(0, myThread->myFilteredCallsStack.size());
  ourTracingTimesSampled = false;
}

TEST_F(TracingTest, WallTimeMethodsAreTimedByTheWallClockAndMarkTheThread) {
  Filter::reloadFilters(KString(""), KString("app.Io read ()V"));
  jint caller = indexOf(myFake.method("Lapp/Io;", "main"));
  jint read = indexOf(myFake.method("Lapp/Io;", "read"));
  EXPECT_EQ(MF_WALL_TIME, flagsOf(read));
  methodEntry(&myEnv, caller);
  methodEntry(&myEnv, read);
  struct timespec pause = {0, 30000000};
  nanosleep(&pause, nullptr);
  methodExit(&myEnv, read);
  methodExit(&myEnv, caller);
  EXPECT_GE(cpuRow(myThread, pathFrame({caller, read}))->time, 30000000);
  EXPECT_LT(cpuRow(myThread, pathFrame({caller}))->time, 30000000) << "the caller stays in CPU time";
  EXPECT_TRUE(myThread->myNeedsWallTimeCorrection);
}

TEST_F(TracingTest, StartAndStopCheckModesAndCloseOpenCalls) {
  ourStatus = STACK_TELEMETRY;
  int redefinitions = 0;
  static int* counter;
  counter = &redefinitions;
  ourRedefineCallback = [](JNIEnv*) { (*counter)++; };

  EXPECT_EQ(0, startCPUProfilingWithSpecs(&myEnv, CPU_COUNTS_BIT, "", ""));
  ASSERT_EQ(1u, myFake.thrown.size());
  EXPECT_EQ("(mode & ProfilingModes::CPU_TIMES_BIT) != 0 (8, 0)", myFake.thrown[0]);
  EXPECT_EQ(0, startCPUProfilingWithSpecs(&myEnv, CPU_TIMES_BIT | 64, "", ""));
  EXPECT_EQ("(mode & ~ProfilingModes::CPU_PROFILING) == 0 (68, 0)", myFake.thrown.at(1));
  EXPECT_EQ(STACK_TELEMETRY, ourStatus);

  // Sampling neither switches events nor touches the callback class.
  EXPECT_EQ(0, startCPUProfilingWithSpecs(&myEnv, CPU_TIMES_BIT, "", ""));
  EXPECT_EQ(3, startCPUProfilingWithSpecs(&myEnv, CPU_TIMES_BIT, "x.*", ""));
  EXPECT_EQ(15, Filter::ourFilters.size()) << "a refused start reloads nothing";
  stopCPUProfiling(&myEnv);
  EXPECT_EQ(STACK_TELEMETRY, ourStatus);
  EXPECT_EQ(0, redefinitions);
  EXPECT_TRUE(myFake.eventSwitches.empty());

  EXPECT_EQ(0, startCPUProfilingWithSpecs(&myEnv, CPU_TIMES_BIT | CPU_COUNTS_BIT, "", ""));
  EXPECT_EQ(1, redefinitions);
  myThread->myCurrentFrameIndex = 0;
  jint m = indexOf(myFake.method("Lapp/S;", "m"));
  methodEntry(&myEnv, m);
  stopCPUProfiling(&myEnv);
  EXPECT_EQ(2, redefinitions);
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
  EXPECT_EQ(0, myThread->myEntryTimesNs.size());
  EXPECT_EQ(STACK_TELEMETRY, ourStatus);
  ASSERT_EQ(2u, myFake.eventSwitches.size());
  EXPECT_EQ(JVMTI_ENABLE, myFake.eventSwitches[0].first);
  EXPECT_EQ(JVMTI_EVENT_EXCEPTION, myFake.eventSwitches[1].second);
  EXPECT_EQ(JVMTI_DISABLE, myFake.eventSwitches[1].first);

  EXPECT_EQ(44, commandLineCPUMode(true, false, false));
  EXPECT_EQ(12, commandLineCPUMode(true, false, true));
  EXPECT_EQ(36, commandLineCPUMode(false, true, false));
  EXPECT_EQ(0, commandLineCPUMode(false, false, false));
}

// Between VM Init and VM Death the probes rely on the phase being live: HotSpot's GetPhase costs
// a transition into the VM, more than a whole collapsed call.
TEST_F(TracingTest, AnInitialisedVMIsAskedForNoPhaseUntilItDies) {
  static int ourPhaseQueries;
  ourPhaseQueries = 0;
  myJVMTITable.GetPhase = [](jvmtiEnv*, jvmtiPhase* phase) -> jvmtiError {
    ourPhaseQueries++;
    *phase = ourFakeCPUVM->phase;
    return JVMTI_ERROR_NONE;
  };
  struct InitFlagReset {
    ~InitFlagReset() { ourVMInitCalled = false; }
  } reset;
  Filter::reloadFilters(KString("lib.*"), KString(""));
  jint app = indexOf(myFake.method("Lapp/P;", "a"));
  jint lib1 = indexOf(myFake.method("Llib/P;", "b"));
  jint lib2 = indexOf(myFake.method("Llib/P;", "c"));

  // Before VM Init the phase decides, as in the start phase where every thread is the pseudo-thread.
  methodEntry(&myEnv, app);
  methodExit(&myEnv, app);
  EXPECT_GT(ourPhaseQueries, 0);

  ourVMInitCalled = true;
  ourPhaseQueries = 0;
  for (int i = 0; i < 3; i++) {
    methodEntry(&myEnv, app);
    methodEntry(&myEnv, lib1);
    methodEntry(&myEnv, lib2);
    methodExit(&myEnv, lib2);
    methodExit(&myEnv, lib1);
    methodExit(&myEnv, app);
  }
  EXPECT_EQ(0, ourPhaseQueries);
  EXPECT_EQ(4, cpuRow(myThread, pathFrame({app}))->count);
  EXPECT_EQ(3, cpuRow(myThread, pathFrame({app, lib1}))->count);
  EXPECT_EQ(-1, pathFrame({app, lib1, lib2}));
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);

  // Once the VM dies, the phase is asked again and the first probe drops the stack.
  methodEntry(&myEnv, app);
  ourVMDeathCalled = true;
  methodEntry(&myEnv, lib1);
  EXPECT_GT(ourPhaseQueries, 0);
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
  EXPECT_EQ(3, cpuRow(myThread, pathFrame({app, lib1}))->count);
  ourVMDeathCalled = false;
}

}  // namespace
