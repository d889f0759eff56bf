#include "snapshot/SnapshotFile.h"

#include <string.h>
#include <time.h>

#include "agent/JVMTI_Agent.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "snapshot/MemorySnapshot.h"
#include "snapshot/SnapshotProgress.h"
#include "snapshot/TableStream.h"

jint ourSnapshotCount = 0;
bool ourContainsInvocations = false;

namespace {

// Progress marks of a capture without heap: the header, the span of the tables, the end.
const jint PROGRESS_HEADER = 5;
const jint PROGRESS_TABLES_FROM = 10;
const jint PROGRESS_TABLES_TO = 90;
const jint PROGRESS_DONE = 99;
// With a heap, which takes the range up to this mark, the tables follow to PROGRESS_TABLES_TO.
const jint PROGRESS_HEAP_TO = 65;

}  // namespace

void writeSnapshotHeader(jlong startTime, const KString& sessionName, SnapshotWriter& writer, jlong flags,
                         jint oidWidth) {
  const char* magic = SNAPSHOT_MAGIC;
  for (size_t i = 0; magic[i] != 0; i++) {
    writer.writeByte(magic[i]);
  }
  writer.writeByte(SNAPSHOT_FORMAT_VERSION);
  writer.writeString(SNAPSHOT_CREATOR);
  writer.writeLong(startTime);
  writer.writeInt(ourSnapshotCount++);
  writer.writeInt(oidWidth);
  writer.writeLong(-1);
  writer.writeLong(flags);
  writer.writeLong(static_cast<jlong>(time(nullptr)) * 1000);
  writer.writeString(sessionName.get());
}

void writeSnapshot(JNIEnv* env, DB* db, SnapshotWriter& writer, jint progressHandle, jlong flags,
                   InstanceCounting* counting, const char* snapshotName) {
  resetReportedProgress();
  if (ourContainsInvocations) {
    flags |= SNAPSHOT_WITH_COUNTS;
  }
  // Only the live JVM has a heap to dump.
  bool writeHeap = (flags & SNAPSHOT_WITH_HEAP) != 0 && db == ourDB && env != nullptr && ourJVMTI != nullptr;
  if (!writeHeap) {
    flags &= ~SNAPSHOT_WITH_HEAP;
  }
  writeSnapshotHeader(db->myStartTime, db->mySessionName, writer, flags | SNAPSHOT_OIDS_ARE_INDICES, 4);
  updateProgress(progressHandle, PROGRESS_HEADER);
  if (writeHeap) {
    HeapDump heap(env, writer, progressHandle);
    heap.write(KString(snapshotName == nullptr ? "" : snapshotName));
    writeAllTables(env, db, writer, PROGRESS_HEAP_TO, PROGRESS_TABLES_TO, progressHandle, counting);
    heap.commitCounts();
  } else {
    writeAllTables(env, db, writer, PROGRESS_TABLES_FROM, PROGRESS_TABLES_TO, progressHandle, counting);
  }
  if (db == ourDB) {
    db->myStrPool->collectGarbageStrings();
  }
  if (getLastReportedProgress() < PROGRESS_DONE) {
    updateProgress(progressHandle, PROGRESS_DONE);
  }
}
