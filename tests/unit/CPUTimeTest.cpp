#include <gtest/gtest.h>

#include <pthread.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "agent/CPUTime.h"
#include "agent/JVMTI_Agent.h"
#include "DBTestSupport.h"

namespace {

const jlong MS = 1000000LL;

jlong libcClockNs(clockid_t clock) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<jlong>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Spins until the calling thread has used 'ns' of CPU by the C library's own clock.
void burnCPU(jlong ns) {
  jlong start = libcClockNs(CLOCK_THREAD_CPUTIME_ID);
  volatile unsigned long sink = 0;
  while (libcClockNs(CLOCK_THREAD_CPUTIME_ID) - start < ns) {
    for (int i = 0; i < 10000; i++) {
      sink = sink + static_cast<unsigned long>(i);
    }
  }
}

// A thread that burns a known amount of CPU under a given name, then parks until released,
// so that its clock stands still while the test reads it from outside.
class BurnerThread {
 public:
  BurnerThread(const char* name, jlong burnNs) : myTid(0), myBurnedNs(0), myDone(false), myReleased(false) {
    myThread = std::thread([this, name, burnNs]() {
      pthread_setname_np(pthread_self(), name);
      burnCPU(burnNs);
      std::unique_lock<std::mutex> lock(myMutex);
      myTid = static_cast<int>(syscall(SYS_gettid));
      myBurnedNs = libcClockNs(CLOCK_THREAD_CPUTIME_ID);
      myDone = true;
      myCondition.notify_all();
      myCondition.wait(lock, [this]() { return myReleased; });
    });
    std::unique_lock<std::mutex> lock(myMutex);
    myCondition.wait(lock, [this]() { return myDone; });
  }

  ~BurnerThread() {
    {
      std::lock_guard<std::mutex> lock(myMutex);
      myReleased = true;
      myCondition.notify_all();
    }
    myThread.join();
  }

  int tid() const { return myTid; }
  jlong burnedNs() const { return myBurnedNs; }

 private:
  std::thread myThread;
  std::mutex myMutex;
  std::condition_variable myCondition;
  int myTid;
  jlong myBurnedNs;
  bool myDone;
  bool myReleased;
};

class CPUTimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mySavedFast = ourLinuxFastThreadCPUTimeSupported;
    mySavedTicks = ourClockTicksPerSecond;
    mySavedRusage = ourRusageCoversAllThreads;
    ASSERT_TRUE(checkPlatformCapabilities());
  }

  void TearDown() override {
    ourLinuxFastThreadCPUTimeSupported = mySavedFast;
    ourClockTicksPerSecond = mySavedTicks;
    ourRusageCoversAllThreads = mySavedRusage;
  }

  bool mySavedFast;
  int mySavedTicks;
  bool mySavedRusage;
};

// The stat files count whole clock ticks of the exact run time: at most a few ticks short.
void expectNear(jlong expected, jlong actual, const char* what) {
  EXPECT_GE(actual, expected - 60 * MS) << what;
  EXPECT_LE(actual, expected + 60 * MS) << what;
}

// The per-thread clock of user plus system time is not exact: the kernel charges each
// scheduler tick to whichever thread it finds running, so on a crowded machine it drifts from
// the exact run time by many ticks either way, though not by a factor.
void expectSampledNear(jlong expected, jlong actual, const char* what) {
  jlong tolerance = 60 * MS + expected / 3;
  EXPECT_GE(actual, expected - tolerance) << what;
  EXPECT_LE(actual, expected + tolerance) << what;
}

TEST(CPUTimeReleaseTest, RusageCoversAllThreadsFrom2610On) {
  EXPECT_FALSE(isRusageCoveringAllThreads("2.6.9"));
  EXPECT_TRUE(isRusageCoveringAllThreads("2.6.10"));
  EXPECT_TRUE(isRusageCoveringAllThreads("2.6.32"));
  EXPECT_TRUE(isRusageCoveringAllThreads("2.6.32-5-amd64"));
  EXPECT_FALSE(isRusageCoveringAllThreads("3.2.0"));
  EXPECT_FALSE(isRusageCoveringAllThreads("6.1.0-18-amd64"));
  EXPECT_FALSE(isRusageCoveringAllThreads("2.4.20"));
  EXPECT_FALSE(isRusageCoveringAllThreads("2.6"));
  EXPECT_FALSE(isRusageCoveringAllThreads("2.6."));
  EXPECT_FALSE(isRusageCoveringAllThreads("2.6.x10"));
  EXPECT_FALSE(isRusageCoveringAllThreads(""));
  EXPECT_FALSE(isRusageCoveringAllThreads(nullptr));
}

TEST(CPUTimeStatTest, ParsesFieldsAfterTheLastParenthesis) {
  // utime 150 and stime 50 ticks; the name holds ") (" and blanks, as a thread may call itself.
  const char* line = "4242 (a) (b c) R 1 2 3 4 5 6 7 8 9 10 150 50 0 0 20 0 1 0 100 0 0\n";
  EXPECT_EQ(2000 * MS, parseThreadStatCPUTimeNs(line, 100));
  EXPECT_EQ(800 * MS, parseThreadStatCPUTimeNs(line, 250));
  // A name that itself looks like the start of the fields must not be read as fields.
  EXPECT_EQ(30 * MS, parseThreadStatCPUTimeNs("7 (x) S 1 2 3 4 5 6 7 8 9 9 9 ) S 1 2 3 4 5 6 7 8 9 10 2 1", 100));
  EXPECT_EQ(30 * MS, parseThreadStatCPUTimeNs("7 (n)\n\tS 1 2 3 4 5 6 7 8 9 10 2 1", 100));
}

TEST(CPUTimeStatTest, OddStatTextGivesZero) {
  EXPECT_EQ(0, parseThreadStatCPUTimeNs("", 100));
  EXPECT_EQ(0, parseThreadStatCPUTimeNs("4242 (name R 1 2 3 4 5 6 7 8 9 10 150 50", 100));
  EXPECT_EQ(0, parseThreadStatCPUTimeNs("4242 (name) R 1 2 3 4 5 6 7 8 9 10 150", 100));
  EXPECT_EQ(0, parseThreadStatCPUTimeNs("4242 (name) R 1 2 3 4 5 6 7 8 9 10 x 50", 100));
  EXPECT_EQ(0, parseThreadStatCPUTimeNs("4242 (name)", 100));

  EXPECT_EQ(70 * MS, parseProcCpuLineNs("cpu 4 3\n", 100));
  EXPECT_EQ(0, parseProcCpuLineNs("cpu 4\n", 100));
  EXPECT_EQ(0, parseProcCpuLineNs("", 100));
}

TEST_F(CPUTimeTest, MissingThreadReadsAsZero) {
  const int noSuchThread = 0x3FFFFFF0;  // above any pid_max the kernel allows
  EXPECT_EQ(0, readThreadStatCPUTimeNs(noSuchThread));
  EXPECT_EQ(0, readThreadStatCPUTimeNs(-5));

  ASSERT_TRUE(ourLinuxFastThreadCPUTimeSupported);
  int badCallsBefore = ourBadSysCallCount.load();
  EXPECT_EQ(0, getThreadCPUTimeNs(noSuchThread));
  EXPECT_EQ(badCallsBefore + 1, ourBadSysCallCount.load());

  ourLinuxFastThreadCPUTimeSupported = false;
  EXPECT_EQ(0, getThreadCPUTimeNs(noSuchThread));
}

TEST_F(CPUTimeTest, PlatformCheckFindsThePerThreadClocks) {
  EXPECT_TRUE(ourLinuxFastThreadCPUTimeSupported);
  EXPECT_EQ(sysconf(_SC_CLK_TCK), ourClockTicksPerSecond);
  EXPECT_EQ(static_cast<int>(syscall(SYS_gettid)), getCurrentThreadID());
  // The clock id of this thread must be the one the C library uses for this thread: the
  // exact scheduler clock of that very thread.
  clockid_t libcClock;
  ASSERT_EQ(0, pthread_getcpuclockid(pthread_self(), &libcClock));
  EXPECT_EQ(libcClock, threadCPUClockId(getCurrentThreadID()));
}

TEST_F(CPUTimeTest, OtherThreadReadsTheSameOnEveryPath) {
  // The name has a closing parenthesis and blanks in it, to mislead a naive stat parser.
  const char* trickyName = "w) (x y) S 1 2";
  BurnerThread burner(trickyName, 300 * MS);
  std::ifstream comm("/proc/self/task/" + std::to_string(burner.tid()) + "/comm");
  std::string name;
  std::getline(comm, name);
  ASSERT_EQ(trickyName, name);

  expectSampledNear(burner.burnedNs(), getThreadCPUTimeNs(burner.tid()), "fast path");
  expectNear(burner.burnedNs(), readThreadStatCPUTimeNs(burner.tid()), "stat reader");
  ourLinuxFastThreadCPUTimeSupported = false;
  expectNear(burner.burnedNs(), getThreadCPUTimeNs(burner.tid()), "fallback");
}

TEST_F(CPUTimeTest, CurrentThreadReadsItsOwnClockOnBothPaths) {
  jlong fastBefore = getCurrentThreadCPUTimeNs();
  jlong libcBefore = libcClockNs(CLOCK_THREAD_CPUTIME_ID);
  burnCPU(200 * MS);
  jlong libcAfter = libcClockNs(CLOCK_THREAD_CPUTIME_ID);
  jlong fastAfter = getCurrentThreadCPUTimeNs();
  // Same kernel clock as the C library's: exact up to the calls in between.
  EXPECT_GE(fastAfter - fastBefore, libcAfter - libcBefore);
  EXPECT_LT(fastAfter - fastBefore, libcAfter - libcBefore + 5 * MS);

  ourLinuxFastThreadCPUTimeSupported = false;
  expectNear(libcClockNs(CLOCK_THREAD_CPUTIME_ID), getCurrentThreadCPUTimeNs(), "stat reader");
}

TEST_F(CPUTimeTest, ProcessTimeCoversAllThreadsOnEveryPath) {
  BurnerThread burner("burner", 250 * MS);
  jlong processNs = libcClockNs(CLOCK_PROCESS_CPUTIME_ID);

  ourRusageCoversAllThreads = true;
  jlong byRusage = getProcessCPUTimeNs();
  EXPECT_GE(byRusage, burner.burnedNs() - 60 * MS);
  expectNear(processNs, byRusage, "getrusage");

  // The task directory lists live threads only, so threads that earlier tests ended are
  // missing from this sum, though not from the process clock.
  ourRusageCoversAllThreads = false;
  jlong liveThreadsNs = burner.burnedNs() + libcClockNs(CLOCK_THREAD_CPUTIME_ID);
  jlong byTasks = getProcessCPUTimeNs();
  EXPECT_GE(byTasks, liveThreadsNs - 60 * MS);
  EXPECT_LE(byTasks, libcClockNs(CLOCK_PROCESS_CPUTIME_ID) + 60 * MS);
  jlong summed = 0;
  ASSERT_TRUE(sumTaskDirCPUTimeNs(&summed));
  EXPECT_GE(summed, byTasks);
}

// The last way to the process's time, for systems without /proc/self/task: the threads the
// agent knows of, by their kernel ids.
class CPUTimeKnownThreadsTest : public AgentDBTest {};

TEST_F(CPUTimeKnownThreadsTest, SumsEveryRegisteredThreadOnEitherClock) {
  bool savedFast = ourLinuxFastThreadCPUTimeSupported;
  ASSERT_TRUE(checkPlatformCapabilities());
  EXPECT_EQ(0, sumKnownThreadsCPUTimeNs());

  BurnerThread first("first", 200 * MS);
  BurnerThread second("second", 100 * MS);
  ourAllThreadInfos.add(new ThreadInfo("first", "main", first.tid()));
  ourAllThreadInfos.add(new ThreadInfo("second", "main", second.tid()));
  jlong expected = first.burnedNs() + second.burnedNs();
  expectSampledNear(expected, sumKnownThreadsCPUTimeNs(), "fast path");
  ourLinuxFastThreadCPUTimeSupported = false;
  expectNear(expected, sumKnownThreadsCPUTimeNs(), "fallback");
  ourLinuxFastThreadCPUTimeSupported = savedFast;
}

}  // namespace
