#include <gtest/gtest.h>

#include <limits.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "agent/Clock.h"

namespace {

const jlong SECOND = 1000000000LL;

TEST(ClockTest, StepsAreClampedToZeroAndOneMinute) {
  EXPECT_EQ(0, clampClockStepNs(1000, 1000));
  EXPECT_EQ(0, clampClockStepNs(1000, 999));
  EXPECT_EQ(1, clampClockStepNs(1000, 1001));
  EXPECT_EQ(59999999999LL, clampClockStepNs(0, 59999999999LL));
  EXPECT_EQ(60 * SECOND, clampClockStepNs(0, 60 * SECOND));
  EXPECT_EQ(60 * SECOND, clampClockStepNs(0, 60 * SECOND + 1));
  // Far-apart readings must not overflow into a negative or tiny step.
  EXPECT_EQ(60 * SECOND, clampClockStepNs(LLONG_MIN + 1, LLONG_MAX));
  EXPECT_EQ(0, clampClockStepNs(LLONG_MAX, LLONG_MIN + 1));
}

TEST(ClockTest, AccumulatorStartsAtZeroAndSurvivesJumpsBothWays) {
  ClockAccumulator clock;
  const jlong start = 1234567 * SECOND;  // any origin, e.g. a wall clock in 1970 seconds
  EXPECT_EQ(0, clock.advance(start));
  EXPECT_EQ(2 * SECOND, clock.advance(start + 2 * SECOND));
  // Five minutes pass at once (a suspended machine): only one minute counts.
  EXPECT_EQ(62 * SECOND, clock.advance(start + 302 * SECOND));
  // The wall clock is set back ten minutes: nothing is added and nothing taken away...
  EXPECT_EQ(62 * SECOND, clock.advance(start - 298 * SECOND));
  // ...and time goes on from the new reading, not from the old high mark.
  EXPECT_EQ(63 * SECOND, clock.advance(start - 297 * SECOND));
  EXPECT_EQ(63 * SECOND, clock.advance(start - 297 * SECOND));
}

TEST(ClockTest, AccumulatorCountsEveryIntervalOnceUnderContention) {
  // Threads feed readings from one shared, steadily rising source; however they interleave,
  // the total must cover the distance from the first reading to the last.
  ClockAccumulator clock;
  std::atomic<jlong> source(1000);
  clock.advance(source.load());
  const int THREADS = 4;
  const int STEPS = 20000;
  std::vector<std::thread> threads;
  std::atomic<bool> decreased(false);
  // A reading stored after a newer one makes the next step count the span between them again.
  // That span is at most how far the source had moved on once the stale reading was stored, so
  // the sum of those distances bounds the double counting however the threads were scheduled.
  std::atomic<jlong> overtaken(0);
  for (int t = 0; t < THREADS; t++) {
    threads.emplace_back([&]() {
      jlong seen = 0;
      jlong lag = 0;
      for (int i = 0; i < STEPS; i++) {
        jlong reading = source.fetch_add(3) + 3;
        jlong now = clock.advance(reading);
        lag += source.load() - reading;
        if (now < seen) {
          decreased = true;
        }
        seen = now;
      }
      overtaken += lag;
    });
  }
  for (auto& t : threads) {
    t.join();
  }
  EXPECT_FALSE(decreased.load());
  // Nothing is ever lost, and nothing counts twice beyond what overtaken readings explain.
  jlong total = clock.advance(source.load());
  jlong expected = 3LL * THREADS * STEPS;
  EXPECT_GE(total, expected);
  EXPECT_LE(total, expected + overtaken.load());
}

TEST(ClockTest, TimeAndUptimeFollowTheMonotonicClock) {
  jlong first = getTimeNs();
  UptimeProvider uptime;
  struct timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  usleep(60000);
  struct timespec after;
  clock_gettime(CLOCK_MONOTONIC, &after);
  jlong second = getTimeNs();
  jlong realNs = (after.tv_sec - before.tv_sec) * SECOND + (after.tv_nsec - before.tv_nsec);
  EXPECT_GE(second - first, realNs);
  EXPECT_LT(second - first, realNs + SECOND);
  jlong uptimeMs = uptime.getUptimeMs();
  EXPECT_GE(uptimeMs, 59);
  EXPECT_LT(uptimeMs, realNs / 1000000 + 1000);
  EXPECT_GE(ourUptimeProvider.getUptimeMs(), uptimeMs);
}

}  // namespace
