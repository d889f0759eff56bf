#ifndef KJP_CLOCK_H
#define KJP_CLOCK_H

#include <jni.h>

#include <atomic>

// Nanoseconds since the first call, from CLOCK_MONOTONIC where the kernel has it and from
// gettimeofday otherwise. Never decreases, and no single step between two calls counts more
// than 60 seconds, so a suspended machine or a wall clock that is set back or forward costs
// the recorded times at most a minute. The first call returns 0. Takes no lock.
jlong getTimeNs();

// The longest step one reading may add to getTimeNs.
const jlong MAX_CLOCK_STEP_NS = 60000000000LL;

// How much a move of the raw clock from 'previousNs' to 'currentNs' adds to getTimeNs: a
// backward or zero move adds nothing, a move beyond a minute adds exactly a minute.
jlong clampClockStepNs(jlong previousNs, jlong currentNs);

// No real clock reads this: both sources count from 1970 or from boot.
const jlong CLOCK_NO_READING = static_cast<jlong>(-0x7FFFFFFFFFFFFFFFLL - 1);

// The accumulation behind getTimeNs, kept apart from the clock it reads so that any sequence
// of raw readings can be fed to it. It is lock-free: each caller swaps in its reading and adds
// the step from the reading it displaced, so with many threads asking at once no interval is
// lost and the sum only grows. (A reading overtaken by a newer one before it is swapped in
// lets a few nanoseconds count twice.)
class ClockAccumulator {
 public:
  // Constant-initialised, so that a static initialiser elsewhere may ask for the time before
  // this file's own initialisers have run.
  constexpr ClockAccumulator() : myLastReadingNs(CLOCK_NO_READING), myAccumulatedNs(0) {}

  // Takes one raw reading and returns the accumulated time after it.
  jlong advance(jlong readingNs);

 private:
  std::atomic<jlong> myLastReadingNs;  // CLOCK_NO_READING before the first one
  std::atomic<jlong> myAccumulatedNs;
};

// The process's time origin for uptimes in milliseconds.
class UptimeProvider {
 public:
  UptimeProvider();

  // Milliseconds of getTimeNs since this provider was made.
  jlong getUptimeMs() const;

 private:
  jlong myStartTimeMs;
};

extern UptimeProvider ourUptimeProvider;

#endif
