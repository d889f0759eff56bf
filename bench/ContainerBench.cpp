#include <benchmark/benchmark.h>

#include "agent/KMap.h"
#include "agent/KSet.h"

// Lookup of a present key in a map of the size the engines' maps reach in a busy run.
static void BM_KMapIntLookupPresent(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  KMap<int, int> map(16);
  for (int i = 1; i <= count; i++) {
    map.put(i * 7, i);
  }
  int key = 7;
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.get(key, &value));
    key += 7;
    if (key > count * 7) {
      key = 7;
    }
  }
  benchmark::DoNotOptimize(value);
}
BENCHMARK(BM_KMapIntLookupPresent)->Arg(1000)->Arg(100000);

// One add and one remove of the same key: the cost of tracking a short-lived item, including
// the tombstone rebuilds that a long add/remove cycle forces.
static void BM_KSetAddRemoveCycle(benchmark::State& state) {
  KSet<jlong> set(256);
  for (jlong i = 1; i <= 100; i++) {
    set.add(i * 1000003);
  }
  jlong key = -1;  // never one of the resident keys
  for (auto _ : state) {
    set.add(key);
    benchmark::DoNotOptimize(set.remove(key));
    key--;
  }
}
BENCHMARK(BM_KSetAddRemoveCycle);
