#include <benchmark/benchmark.h>

#include "agent/CPUTime.h"
#include "agent/Clock.h"
#include "agent/JVMTI_Agent.h"
#include "agent/TextUtil.h"

namespace {

// A filter of the kind users write, against a class inside it and one outside.
void BM_WildcardMatch_Matching(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(wildcardMatch("java.util.concurrent.*", "java.util.concurrent.locks.ReentrantLock"));
  }
}
BENCHMARK(BM_WildcardMatch_Matching);

void BM_WildcardMatch_NotMatching(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(wildcardMatch("java.util.concurrent.*", "java.util.HashMap$Node"));
  }
}
BENCHMARK(BM_WildcardMatch_NotMatching);

// The clock of the tracing probes, on the path the agent takes on every current kernel.
void BM_CurrentThreadCPUTime_Fast(benchmark::State& state) {
  checkPlatformCapabilities();
  if (!ourLinuxFastThreadCPUTimeSupported) {
    state.SkipWithError("no per-thread CPU clock on this kernel");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(getCurrentThreadCPUTimeNs());
  }
}
BENCHMARK(BM_CurrentThreadCPUTime_Fast);

// For comparison: what each reading costs where the kernel lacks the fast clock.
void BM_CurrentThreadCPUTime_StatFallback(benchmark::State& state) {
  checkPlatformCapabilities();
  ourLinuxFastThreadCPUTimeSupported = false;
  for (auto _ : state) {
    benchmark::DoNotOptimize(getCurrentThreadCPUTimeNs());
  }
  checkPlatformCapabilities();
}
BENCHMARK(BM_CurrentThreadCPUTime_StatFallback);

void BM_GetTimeNs(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(getTimeNs());
  }
}
BENCHMARK(BM_GetTimeNs);

}  // namespace
