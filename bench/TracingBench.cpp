#include <benchmark/benchmark.h>

#include <mutex>

#include "agent/CPUTime.h"
#include "agent/JVMTI_Agent.h"
#include "db/DB.h"
#include "engines/Filter.h"
#include "engines/KMethod.h"
#include "engines/ThreadInfo.h"
#include "engines/Tracing.h"
#include "engines/TracingGate.h"

// The tracing natives as the probes call them, against a JVM that answers only what the hot
// path asks: the phase and the current thread's ThreadInfo. Everything else the natives do is
// the agent's own code: the lock, the call tree, the rows, the thread CPU clock.

namespace {

thread_local ThreadInfo* ourBenchThread = nullptr;

jvmtiInterface_1_ ourBenchJVMTITable;
_jvmtiEnv ourBenchJVMTI;
JNINativeInterface_ ourBenchJNITable;
JNIEnv ourBenchEnv;
jint ourAppLoop = 0;
jint ourAppTiny = 0;
jint ourLibLoop = 0;
jint ourLibTiny = 0;

void setUpAgentOnce() {
  checkPlatformCapabilities();
  ourBenchJVMTITable = {};
  ourBenchJVMTITable.GetPhase = [](jvmtiEnv*, jvmtiPhase* phase) -> jvmtiError {
    *phase = JVMTI_PHASE_LIVE;
    return JVMTI_ERROR_NONE;
  };
  ourBenchJVMTITable.GetThreadLocalStorage = [](jvmtiEnv*, jthread, void** data) -> jvmtiError {
    *data = ourBenchThread;
    return JVMTI_ERROR_NONE;
  };
  ourBenchJVMTI.functions = &ourBenchJVMTITable;
  ourJVMTI = &ourBenchJVMTI;
  ourBenchJNITable = {};
  ourBenchEnv.functions = &ourBenchJNITable;
  DB::createAndInitializeDB(3600);
  LockHolder holder(&ourLock, "TracingBench(50)");
  Filter::reloadFilters(KString("bench.lib.*"), KString(""));
  ourAppLoop = KMethod::getByName("loop", "(J)J", "bench.App");
  ourAppTiny = KMethod::getByName("tiny", "(I)I", "bench.App");
  ourLibLoop = KMethod::getByName("loop", "(J)J", "bench.lib.Lib");
  ourLibTiny = KMethod::getByName("tiny", "(I)I", "bench.lib.Lib");
  ourStatus |= CPU_TIMES_BIT | CPU_COUNTS_BIT;
  // Between VM Init and VM Death, where an application's traced calls happen: the probes then
  // ask the JVM for nothing but the thread-local slot.
  ourVMInitCalled = true;
  TracingGate::init();
}

void setUpAgent() {
  static std::once_flag once;
  std::call_once(once, setUpAgentOnce);
}

jshort low(jint methodIndex) { return static_cast<jshort>(methodIndex & 0xFFFF); }
jshort high(jint methodIndex) { return static_cast<jshort>(methodIndex >> 16); }

void enter(jint methodIndex) {
  Java_com_kestrix_runtime_Callback_kjpMethodEntry0(&ourBenchEnv, nullptr, low(methodIndex), high(methodIndex));
}

void leave(jint methodIndex) {
  Java_com_kestrix_runtime_Callback_kjpMethodExit0(&ourBenchEnv, nullptr, low(methodIndex), high(methodIndex));
}

// Each benchmark thread is a traced thread whose stack is known and empty, as after the first
// entry, and that sits inside the given loop method.
void startThread(jint loopMethod) {
  {
    LockHolder holder(&ourLock, "TracingBench(75)");
    ourBenchThread = new ThreadInfo("bench", "main", 0);
    ourBenchThread->myCurrentFrameIndex = 0;
    // As a thread start would: a live thread the gate's closers know, found without the JVM.
    ourAllThreadInfos.add(ourBenchThread);
    setCurrentThreadInfo(ourBenchThread);
  }
  enter(loopMethod);
}

void endThread(jint loopMethod) {
  leave(loopMethod);
  // The ThreadInfo stays: its rows are in the tables, like a dead thread's before folding.
  LockHolder holder(&ourLock, "TracingBench(90)");
  ourAllThreadInfos.remove(ourBenchThread);
  setCurrentThreadInfo(nullptr);
  ourBenchThread = nullptr;
}

// The floor: the two clock reads that an unfiltered traced call makes.
void BM_TracingFloorTwoClockReads(benchmark::State& state) {
  setUpAgent();
  for (auto _ : state) {
    benchmark::DoNotOptimize(getCurrentThreadCPUTimeNs());
    benchmark::DoNotOptimize(getCurrentThreadCPUTimeNs());
  }
}
BENCHMARK(BM_TracingFloorTwoClockReads);

// Entry and exit of an application method called from an application method.
void BM_TracedCallUnfiltered(benchmark::State& state) {
  setUpAgent();
  startThread(ourAppLoop);
  for (auto _ : state) {
    enter(ourAppTiny);
    leave(ourAppTiny);
  }
  endThread(ourAppLoop);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TracedCallUnfiltered)->Threads(1)->Threads(2)->UseRealTime();

// Entry and exit of a library method called from a library method: collapsed, no lock, no clock.
void BM_TracedCallFilteredInFiltered(benchmark::State& state) {
  setUpAgent();
  startThread(ourLibLoop);
  for (auto _ : state) {
    enter(ourLibTiny);
    leave(ourLibTiny);
  }
  endThread(ourLibLoop);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TracedCallFilteredInFiltered);

}  // namespace
