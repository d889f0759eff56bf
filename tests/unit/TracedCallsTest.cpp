#include <gtest/gtest.h>
#include <time.h>

#include <random>
#include <vector>

#include "CPUTestSupport.h"
#include "engines/CPUProfiling.h"
#include "engines/DeadThreadFolder.h"
#include "engines/ThreadFrameIndex.h"
#include "engines/Tracing.h"
#include "engines/WallTimeCorrector.h"

// The traced calls a thread keeps beside its entry times, and the wall-time correction of
// threads that end.
namespace {

class TracedCallsTest : public TracedThreadTest {};

TEST_F(TracedCallsTest, CallsFromOneCallerToChangingCalleesLandOnTheirOwnPaths) {
  CallPattern p = makeCallPattern();
  jint loop = p.loop, a = p.a, b = p.b, lib = p.lib, libInner = p.libInner;
  methodEntry(&myEnv, loop);
  // The callee changes, repeats, and comes back: each call must reach its own frame.
  const jint order[] = {a, a, b, a, b, b, lib, a};
  for (jint callee : order) {
    traceCall(callee, p);
    EXPECT_EQ(pathFrame({loop}), myThread->myCurrentFrameIndex);
  }
  methodExit(&myEnv, loop);
  expectBackAtTheRoot();
  EXPECT_EQ(1, countOn({loop}));
  EXPECT_EQ(4, countOn({loop, a}));
  EXPECT_EQ(3, countOn({loop, b}));
  EXPECT_EQ(3, countOn({loop, b, a}));
  EXPECT_EQ(1, countOn({loop, lib}));
  EXPECT_EQ(1, countOn({loop, lib, a}));
  EXPECT_EQ(-1, pathFrame({loop, lib, libInner}));
  EXPECT_EQ(pathFrame({loop, b}), ourFrameStorage.getNextSibling(pathFrame({loop, a})))
      << "siblings stay in the order of first call";
}

TEST_F(TracedCallsTest, AFrameMovedBehindTheProbesBackIsFollowedThroughTheTree) {
  jint f = indexOf(myFake.method("Lapp/M;", "f"));
  jint g = indexOf(myFake.method("Lapp/M;", "g"));
  jint h = indexOf(myFake.method("Lapp/M;", "h"));
  methodEntry(&myEnv, f);
  methodEntry(&myEnv, g);
  methodExit(&myEnv, g);
  methodExit(&myEnv, f);
  ASSERT_EQ(0, myThread->myTracedCalls.size());

  // Some other code puts the thread in f/g without the probes: the exits must still find the
  // right parents and rows, and a later entry must not trust a stale memo.
  jint fg = pathFrame({f, g});
  myThread->myCurrentFrameIndex = fg;
  myThread->myEntryTimesNs.push(getCurrentThreadCPUTimeNs());
  myThread->myEntryTimesNs.push(getCurrentThreadCPUTimeNs());
  myThread->myFilteredCallsStack.push(false);
  myThread->myFilteredCallsStack.push(false);
  methodEntry(&myEnv, h);
  EXPECT_EQ(pathFrame({f, g, h}), myThread->myCurrentFrameIndex);
  spinCPU(1000000);
  methodExit(&myEnv, h);
  methodExit(&myEnv, g);
  EXPECT_EQ(pathFrame({f}), myThread->myCurrentFrameIndex);
  methodExit(&myEnv, f);
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);
  EXPECT_EQ(1, countOn({f, g, h}));
  EXPECT_GE(cpuRow(myThread, fg)->time, cpuRow(myThread, pathFrame({f, g, h}))->time);

  // Stale calls left from before a move are dropped at the next entry rather than followed.
  methodEntry(&myEnv, f);
  methodEntry(&myEnv, g);
  ASSERT_EQ(2, myThread->myTracedCalls.size());
  myThread->myCurrentFrameIndex = pathFrame({f});
  myThread->myEntryTimesNs.pop();
  myThread->myFilteredCallsStack.pop();
  methodEntry(&myEnv, h);
  EXPECT_EQ(pathFrame({f, h}), myThread->myCurrentFrameIndex);
  methodExit(&myEnv, h);
  methodExit(&myEnv, f);
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);
  EXPECT_EQ(1, countOn({f, h}));
}

TEST_F(TracedCallsTest, ClearingCPUDataWhileCallsAreOpenLeavesNoRowPointerBehind) {
  jmethodID fID = myFake.method("Lapp/C;", "f");
  jmethodID gID = myFake.method("Lapp/C;", "g");
  jint f = indexOf(fID);
  jint g = indexOf(gID);
  methodEntry(&myEnv, f);
  methodEntry(&myEnv, g);
  methodExit(&myEnv, g);  // f now remembers g's row
  Java_com_kestrix_runtime_Core_clearCPUData(&myEnv, nullptr);
  EXPECT_EQ(-1, myThread->myCurrentFrameIndex);
  EXPECT_EQ(0, myThread->myTracedCalls.size());
  EXPECT_EQ(0, cpuRow(myThread, pathFrame({f, g}))->count);

  // The thread goes on inside f: the old exit is ignored, the next entry rebuilds the stack,
  // and the rows it writes are new ones (with ASan, a stale pointer would show here).
  methodExit(&myEnv, f);
  myFake.currentStack = {gID, fID};
  methodEntry(&myEnv, g);
  methodExit(&myEnv, g);
  methodEntry(&myEnv, g);
  methodExit(&myEnv, g);
  methodExit(&myEnv, f);
  EXPECT_EQ(2, countOn({f, g}));
  EXPECT_EQ(0, countOn({f}));
  EXPECT_EQ(0, myThread->myCurrentFrameIndex);
}

TEST_F(TracedCallsTest, CorrectingOneThreadGivesWhatTheWholeTreeWalkGives) {
  std::mt19937 random(7);
  std::vector<jint> frames = {0};
  for (int i = 0; i < 300; i++) {
    jint parent = frames[random() % frames.size()];
    frames.push_back(ourFrameStorage.getChild(parent, 1 + static_cast<jint>(random() % 40)));
  }
  ThreadInfo* walked = startThread("walked");
  ThreadInfo* alone = startThread("alone");
  for (jint frame : frames) {
    switch (random() % 4) {
      case 0:
        break;  // no row: a caller whose entry was missed
      case 1:
        // Allocation figures only.
        walked->getAllocInfo(frame)->myCount = 1;
        alone->getAllocInfo(frame)->myCount = 1;
        break;
      default: {
        jlong time = static_cast<jlong>(random() % 1000);
        walked->getCPUProfilingRecord(frame, true)->time = time;
        alone->getCPUProfilingRecord(frame, true)->time = time;
      }
    }
  }
  ourDB->myModificationStamp = 9;
  walked->myNeedsWallTimeCorrection = true;
  alone->myNeedsWallTimeCorrection = true;
  WallTimeCorrector corrector;
  corrector.scheduleForCorrection(walked);
  corrector.correctWallTimes();
  WallTimeCorrector::correctThread(alone);
  EXPECT_FALSE(alone->myNeedsWallTimeCorrection);
  int raised = 0;
  for (jint frame : frames) {
    CPUProfilingRecord* expected = walked->getCPUProfilingRecord(frame, false);
    CPUProfilingRecord* actual = alone->getCPUProfilingRecord(frame, false);
    ASSERT_EQ(expected == nullptr, actual == nullptr) << "frame " << frame;
    if (expected != nullptr) {
      EXPECT_EQ(expected->time, actual->time) << "frame " << frame;
      EXPECT_EQ(expected->myModificationStamp, actual->myModificationStamp) << "frame " << frame;
      raised += expected->myModificationStamp == 9 ? 1 : 0;
    }
  }
  EXPECT_GT(raised, 10) << "the tree must give the correction something to do";

  // Without the mark nothing is touched.
  alone->getCPUProfilingRecord(frames[1], true)->time = 0;
  WallTimeCorrector::correctThread(alone);
  EXPECT_EQ(0, alone->getCPUProfilingRecord(frames[1], false)->time);
}

TEST_F(TracedCallsTest, AThreadThatEndsAfterAWallTimeCallHasItsCallersRaised) {
  Filter::reloadFilters(KString(""), KString("app.Io read ()V"));
  jint run = indexOf(myFake.method("Lapp/Io;", "run"));
  jint work = indexOf(myFake.method("Lapp/Io;", "work"));
  jint read = indexOf(myFake.method("Lapp/Io;", "read"));
  methodEntry(&myEnv, run);
  methodEntry(&myEnv, work);
  methodEntry(&myEnv, read);
  struct timespec pause = {0, 30000000};
  nanosleep(&pause, nullptr);
  methodExit(&myEnv, read);
  methodExit(&myEnv, work);
  methodExit(&myEnv, run);
  ASSERT_TRUE(myThread->myNeedsWallTimeCorrection);
  jint slot = myThread->myIndexForTFI;
  jint readFrame = pathFrame({run, work, read});
  jint runFrame = pathFrame({run});

  runOn(nullptr);
  DeadThreadFolder::threadEnded(myThread);
  myThread = nullptr;

  // The rows stay under the dead thread's slot until it is folded.
  auto timeOf = [slot](jint frame) {
    return ourDB->myCPUProfilingTable->getRecord(ourDB->myThreadFrameIndex->getTFI(slot, frame, false), false)->time;
  };
  jlong readTime = timeOf(readFrame);
  EXPECT_GE(readTime, 30000000);
  EXPECT_GE(timeOf(pathFrame({run, work})), readTime);
  EXPECT_GE(timeOf(runFrame), readTime);
  EXPECT_GE(timeOf(0), readTime) << "the root row is corrected too";
}

}  // namespace
