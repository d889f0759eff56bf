// The database's lookups on the recording hot paths: a row by index, the TFI of a (thread,
// frame) pair, and the index of a text already interned.

#include <benchmark/benchmark.h>
#include <stdio.h>

#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/ThreadFrameIndex.h"

namespace {

void BM_GetRecordExistingRow(benchmark::State& state) {
  DB db(3600);
  for (jint i = 0; i < 100000; i++) {
    db.myCPUProfilingTable->getRecord(i, true)->myModificationStamp = 1;
  }
  jint index = 0;
  for (auto _ : state) {
    CPUProfilingRecord* record = db.myCPUProfilingTable->getRecord(index, false);
    benchmark::DoNotOptimize(record);
    index = (index + 7919) % 100000;
  }
}
BENCHMARK(BM_GetRecordExistingRow);

void BM_GetTFIExistingPair(benchmark::State& state) {
  DB db(3600);
  for (jint slot = 1; slot <= 20; slot++) {
    for (jint frame = 0; frame < 5000; frame += 3) {
      db.myThreadFrameIndex->getTFI(slot, frame, true);
    }
  }
  jint frame = 0;
  for (auto _ : state) {
    jint tfi = db.myThreadFrameIndex->getTFI(7, frame, false);
    benchmark::DoNotOptimize(tfi);
    frame = (frame + 3 * 331) % 4998;
  }
}
BENCHMARK(BM_GetTFIExistingPair);

void BM_GetDBIndexKnownText(benchmark::State& state) {
  DB db(3600);
  char text[64];
  for (int i = 0; i < 10000; i++) {
    snprintf(text, sizeof(text), "com/example/service/Handler%d", i);
    db.myStrPool->getDBIndex(text, true);
  }
  const char* known = "com/example/service/Handler4711";
  for (auto _ : state) {
    jint index = db.myStrPool->getDBIndex(known, false);
    benchmark::DoNotOptimize(index);
  }
}
BENCHMARK(BM_GetDBIndexKnownText);

}  // namespace
