#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "agent/JVMTI_Agent.h"
#include "agent/KString.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/ThreadInfo.h"
#include "snapshot/SnapshotCapture.h"

namespace {

const jint FRAME_COUNT = 1000000;
const jint METHOD_COUNT = 20000;
const jint THREAD_COUNT = 8;
const jint MAX_DEPTH = 60;

jint makeMethod(jint i) {
  char name[64];
  snprintf(name, sizeof(name), "method%d", i);
  char className[64];
  snprintf(className, sizeof(className), "com.example.generated.Class%d", i / 10);
  jint index = ourDB->myMethodTable->getIndexPool().nextIndex();
  MethodRecord* record = ourDB->myMethodTable->getRecord(index, true);
  record->myNameStrID = ourDB->myStrPool->getDBIndex(name, true);
  record->mySignatureStrID = ourDB->myStrPool->getDBIndex("(I)V", true);
  record->myClassNameStrID = ourDB->myStrPool->getDBIndex(className, true);
  record->myModificationStamp = 1;
  return index;
}

// The agent's database after a long traced run: a call tree of a million frames over twenty
// thousand methods, each frame with the time and count of the one thread (of eight) whose
// calls went through it. Times are inclusive, as the engines record them.
void fillMillionFrameDatabase() {
  DB::createAndInitializeDB(3600);
  ThreadInfo* threads[THREAD_COUNT];
  for (jint t = 0; t < THREAD_COUNT; t++) {
    char name[32];
    snprintf(name, sizeof(name), "worker-%d", t);
    threads[t] = new ThreadInfo(name, "main", 1000 + t);
  }
  std::vector<jint> methods(METHOD_COUNT);
  for (jint i = 0; i < METHOD_COUNT; i++) {
    methods[i] = makeMethod(i);
  }
  std::vector<jint> parents(FRAME_COUNT + 1, -1);
  std::vector<jint> owner(FRAME_COUNT + 1, 0);
  std::vector<jint> depths(FRAME_COUNT + 1, 0);
  std::vector<jlong> total(FRAME_COUNT + 1, 0);
  std::vector<jlong> counts(FRAME_COUNT + 1, 0);
  ourDB->myFrameTable->getRecord(0, true)->myModificationStamp = 1;
  unsigned seed = 12345;
  for (jint frame = 1; frame <= FRAME_COUNT; frame++) {
    seed = seed * 1103515245u + 12345u;
    // A parent among the recent frames gives bushy paths, and a path that reaches the depth
    // limit continues from a random ancestor, as stacks rise and fall. The first frames are the
    // threads' entry points, and a frame belongs to the thread of its parent.
    jint parent = 0;
    if (frame > THREAD_COUNT) {
      parent = frame - 1 - static_cast<jint>((seed >> 8) % 16);
      if (parent < 1) {
        parent = 1;
      }
      if (depths[parent] >= MAX_DEPTH) {
        for (jint up = 1 + static_cast<jint>((seed >> 16) % (MAX_DEPTH - 1)); up > 0; up--) {
          parent = parents[parent];
        }
      }
    }
    parents[frame] = parent;
    depths[frame] = parent == 0 ? 1 : depths[parent] + 1;
    owner[frame] = parent == 0 ? frame - 1 : owner[parent];
    total[frame] = 1000 + (seed >> 12) % 1000000;  // own time for now
    counts[frame] = 1 + (seed >> 20) % 100;
    jint index = ourDB->myFrameTable->getIndexPool().nextIndex();
    FrameRecord* record = ourDB->myFrameTable->getRecord(index, true);
    record->myParent = parent;
    record->myCallee = methods[(seed >> 4) % METHOD_COUNT];
    FrameRecord* parentRecord = ourDB->myFrameTable->getRecord(parent, true);
    record->myNextSibling = parentRecord->myFirstChild;
    parentRecord->myFirstChild = index;
    record->myModificationStamp = 1;
  }
  // Children come after their parents: one backward pass makes the times inclusive.
  for (jint frame = FRAME_COUNT; frame > 0; frame--) {
    if (parents[frame] > 0) {
      total[parents[frame]] += total[frame];
    }
  }
  for (jint frame = 1; frame <= FRAME_COUNT; frame++) {
    CPUProfilingRecord* cpu = threads[owner[frame]]->getCPUProfilingRecord(frame, true);
    cpu->time = total[frame];
    cpu->count = counts[frame];
    cpu->myModificationStamp = 1;
  }
}

void BM_SnapshotWriteMillionFrames(benchmark::State& state) {
  if (ourDB == nullptr) {
    fillMillionFrameDatabase();
  }
  char path[] = "/tmp/kjp-bench-XXXXXX";
  int fd = mkstemp(path);
  close(fd);
  jlong bytes = 0;
  for (auto _ : state) {
    KString error;
    if (!captureSnapshotToFile(nullptr, path, 0, 0, false, &error)) {
      state.SkipWithError(error.get());
      break;
    }
    struct stat info;
    stat(path, &info);
    bytes += info.st_size;
  }
  state.SetBytesProcessed(bytes);
  const char* keep = getenv("KJP_BENCH_SNAPSHOT_OUT");
  if (keep != nullptr) {
    rename(path, keep);
  } else {
    unlink(path);
  }
}
BENCHMARK(BM_SnapshotWriteMillionFrames)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

}  // namespace
