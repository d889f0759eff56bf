#ifndef KJP_INDEXSECTION_H
#define KJP_INDEXSECTION_H

#include <jni.h>

#include "snapshot/SnapshotWriter.h"

class DB;
class ObjectStorage;

// Tag of the index section that ends a snapshot re-saved with its object storage.
const int INDEX_SECTION_TAG = 44;

// While an index section is written, the file length it will reach, so that a UI can show
// progress by watching the file grow; 0 otherwise.
extern jlong ourIndexFileFullLength;

// The index section: the storage's reference table and per-object arrays, so that a reopened
// snapshot needs no recomputing of references, dominators or retained sizes.
void writeIndexSection(ObjectStorage* storage, SnapshotWriter& writer);

// A whole snapshot of an opened database with its object storage: header, the counts section
// with the storage's object count, every table, the index section.
void writeCachedStorageSnapshot(JNIEnv* env, DB* db, ObjectStorage* storage, SnapshotWriter& writer, jlong flags);

#endif
