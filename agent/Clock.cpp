#include "agent/Clock.h"

#include <sys/time.h>
#include <time.h>

namespace {

const jlong NANOS_PER_SECOND = 1000000000LL;
const jlong NANOS_PER_MILLI = 1000000LL;

enum ClockSource { SOURCE_UNKNOWN = 0, SOURCE_MONOTONIC = 1, SOURCE_WALL = 2 };

// Decided once, by the first reading: some old kernels and sandboxes lack CLOCK_MONOTONIC.
std::atomic<int> ourClockSource(SOURCE_UNKNOWN);
ClockAccumulator ourTimeAccumulator;

jlong readWallClockNs() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<jlong>(tv.tv_sec) * NANOS_PER_SECOND + static_cast<jlong>(tv.tv_usec) * 1000;
}

jlong readRawClockNs() {
  int source = ourClockSource.load(std::memory_order_relaxed);
  struct timespec ts;
  if (source == SOURCE_MONOTONIC) {
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<jlong>(ts.tv_sec) * NANOS_PER_SECOND + ts.tv_nsec;
  }
  if (source == SOURCE_WALL) {
    return readWallClockNs();
  }
  if (clock_gettime(CLOCK_MONOTONIC, &ts) == 0) {
    ourClockSource.store(SOURCE_MONOTONIC, std::memory_order_relaxed);
    return static_cast<jlong>(ts.tv_sec) * NANOS_PER_SECOND + ts.tv_nsec;
  }
  ourClockSource.store(SOURCE_WALL, std::memory_order_relaxed);
  return readWallClockNs();
}

}  // namespace

jlong clampClockStepNs(jlong previousNs, jlong currentNs) {
  // Unsigned subtraction: the raw values may be far apart (a wall clock set years back) and
  // the difference must not overflow before it is judged.
  if (currentNs <= previousNs) {
    return 0;
  }
  unsigned long long step = static_cast<unsigned long long>(currentNs) - static_cast<unsigned long long>(previousNs);
  if (step > static_cast<unsigned long long>(MAX_CLOCK_STEP_NS)) {
    return MAX_CLOCK_STEP_NS;
  }
  return static_cast<jlong>(step);
}

jlong ClockAccumulator::advance(jlong readingNs) {
  // The reading is stored whatever it is: after a wall clock was set back, time must go on
  // from the new value instead of standing still until the clock has caught up.
  jlong previousNs = myLastReadingNs.exchange(readingNs, std::memory_order_relaxed);
  jlong step = previousNs == CLOCK_NO_READING ? 0 : clampClockStepNs(previousNs, readingNs);
  return myAccumulatedNs.fetch_add(step, std::memory_order_relaxed) + step;
}

jlong getTimeNs() { return ourTimeAccumulator.advance(readRawClockNs()); }

UptimeProvider::UptimeProvider() : myStartTimeMs(getTimeNs() / NANOS_PER_MILLI) {}

jlong UptimeProvider::getUptimeMs() const { return getTimeNs() / NANOS_PER_MILLI - myStartTimeMs; }

UptimeProvider ourUptimeProvider;
