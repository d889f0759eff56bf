#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "CPUTestSupport.h"
#include "engines/TracingGate.h"
#include "SnapshotTestSupport.h"
#include "agent/CPUTime.h"
#include "engines/Tracing.h"
#include "snapshot/SnapshotCapture.h"
#include "snapshot/TableStream.h"

namespace {

// Snapshots and updates taken while traced calls are in progress.
class SnapshotTracingTest : public TracedThreadTest {
 protected:
  void SetUp() override {
    TracedThreadTest::SetUp();
    // The capture reads the thread's clock by its kernel id, as it does for other threads.
    myThread->myThreadID = static_cast<jlong>(syscall(SYS_gettid));
  }

  // The time of the thread's CPU row for a frame, as a stream of the CPU table has it.
  jlong streamedTime(const std::vector<unsigned char>& bytes, jint frame) {
    StreamReader reader(bytes);
    EXPECT_EQ(CPUPROFILING_TABLE_ID, reader.readInt());
    jint tfi = ourDB->myThreadFrameIndex->getTFI(myThread->myIndexForTFI, frame, false);
    for (const StreamRow& row : readTableRows(reader, CPUPROFILING_TABLE_ID)) {
      if (row.index == tfi) {
        return row.fields[0];
      }
    }
    ADD_FAILURE() << "no row for frame " << frame;
    return -1;
  }
};

}  // namespace

TEST_F(SnapshotTracingTest, CallsInProgressCountInTheSnapshotAndGoOnWithoutBeingCountedTwice) {
  jint m = indexOf(myFake.method("Lapp/Busy;", "work"));
  methodEntry(&myEnv, m);
  jint frame = myThread->myCurrentFrameIndex;
  jlong before = spinCPU(20000000);

  TempDir dir;
  KString error;
  // Once the JVM has died, a capture is refused with a reason, and writes no file.
  ourVMDeathCalled = true;
  myFake.phase = JVMTI_PHASE_DEAD;
  EXPECT_FALSE(captureSnapshotToFile(nullptr, dir.file("late.snapshot").c_str(), 0, 0, false, &error));
  EXPECT_STREQ("The JVM is shutting down", error.get());
  EXPECT_NE(0, access(dir.file("late.snapshot").c_str(), F_OK));
  myFake.phase = JVMTI_PHASE_LIVE;
  ourVMDeathCalled = false;
  ASSERT_TRUE(captureSnapshotToFile(nullptr, dir.file("open.snapshot").c_str(), 0, 0, false, &error)) << error.get();
  // The open call is in the file with its time so far, and the thread is still inside it.
  jlong inFile = ourDB->myCPUProfilingTable->getRecord(
      ourDB->myThreadFrameIndex->getTFI(myThread->myIndexForTFI, frame, false), false)->time;
  EXPECT_GE(inFile, before);
  EXPECT_EQ(frame, myThread->myCurrentFrameIndex);
  EXPECT_EQ(1, myThread->myEntryTimesNs.size());

  jlong after = spinCPU(20000000);
  methodExit(&myEnv, m);
  jlong total = cpuRow(myThread, frame)->time;
  EXPECT_GE(total, before + after);
  EXPECT_LE(total, before + after + (before + after) / 5 + 5000000) << "the part before the capture counted twice";
}

TEST_F(SnapshotTracingTest, UpdatesOfTheCPUTableCloseOpenCallsAndCorrectWallTimes) {
  jint m = indexOf(myFake.method("Lapp/Busy;", "work"));
  methodEntry(&myEnv, m);
  jint frame = myThread->myCurrentFrameIndex;
  jlong before = spinCPU(10000000);
  MemoryWriter open;
  LockHolder holder(&ourLock, "SnapshotTracingTest");
  TracingGate::Closure stillTracing;
  closeOpenCalls();
  writeTables(nullptr, ourDB, open, 1 << CPUPROFILING_TABLE_ID, 0, 0, 0, nullptr, false);
  reopenOpenCalls();
  EXPECT_GE(streamedTime(open.bytes(), frame), before);
  methodExit(&myEnv, m);

  // A caller smaller than its wall-timed callee is raised before the table leaves.
  jint caller = indexOf(myFake.method("Lapp/Wall;", "caller"));
  jint callee = indexOf(myFake.method("Lapp/Wall;", "sleepy"));
  jint callerFrame = ourFrameStorage.getChild(0, caller);
  jint calleeFrame = ourFrameStorage.getChild(callerFrame, callee);
  myThread->getCPUProfilingRecord(callerFrame, true)->time = 1000;
  myThread->getCPUProfilingRecord(calleeFrame, true)->time = 5000000000LL;
  myThread->myNeedsWallTimeCorrection = true;
  MemoryWriter corrected;
  writeTables(nullptr, ourDB, corrected, 1 << CPUPROFILING_TABLE_ID, 0, 0, 0, nullptr, false);
  EXPECT_EQ(5000000000LL, streamedTime(corrected.bytes(), callerFrame));
}
