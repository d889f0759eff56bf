#ifndef KJP_JVMTI_AGENT_H
#define KJP_JVMTI_AGENT_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KLock.h"
#include "agent/KSet.h"
#include "agent/KVector.h"

class ThreadInfo;

// Texts every message of the agent is built from.
#define KJP_PRODUCT_NAME "Kestrix Java Profiler 8.0.1"
#define KJP_LOG_PREFIX "[" KJP_PRODUCT_NAME "] "
#define KJP_CANNOT_START KJP_PRODUCT_NAME " cannot start"

// Bits of ourStatus: which measurements run now. The Java runtime knows the same values.
const jlong ALLOCATION_RECORDING_BIT = 2;
const jlong CPU_TIMES_BIT = 4;
const jlong CPU_COUNTS_BIT = 8;
const jlong CPU_J2EE_BIT = 32;
const jlong MONITORS_BIT = 128;
const jlong INTERNAL_ERROR_BIT = 256;
const jlong STACK_TELEMETRY = 512;
const jlong CPU_PROFILING = CPU_TIMES_BIT | CPU_COUNTS_BIT | CPU_J2EE_BIT;
// How CPU profiling takes its times, given with its mode: samples from per-thread CPU timers
// instead of stacks taken at safepoints; for tracing, times from samples or from the thread
// clock at every call (neither: the agent chooses by the clock's cost).
const jlong CPU_ASYNC_BIT = 1024;
const jlong CPU_SAMPLED_TIMES_BIT = 2048;
const jlong CPU_CLOCK_TIMES_BIT = 4096;
const jlong CPU_TIME_SOURCE = CPU_ASYNC_BIT | CPU_SAMPLED_TIMES_BIT | CPU_CLOCK_TIMES_BIT;

extern JavaVM* ourVM;
extern jvmtiEnv* ourJVMTI;
extern jvmtiEnv* ourJVMTI2;
extern jvmtiEnv* ourJVMTI3;
extern jvmtiEnv* ourJVMTI4;
extern jvmtiEnv* ourJVMTI5;
extern jvmtiEnv* ourJVMTI6;
extern jvmtiEnv* ourJVMTI7;

extern bool ourIsMustang;
extern bool ourIs6u4OrNewer;
// The JVM may run virtual threads (JVMTI 19 and later): the code of one runs on a carrier thread
// whose native thread-locals are the carrier's, not its own.
extern bool ourHasVirtualThreads;
extern bool ourIsIBM;
extern bool ourIsJRockit;
extern bool ourIsMac;
extern bool ourIsJRockit_R27;
extern bool ourIsJRockit_R27_1;
extern bool ourIsOldIBM;

extern volatile bool ourVMStartCalled;
extern volatile bool ourVMInitCalled;
extern volatile bool ourVMDeathCalled;

// The JVM's phase. Between VM Init and VM Death it is live and stays so, and HotSpot's
// GetPhase moves the calling thread into the VM and back, which costs more than a probe's own
// work; so the JVM is asked only outside that window.
jvmtiPhase currentPhase();

// What is being measured now; starts with stack telemetry on.
extern volatile jlong ourStatus;

extern const char* const ourNativeMethodPrefix;

// The one agent lock: guards the database, the call tree, the engines' maps and the set of
// live threads. Recursive, because natives holding it call others that take it again.
extern KLock ourLock;

extern jrawMonitorID ourJVMTISamplerLock;

// Live threads; guarded by ourLock.
extern KSet<ThreadInfo*> ourAllThreadInfos;
// Running numbers of ended threads not yet folded; guarded by ourLock.
extern KVector<jint> ourDeadThreadRunningNumbers;

// Platform facts fixed once at start-up by checkPlatformCapabilities().
extern bool ourLinuxFastThreadCPUTimeSupported;
extern int ourClockTicksPerSecond;
extern bool ourRusageCoversAllThreads;

// Predicates over the JVM flags; other parts ask these instead of reading the flags.
bool canInstrumentNativeMethods();
bool canWriteExactArrayLengths();
bool isFieldOrderBySpecification();
bool isInterfaceFieldsBeforeOther();
bool isFlagUsed();

#endif
