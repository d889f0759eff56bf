#include "agent/CPUTime.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "agent/JVMTI_Agent.h"
#include "engines/ThreadInfo.h"

#if defined(__x86_64__)
// The clock system calls are made by number so that they reach the kernel directly, on any C
// library; these are their numbers on x86-64.
static_assert(SYS_gettid == 186, "gettid");
static_assert(SYS_clock_gettime == 228, "clock_gettime");
static_assert(SYS_clock_getres == 229, "clock_getres");
#endif

bool ourLinuxFastThreadCPUTimeSupported = false;
bool ourTracingTimesSampled = false;
jlong ourThreadClockReadNs = 0;
// A usable value before start-up has run, so that no reader ever divides by zero.
int ourClockTicksPerSecond = 100;
bool ourRusageCoversAllThreads = false;

std::atomic<int> ourBadSysCallCount(0);

namespace {

const jlong NANOS_PER_SECOND = 1000000000LL;
const int STAT_BUFFER_SIZE = 2048;

// Set for good once "/proc/<tid>/cpu" was found missing; current kernels don't have it.
std::atomic<bool> ourProcCpuFileMissing(false);

jlong ticksToNs(unsigned long ticks, int clockTicksPerSecond) {
  return static_cast<jlong>(NANOS_PER_SECOND / clockTicksPerSecond) * static_cast<jlong>(ticks);
}

// Reads at most size-1 bytes of a small file and terminates them; false if it can't be
// opened. Plain system calls keep the stat reader free of heap allocation.
bool readSmallFile(const char* path, char* buffer, int size) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  int total = 0;
  while (total < size - 1) {
    ssize_t n = read(fd, buffer + total, static_cast<size_t>(size - 1 - total));
    if (n <= 0) {
      break;
    }
    total += static_cast<int>(n);
  }
  close(fd);
  buffer[total] = 0;
  return true;
}

jlong readProcCpuFileNs(long tid) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/cpu", static_cast<int>(tid));
  char line[256];
  if (!readSmallFile(path, line, sizeof(line))) {
    ourProcCpuFileMissing.store(true, std::memory_order_relaxed);
    return -1;
  }
  return parseProcCpuLineNs(line, ourClockTicksPerSecond);
}

}  // namespace

int getCurrentThreadID() {
  long tid = syscall(SYS_gettid);
  if (tid == -1) {
    return static_cast<int>(getpid());
  }
  return static_cast<int>(tid);
}

clockid_t threadCPUClockId(int tid) {
  // The kernel's encoding of a per-thread CPU clock: the complemented id above three low
  // bits, of which 4 marks "thread, not process" and the lowest two pick the clock. The
  // scheduler's clock (2) is exact to the nanosecond; the user-plus-system clock (0) moves in
  // whole scheduler ticks, which makes short samples of another thread read as nothing and
  // would disagree with the calling thread's own clock (CLOCK_THREAD_CPUTIME_ID, the same
  // scheduler clock) that tracing reads.
  return static_cast<clockid_t>((~static_cast<unsigned int>(tid) << 3) | 4U | 2U);
}

bool isRusageCoveringAllThreads(const char* release) {
  if (release == nullptr || release[0] != '2' || release[1] != '.') {
    return false;
  }
  if (release[2] <= '5' || release[3] != '.') {
    return false;
  }
  if (release[4] < '0' || release[4] > '9') {
    return false;
  }
  return strtol(release + 4, nullptr, 10) >= 10;
}

bool checkPlatformCapabilities() {
  clockid_t clockId = threadCPUClockId(getCurrentThreadID());
  struct timespec resolution = {0, 0};
  struct timespec now = {0, 0};
  ourLinuxFastThreadCPUTimeSupported = syscall(SYS_clock_getres, clockId, &resolution) == 0 &&
                                       resolution.tv_sec == 0 &&
                                       syscall(SYS_clock_gettime, clockId, &now) == 0;

  long ticks = sysconf(_SC_CLK_TCK);
  ourClockTicksPerSecond = ticks > 0 ? static_cast<int>(ticks) : 100;

  struct utsname name;
  ourRusageCoversAllThreads = uname(&name) == 0 && isRusageCoveringAllThreads(name.release);
  if (ourLinuxFastThreadCPUTimeSupported) {
    measureThreadClockCost();
  }
  return true;
}

void measureThreadClockCost() {
  // Five batches of 100 reads, about 0.1 ms in all with a fast clock; the cheapest batch is the
  // clock's own cost, the others hold time the thread was preempted.
  const int BATCHES = 5;
  const int READS = 100;
  jlong best = -1;
  for (int b = 0; b < BATCHES; b++) {
    struct timespec start = {0, 0};
    struct timespec end = {0, 0};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (int i = 0; i < READS; i++) {
      struct timespec ts;
      syscall(SYS_clock_gettime, CLOCK_THREAD_CPUTIME_ID, &ts);
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    jlong ns = (static_cast<jlong>(end.tv_sec) - start.tv_sec) * NANOS_PER_SECOND + (end.tv_nsec - start.tv_nsec);
    if (best < 0 || ns < best) {
      best = ns;
    }
  }
  ourThreadClockReadNs = best / READS;
}

bool tracingTimesSampledFor(jlong mode, bool fastClock, jlong clockReadNs) {
  if (!fastClock || (mode & (CPU_SAMPLED_TIMES_BIT | CPU_ASYNC_BIT)) != 0) {
    return true;
  }
  return (mode & CPU_CLOCK_TIMES_BIT) == 0 && clockReadNs > SLOW_THREAD_CLOCK_NS;
}

jlong parseThreadStatCPUTimeNs(const char* statText, int clockTicksPerSecond) {
  const char* nameEnd = strrchr(statText, ')');
  if (nameEnd == nullptr) {
    return 0;
  }
  const char* fields = nameEnd + 1;
  while (*fields == ' ' || *fields == '\t' || *fields == '\n') {
    fields++;
  }
  char state;
  int ppid, pgrp, session, ttyNr, tpgid;
  unsigned long flags, minflt, cminflt, majflt, cmajflt, utime, stime;
  int converted = sscanf(fields, "%c %d %d %d %d %d %lu %lu %lu %lu %lu %lu %lu", &state, &ppid, &pgrp, &session,
                         &ttyNr, &tpgid, &flags, &minflt, &cminflt, &majflt, &cmajflt, &utime, &stime);
  if (converted != 13) {
    return 0;
  }
  return ticksToNs(utime + stime, clockTicksPerSecond);
}

jlong parseProcCpuLineNs(const char* line, int clockTicksPerSecond) {
  char label[64];
  unsigned long user, system;
  if (sscanf(line, "%63s %lu %lu", label, &user, &system) != 3) {
    return 0;
  }
  return ticksToNs(user + system, clockTicksPerSecond);
}

jlong readThreadStatCPUTimeNs(int tid) {
  char path[64];
  char text[STAT_BUFFER_SIZE];
  snprintf(path, sizeof(path), "/proc/self/task/%d/stat", tid);
  if (!readSmallFile(path, text, sizeof(text))) {
    snprintf(path, sizeof(path), "/proc/%d/stat", tid);
    if (!readSmallFile(path, text, sizeof(text))) {
      return 0;
    }
  }
  return parseThreadStatCPUTimeNs(text, ourClockTicksPerSecond);
}

jlong getCurrentThreadCPUTimeNs() {
  if (ourLinuxFastThreadCPUTimeSupported) {
    struct timespec ts = {0, 0};
    if (syscall(SYS_clock_gettime, CLOCK_THREAD_CPUTIME_ID, &ts) != 0) {
      ourBadSysCallCount.fetch_add(1, std::memory_order_relaxed);
    }
    return static_cast<jlong>(ts.tv_sec) * NANOS_PER_SECOND + ts.tv_nsec;
  }
  return readThreadStatCPUTimeNs(getCurrentThreadID());
}

jlong getThreadCPUTimeNs(long tid) {
  if (ourLinuxFastThreadCPUTimeSupported) {
    // A thread that has ended makes the call fail; it then reads as 0.
    struct timespec ts = {0, 0};
    if (syscall(SYS_clock_gettime, threadCPUClockId(static_cast<int>(tid)), &ts) != 0) {
      ourBadSysCallCount.fetch_add(1, std::memory_order_relaxed);
    }
    return static_cast<jlong>(ts.tv_sec) * NANOS_PER_SECOND + ts.tv_nsec;
  }
  if (!ourProcCpuFileMissing.load(std::memory_order_relaxed)) {
    jlong ns = readProcCpuFileNs(tid);
    if (ns >= 0) {
      return ns;
    }
  }
  return readThreadStatCPUTimeNs(static_cast<int>(tid));
}

bool sumTaskDirCPUTimeNs(jlong* totalNs) {
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) {
    return false;
  }
  jlong total = 0;
  struct dirent* entry;
  while ((entry = readdir(dir)) != nullptr) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
      continue;
    }
    total += readThreadStatCPUTimeNs(atoi(entry->d_name));
  }
  closedir(dir);
  *totalNs = total;
  return true;
}

jlong sumKnownThreadsCPUTimeNs() {
  jlong total = 0;
  forEachLiveThread([&](ThreadInfo* info) { total += getThreadCPUTimeNs(static_cast<long>(info->myThreadID)); });
  return total;
}

jlong getProcessCPUTimeNs() {
  if (ourRusageCoversAllThreads) {
    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0) {
      return -1;
    }
    return (static_cast<jlong>(usage.ru_utime.tv_sec) + usage.ru_stime.tv_sec) * NANOS_PER_SECOND +
           (static_cast<jlong>(usage.ru_utime.tv_usec) + usage.ru_stime.tv_usec) * 1000;
  }
  jlong total = 0;
  if (sumTaskDirCPUTimeNs(&total)) {
    return total;
  }
  return sumKnownThreadsCPUTimeNs();
}
