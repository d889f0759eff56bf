#ifndef KJP_ENGINES_SAMPLETIMER_H
#define KJP_ENGINES_SAMPLETIMER_H

#include <signal.h>
#include <stdint.h>
#include <time.h>

// A thread's alarm on its own CPU time for the asynchronous sampler: a signal delivered to that
// very thread each time it has burned the CPU time asked for.
//
// Two kinds. A POSIX CPU timer (timer_create on the thread's CPU clock) is checked by the kernel
// only at its clock tick, so its samples land where the thread happens to be at ticks; on a
// loaded machine, where the thread shares its core, that place is not spread evenly over the
// thread's work (a method with 65% of a thread's CPU drew 72% of the samples, at 1 ms and at
// 20 ms). The kernel's perf task clock is a high-resolution timer that runs while the thread
// runs and fires when the thread's CPU time reaches the interval, wherever that is; it needs
// perf_event_open, which kernels may keep from unprivileged users. Signals of the application's
// own timers are told apart by what they carry: the token given at arm().
class SampleTimer {
 public:
  enum Kind { PERF_TASK_CLOCK, POSIX_CPU_TIMER };

  // Whether the kernel gives this process a perf task clock of the calling thread, counting its
  // time in the kernel too (a sample whose interval ends in a system call is then delivered
  // as the call returns, as a POSIX timer's is, rather than skipped).
  static bool perfTaskClockWorks();
  // Whether the kernel takes a POSIX timer on the calling thread's CPU clock.
  static bool posixTimerWorks();

  SampleTimer() : myKind(POSIX_CPU_TIMER), myTimer(), myFd(-1), myArmed(false) {}

  // Arms a timer of 'kind' for thread 'tid' (any thread of the process) that signals 'signo'
  // after 'firstNs' of its CPU time; 'token' (not 0) is what tokenOf gives back for its signals.
  // Until rearm() sets the next interval, a POSIX timer goes on every 'periodNs', a perf timer
  // every 'firstNs'. False when the kernel refuses (the thread ended, no descriptors or timers
  // left).
  bool arm(Kind kind, int tid, int signo, uint64_t token, int64_t firstNs, int64_t periodNs);
  // From the signal handler, on the thread itself: the next signal after 'ns' more CPU time,
  // then every 'periodNs' (a perf timer: every 'ns'). Async-signal-safe.
  void rearm(int64_t ns, int64_t periodNs);
  // The timer is gone when this returns; a signal it had already sent may still be on its way,
  // and tokenOf still gives its token (the owner knows it for stale), unless the kernel has
  // given the timer's descriptor to another timer since.
  void disarm();

  bool isArmed() const { return myArmed; }
  Kind kind() const { return myKind; }
  // The perf event's descriptor; -1 for a POSIX timer or when disarmed.
  int descriptor() const { return myFd; }

  // From the signal handler: the token of the timer that sent this signal to the calling thread,
  // 0 for a signal that didn't come from an armed SampleTimer of this thread. Async-signal-safe.
  static uint64_t tokenOf(const siginfo_t* info);

  // From the signal handler, for a signal without a token: whether a perf timer of another
  // thread sent it, on a descriptor that has served a timer since (the signal was on its way when
  // its timer was disarmed). It is nobody's to handle. Async-signal-safe.
  static bool isStale(const siginfo_t* info);

  // Descriptors at or above this number are not used for perf timers: the handler finds a
  // signal's token in a table indexed by descriptor.
  static const int MAX_PERF_FD = 1 << 16;

 private:
  Kind myKind;
  timer_t myTimer;
  int myFd;
  bool myArmed;
};

#endif
