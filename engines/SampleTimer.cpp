#include "engines/SampleTimer.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "agent/CPUTime.h"

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace {

// Per perf descriptor: the token of its timer and the thread it signals. A signal names only the
// descriptor, and a descriptor closed with a signal still queued may be reused for another
// thread's timer before the signal is taken, so the handler accepts a token only for its own
// thread. arm() clears the token, sets the thread, then sets the token.
std::atomic<uint64_t> ourFdTokens[SampleTimer::MAX_PERF_FD];
std::atomic<int> ourFdThreads[SampleTimer::MAX_PERF_FD];

int currentTid() { return static_cast<int>(syscall(SYS_gettid)); }

int openTaskClock(int tid, int64_t periodNs) {
  struct perf_event_attr attr;
  memset(&attr, 0, sizeof(attr));
  attr.type = PERF_TYPE_SOFTWARE;
  attr.size = sizeof(attr);
  attr.config = PERF_COUNT_SW_TASK_CLOCK;
  attr.sample_period = static_cast<uint64_t>(periodNs > 0 ? periodNs : 1);
  attr.disabled = 1;
  return static_cast<int>(syscall(SYS_perf_event_open, &attr, tid, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

void toTimeSpec(int64_t ns, struct timespec* time) {
  time->tv_sec = static_cast<time_t>(ns / 1000000000LL);
  time->tv_nsec = static_cast<long>(ns % 1000000000LL);
}

}  // namespace

bool SampleTimer::perfTaskClockWorks() {
  int fd = openTaskClock(0, 20000000);
  if (fd < 0) {
    return false;
  }
  close(fd);
  return true;
}

bool SampleTimer::posixTimerWorks() {
  struct sigevent event;
  memset(&event, 0, sizeof(event));
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = SIGPROF;
  event.sigev_notify_thread_id = currentTid();
  timer_t timer;
  if (timer_create(threadCPUClockId(currentTid()), &event, &timer) != 0) {
    return false;
  }
  timer_delete(timer);
  return true;
}

bool SampleTimer::arm(Kind kind, int tid, int signo, uint64_t token, int64_t firstNs, int64_t periodNs) {
  myKind = kind;
  myArmed = false;
  if (kind == PERF_TASK_CLOCK) {
    int fd = openTaskClock(tid, firstNs);
    if (fd < 0) {
      return false;
    }
    struct f_owner_ex owner = {F_OWNER_TID, tid};
    // The signal goes to the thread itself (F_SETOWN_EX) and carries the descriptor (F_SETSIG).
    if (fd >= MAX_PERF_FD || fcntl(fd, F_SETFL, O_ASYNC) != 0 || fcntl(fd, F_SETSIG, signo) != 0 ||
        fcntl(fd, F_SETOWN_EX, &owner) != 0) {
      close(fd);
      return false;
    }
    ourFdTokens[fd].store(0, std::memory_order_release);
    ourFdThreads[fd].store(tid, std::memory_order_release);
    ourFdTokens[fd].store(token, std::memory_order_release);
    if (ioctl(fd, PERF_EVENT_IOC_ENABLE, 0) != 0) {
      ourFdTokens[fd].store(0, std::memory_order_release);
      close(fd);
      return false;
    }
    myFd = fd;
    myArmed = true;
    return true;
  }
  struct sigevent event;
  memset(&event, 0, sizeof(event));
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = signo;
  event.sigev_notify_thread_id = tid;
  event.sigev_value.sival_ptr = reinterpret_cast<void*>(token);
  if (timer_create(threadCPUClockId(tid), &event, &myTimer) != 0) {
    return false;
  }
  // Should the handler not set it again (it is left alone while the sampler stops), the timer
  // keeps firing every period.
  struct itimerspec spec;
  toTimeSpec(periodNs, &spec.it_interval);
  toTimeSpec(firstNs, &spec.it_value);
  if (timer_settime(myTimer, 0, &spec, nullptr) != 0) {
    timer_delete(myTimer);
    return false;
  }
  myArmed = true;
  return true;
}

void SampleTimer::rearm(int64_t ns, int64_t periodNs) {
  if (!myArmed) {
    return;
  }
  if (myKind == PERF_TASK_CLOCK) {
    // A new period restarts the count from here; the event stays enabled in between, so a
    // handler that doesn't come back leaves the old period running, not a silent thread.
    uint64_t period = static_cast<uint64_t>(ns > 0 ? ns : 1);
    ioctl(myFd, PERF_EVENT_IOC_PERIOD, &period);
    return;
  }
  struct itimerspec spec;
  toTimeSpec(periodNs, &spec.it_interval);
  toTimeSpec(ns, &spec.it_value);
  timer_settime(myTimer, 0, &spec, nullptr);
}

void SampleTimer::disarm() {
  if (!myArmed) {
    return;
  }
  myArmed = false;
  if (myKind == PERF_TASK_CLOCK) {
    // The token stays until the descriptor serves another timer: a signal still on its way is
    // then known as the agent's (its owner tells by the token that it is stale) rather than
    // passed on to the application's handler.
    close(myFd);
    myFd = -1;
    return;
  }
  timer_delete(myTimer);
}

namespace {

// The descriptor of a signal that a perf timer may have sent, -1 for any other signal. A perf
// descriptor's signal carries the poll band of its event: POLL_IN for each period.
int perfSignalFd(const siginfo_t* info) {
  if (info->si_code != POLL_IN && info->si_code != POLL_HUP) {
    return -1;
  }
  int fd = info->si_fd;
  return fd >= 0 && fd < SampleTimer::MAX_PERF_FD ? fd : -1;
}

}  // namespace

bool SampleTimer::isStale(const siginfo_t* info) {
  int fd = perfSignalFd(info);
  return fd != -1 && ourFdTokens[fd].load(std::memory_order_acquire) != 0 &&
         ourFdThreads[fd].load(std::memory_order_acquire) != currentTid();
}

uint64_t SampleTimer::tokenOf(const siginfo_t* info) {
  if (info->si_code == SI_TIMER) {
    return reinterpret_cast<uint64_t>(info->si_value.sival_ptr);
  }
  int fd = perfSignalFd(info);
  if (fd == -1) {
    return 0;
  }
  int before = ourFdThreads[fd].load(std::memory_order_acquire);
  uint64_t token = ourFdTokens[fd].load(std::memory_order_acquire);
  int after = ourFdThreads[fd].load(std::memory_order_acquire);
  if (token == 0 || before != after || before != currentTid()) {
    return 0;
  }
  return token;
}
