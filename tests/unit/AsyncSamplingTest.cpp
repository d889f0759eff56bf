#include <gtest/gtest.h>

#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/CPUTime.h"
#include "agent/JVMTI_Agent.h"
#include "engines/AsyncSampling.h"
#include "engines/CPUProfiling.h"
#include "engines/SampleRing.h"

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace {

typedef SampleRingOf<4, 8> SmallRing;

TEST(SampleRing, AFullRingCarriesTheTimeOfRefusedSamplesIntoTheNextOne) {
  SmallRing ring;
  for (int i = 0; i < SmallRing::CAPACITY; i++) {
    SmallRing::Entry* entry = ring.beginWrite(10);
    ASSERT_NE(nullptr, entry);
    entry->myFrameCount = i + 1;
    ring.commit();
  }
  EXPECT_EQ(nullptr, ring.beginWrite(7));
  EXPECT_EQ(nullptr, ring.beginWrite(5));
  EXPECT_EQ(12, ring.carriedNs());

  // Entries come out in the order they went in, and a freed place takes the carried time.
  const SmallRing::Entry* first = ring.peek();
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(1, first->myFrameCount);
  ring.pop();
  SmallRing::Entry* next = ring.beginWrite(10);
  ASSERT_NE(nullptr, next);
  EXPECT_EQ(22, next->myCPUTimeNs);
  EXPECT_EQ(0, next->myFrameCount);
  ring.commit();
  EXPECT_EQ(0, ring.carriedNs());

  jlong drained = 0;
  std::vector<jint> order;
  for (const SmallRing::Entry* e = ring.peek(); e != nullptr; e = ring.peek()) {
    drained += e->myCPUTimeNs;
    order.push_back(e->myFrameCount);
    ring.pop();
  }
  EXPECT_EQ(52, drained);
  EXPECT_EQ((std::vector<jint>{2, 3, 4, 0}), order);

  ring.beginWrite(3);
  ring.commit();
  ring.reset();
  EXPECT_EQ(nullptr, ring.peek());
  EXPECT_EQ(0, ring.carriedNs());
}

// A thread's CPU-time timer signals that thread, whose handler fills a ring that another thread
// drains at the same time: every expiry's time arrives exactly once, in order, whether its
// sample was written or carried.
std::atomic<SmallRing*> ourRing(nullptr);
std::atomic<jlong> ourExpiries(0);
std::atomic<jint> ourSequence(0);
const jlong PERIOD_NS = 1000000;

void onTestSignal(int, siginfo_t* info, void*) {
  SmallRing* ring = ourRing.load();
  if (ring == nullptr || info->si_code != SI_TIMER) {
    return;
  }
  jlong expiries = 1 + (info->si_overrun > 0 ? info->si_overrun : 0);
  ourExpiries.fetch_add(expiries);
  SmallRing::Entry* entry = ring->beginWrite(expiries * PERIOD_NS);
  if (entry != nullptr) {
    entry->myFrameCount = ourSequence.fetch_add(1) + 1;
    entry->myFrames[0].myLine = entry->myFrameCount;
    ring->commit();
  }
}

jlong threadCPUNs() {
  struct timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<jlong>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

TEST(SampleRing, SamplesWrittenBySignalHandlersReachTheDrainerWholeAndInOrder) {
  const int signo = SIGRTMIN + 3;
  struct sigaction action;
  struct sigaction previous;
  memset(&action, 0, sizeof(action));
  action.sa_sigaction = onTestSignal;
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(0, sigaction(signo, &action, &previous));
  SmallRing ring;
  ourRing.store(&ring);
  ourExpiries.store(0);
  ourSequence.store(0);

  std::atomic<bool> burnerDone(false);
  std::thread burner([&] {
    struct sigevent event;
    memset(&event, 0, sizeof(event));
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = signo;
    event.sigev_notify_thread_id = static_cast<int>(syscall(SYS_gettid));
    timer_t timer;
    struct itimerspec spec = {{0, PERIOD_NS}, {0, PERIOD_NS}};
    bool armed = timer_create(CLOCK_THREAD_CPUTIME_ID, &event, &timer) == 0;
    EXPECT_TRUE(armed);
    if (!armed || timer_settime(timer, 0, &spec, nullptr) != 0) {
      ADD_FAILURE() << "no CPU-time timer";
      burnerDone.store(true);
      return;
    }
    jlong start = threadCPUNs();
    volatile unsigned long sink = 0;
    while (threadCPUNs() - start < 300 * PERIOD_NS) {
      for (int i = 0; i < 1000; i++) {
        sink = sink + static_cast<unsigned long>(i);
      }
    }
    timer_delete(timer);
    burnerDone.store(true);
  });

  jlong drained = 0;
  jint lastSequence = 0;
  bool inOrder = true;
  auto drain = [&] {
    for (const SmallRing::Entry* e = ring.peek(); e != nullptr; e = ring.peek()) {
      inOrder = inOrder && e->myFrameCount == lastSequence + 1 && e->myFrames[0].myLine == e->myFrameCount;
      lastSequence = e->myFrameCount;
      drained += e->myCPUTimeNs;
      ring.pop();
    }
  };
  while (!burnerDone.load()) {
    drain();
    std::this_thread::yield();
  }
  burner.join();
  drain();
  ourRing.store(nullptr);
  sigaction(signo, &previous, nullptr);

  EXPECT_TRUE(inOrder);
  EXPECT_EQ(ourSequence.load(), lastSequence);
  EXPECT_GT(ourExpiries.load(), 0);
  // The time of the last refused samples, if any, waits in the ring for a next sample.
  EXPECT_EQ(ourExpiries.load() * PERIOD_NS, drained + ring.carriedNs());
}

TEST(AsyncSampling, WalksThatFindNoJavaFramesAreCountedUnderNamedPseudoFrames) {
  EXPECT_STREQ("<native>", pseudoFrameName(0));
  EXPECT_STREQ("<class loading>", pseudoFrameName(-1));
  EXPECT_STREQ("<GC>", pseudoFrameName(-2));
  EXPECT_STREQ("<native>", pseudoFrameName(-3));
  EXPECT_STREQ("<native>", pseudoFrameName(-4));
  EXPECT_STREQ("<unknown Java>", pseudoFrameName(-5));
  EXPECT_STREQ("<unknown Java>", pseudoFrameName(-6));
  for (jint code : {-7, -8, -9, -10, -11}) {
    EXPECT_STREQ("<VM>", pseudoFrameName(code)) << code;
  }
}

TEST(AsyncSampling, TheFallbackNamesTheFirstThingMissing) {
  EXPECT_EQ(nullptr, asyncSamplingUnavailableReason(true, true, true));
  EXPECT_STREQ("this JVM does not export AsyncGetCallTrace", asyncSamplingUnavailableReason(false, true, true));
  EXPECT_STREQ("this JVM does not export AsyncGetCallTrace", asyncSamplingUnavailableReason(false, false, false));
  EXPECT_STREQ("the kernel refuses timers on a thread's CPU clock", asyncSamplingUnavailableReason(true, false, true));
  EXPECT_STREQ("the handler of SIGPROF cannot be installed", asyncSamplingUnavailableReason(true, true, false));
}

TEST(TracingTimes, TheSourceFollowsTheRequestThenTheClocksCost) {
  const jlong tracing = CPU_TIMES_BIT | CPU_COUNTS_BIT;
  // Asked for: samples always; the clock whenever there is a fast one, however slow.
  EXPECT_TRUE(tracingTimesSampledFor(tracing | CPU_SAMPLED_TIMES_BIT, true, 100));
  EXPECT_TRUE(tracingTimesSampledFor(tracing | CPU_ASYNC_BIT, true, 100));
  EXPECT_FALSE(tracingTimesSampledFor(tracing | CPU_CLOCK_TIMES_BIT, true, 50000));
  // Not asked: the clock up to the threshold, samples above it.
  EXPECT_FALSE(tracingTimesSampledFor(tracing, true, SLOW_THREAD_CLOCK_NS));
  EXPECT_TRUE(tracingTimesSampledFor(tracing, true, SLOW_THREAD_CLOCK_NS + 1));
  // Without a fast clock there is nothing else.
  EXPECT_TRUE(tracingTimesSampledFor(tracing | CPU_CLOCK_TIMES_BIT, false, 0));
}

TEST(TracingTimes, TheSnapshotPropertyNamesTheSourceOfTheTimes) {
  EXPECT_STREQ(TIMES_FROM_CLOCK, timeSourceName(CPU_TIMES_BIT | CPU_COUNTS_BIT | CPU_CLOCK_TIMES_BIT));
  EXPECT_STREQ(TIMES_FROM_SAFEPOINT_SAMPLES, timeSourceName(CPU_TIMES_BIT | CPU_COUNTS_BIT | CPU_SAMPLED_TIMES_BIT));
  EXPECT_STREQ(TIMES_FROM_ASYNC_SAMPLES,
               timeSourceName(CPU_TIMES_BIT | CPU_COUNTS_BIT | CPU_SAMPLED_TIMES_BIT | CPU_ASYNC_BIT));
  EXPECT_STREQ(TIMES_FROM_SAFEPOINT_SAMPLES, timeSourceName(CPU_TIMES_BIT));
  EXPECT_STREQ(TIMES_FROM_ASYNC_SAMPLES, timeSourceName(CPU_TIMES_BIT | CPU_ASYNC_BIT));
}

TEST(TracingTimes, TheClocksCostIsMeasuredAtStartUp) {
  // Only that it was measured, and a figure a kernel call can have: its size depends on the machine.
  measureThreadClockCost();
  EXPECT_GT(ourThreadClockReadNs, 0);
  EXPECT_LT(ourThreadClockReadNs, 1000000);
}

}  // namespace
