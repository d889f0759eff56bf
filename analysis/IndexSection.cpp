#include "analysis/IndexSection.h"

#include "db/DB.h"
#include "analysis/ObjectStorage.h"
#include "snapshot/MemorySnapshot.h"
#include "snapshot/SnapshotFile.h"
#include "snapshot/TableStream.h"

jlong ourIndexFileFullLength = 0;

void writeIndexSection(ObjectStorage* storage, SnapshotWriter& writer) {
  writer.writeByte(INDEX_SECTION_TAG);
  writer.writeInt(ObjectStorage::ARRAY_COUNT);
  RefTable& refs = storage->myRefs;
  jlong end = writer.position() + 16 + 4 * static_cast<jlong>(refs.getStartAndCountLength());
  for (jint id = ObjectStorage::ARRAY_REFS; id < ObjectStorage::ARRAY_COUNT; id++) {
    end += 8 + static_cast<jlong>(storage->getArray(id)->getAllocatedPageCount()) * (8 + 4 * BigIntArray64::PAGE_SIZE);
  }
  // The length is progress for the reader of the file while it is written, and stale after it,
  // however the write ends.
  struct LengthWhileWriting {
    explicit LengthWhileWriting(jlong length) { ourIndexFileFullLength = length; }
    ~LengthWhileWriting() { ourIndexFileFullLength = 0; }
  } length(end);
  writer.writeInt(0);
  writer.writeInt(refs.getStartAndCountLength());
  writer.writeBytes(refs.getStartAndCount(), 4 * static_cast<jlong>(refs.getStartAndCountLength()));
  writer.writeInt(-1);
  writer.writeInt(-1);
  for (jint id = ObjectStorage::ARRAY_REFS; id < ObjectStorage::ARRAY_COUNT; id++) {
    storage->getArray(id)->writeArray(writer);
  }
}

void writeCachedStorageSnapshot(JNIEnv* env, DB* db, ObjectStorage* storage, SnapshotWriter& writer, jlong flags) {
  ourIndexFileFullLength = 0;
  if (ourContainsInvocations) {
    flags |= SNAPSHOT_WITH_COUNTS;
  }
  writeSnapshotHeader(db->myStartTime, db->mySessionName, writer, flags | SNAPSHOT_OIDS_ARE_INDICES, 4);
  writer.writeByte(HEAP_TAG_COUNTS);
  writer.writeInt(storage->myObjectCount - 1);
  writer.writeInt(0);
  writer.writeInt(0);
  writeAllTables(env, db, writer, 10, 90, 0);
  writeIndexSection(storage, writer);
}

extern "C" JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_getIndexFileFullLength(JNIEnv*, jclass) {
  return ourIndexFileFullLength;
}
