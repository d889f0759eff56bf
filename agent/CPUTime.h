#ifndef KJP_CPU_TIME_H
#define KJP_CPU_TIME_H

#include <jni.h>
#include <time.h>

#include <atomic>

#include "agent/JVMTI_Agent.h"

// CPU clocks of threads and of the process, in nanoseconds. The platform flags they read
// (ourLinuxFastThreadCPUTimeSupported, ourClockTicksPerSecond, ourRusageCoversAllThreads,
// declared in agent/JVMTI_Agent.h) are set once by checkPlatformCapabilities at start-up.
// Every reader degrades to 0 when a clock can't be read; none takes a lock.

// Failed CPU-clock system calls; only counted, for inspection in a debugger or a test.
extern std::atomic<int> ourBadSysCallCount;

// The kernel id of the calling thread, or the process id where gettid is refused.
int getCurrentThreadID();

// Fixes the three platform flags; always true on Linux.
bool checkPlatformCapabilities();

// Whether getrusage(RUSAGE_SELF) covers every thread of the process, judged from a kernel
// release text the way uname gives it: true for "2.6.10" up to "2.9.x", false for anything
// older and for any release that doesn't start with "2." (a 3.x kernel included; the
// per-thread fallback serves those).
bool isRusageCoveringAllThreads(const char* release);

// The kernel's id for the CPU clock (user plus system time) of thread 'tid'.
clockid_t threadCPUClockId(int tid);

// Tracing takes its times from samples rather than from the thread clock at every call. Set
// when CPU profiling starts; tests may set it.
extern bool ourTracingTimesSampled;
// What one read of the calling thread's CPU clock cost at start-up, in nanoseconds (the least
// of a few batches, so that a loaded machine doesn't make the clock look slow); 0 before that.
extern jlong ourThreadClockReadNs;
// Above this cost per read, tracing takes its times from samples unless told otherwise: a
// traced call reads the clock twice, and at 2 µs a call, four times the cost of a whole traced
// call on a machine with a fast clock, a program that makes a million calls a second would
// spend more than its own time reading it.
const jlong SLOW_THREAD_CLOCK_NS = 1000;

// Whether the tracing probes time each call with the thread clock: the fast clock is there
// and the times are not taken from samples.
inline bool tracingReadsThreadClock() { return ourLinuxFastThreadCPUTimeSupported && !ourTracingTimesSampled; }

// Whether tracing started with 'mode' takes sampled times: when asked to (the sampled-times or
// the asynchronous bit), when the clock is slow and the clock bit wasn't given, or when there is
// no fast clock at all.
bool tracingTimesSampledFor(jlong mode, bool fastClock, jlong clockReadNs);

// Measures ourThreadClockReadNs.
void measureThreadClockCost();

jlong getCurrentThreadCPUTimeNs();
jlong getThreadCPUTimeNs(long tid);
// -1 if getrusage failed on the path that uses it.
jlong getProcessCPUTimeNs();

// The stat reader: user plus system time of a thread from /proc, 0 if it can't be read.
jlong readThreadStatCPUTimeNs(int tid);
// Its parser, over the text of a stat file: the command name may hold blanks and
// parentheses, so fields are counted from the last ")". 0 if the 13 fields after it don't all
// convert.
jlong parseThreadStatCPUTimeNs(const char* statText, int clockTicksPerSecond);
// The parser of the older per-thread "/proc/<tid>/cpu" line ("cpu <user> <system>"): 0 unless
// all three fields convert.
jlong parseProcCpuLineNs(const char* line, int clockTicksPerSecond);

// The second way to the process's CPU time: the stat reader summed over the threads listed
// in /proc/self/task. False, with nothing summed, if that directory can't be opened.
bool sumTaskDirCPUTimeNs(jlong* totalNs);
// Sums getThreadCPUTimeNs over ourAllThreadInfos; the caller holds ourLock.
jlong sumKnownThreadsCPUTimeNs();

#endif
