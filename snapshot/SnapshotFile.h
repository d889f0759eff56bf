#ifndef KJP_SNAPSHOTFILE_H
#define KJP_SNAPSHOTFILE_H

#include <jni.h>

#include "agent/KString.h"
#include "snapshot/SnapshotWriter.h"

class DB;
class InstanceCounting;

// Snapshot flags: a 64-bit word in the file header and in SnapshotRecord.
const jlong SNAPSHOT_WITH_HEAP = 1;
const jlong SNAPSHOT_CLR_2_0 = 4;
const jlong SNAPSHOT_WITH_COUNTS = 8;
const jlong SNAPSHOT_HPROF = 16;
const jlong SNAPSHOT_CAUSE_SHUTDOWN = 32;
const jlong SNAPSHOT_CAUSE_PERIODIC = 64;
const jlong SNAPSHOT_CAUSE_LOW_MEMORY = 128;
const jlong SNAPSHOT_CAUSE_OOME = 256;
const jlong SNAPSHOT_OIDS_ARE_INDICES = 512;
const jlong SNAPSHOT_CLR_1_1 = 1024;

#define SNAPSHOT_FILE_EXTENSION ".snapshot"
#define HPROF_SNAPSHOT_FILE_EXTENSION ".hprof"
#define SNAPSHOT_INDEX_POSTFIX ".index"

// The file starts with these bytes, which a reader matches in full: the text, the maker's
// address and the byte 0x1A, with no length and no terminator.
#define SNAPSHOT_MAGIC "Kestrix Java Profiler snapshot, https://github.com/kestrix/kjpagent\x1A"
const char SNAPSHOT_FORMAT_VERSION = '9';
#define SNAPSHOT_CREATOR "Created by Kestrix Java Profiler 8.0.1"

// Tag in front of each table of the table stream.
const jint SNAPSHOT_TABLE_MARKER = 42;

// The buffer of a snapshot file. It is large because a heap dump arrives in small pieces.
const jint SNAPSHOT_BUFFER_SIZE = 1048576;

// The number the next header carries; it rises by one in the header and by one more per
// capture, so successive captures of one process are numbered 2 apart. Never reset.
extern jint ourSnapshotCount;
// Whether CPU tracing with invocation counts ran in this session; set when tracing starts.
extern bool ourContainsInvocations;

// The header: magic, format version, creator, the database's start time, the snapshot number,
// the OID width, a reserved -1, the flags, the capture time in milliseconds and the session name.
void writeSnapshotHeader(jlong startTime, const KString& sessionName, SnapshotWriter& writer, jlong flags,
                         jint oidWidth);

// The whole file after the descriptor was opened: header, then every table, then, for the
// agent's own database, the collection of strings that no record refers to any more (which
// must come after the tables, so that the file holds every string its rows name).
//
// With SNAPSHOT_WITH_HEAP, the heap of the live JVM comes between header and tables (see
// MemorySnapshot.h), its generation named after 'snapshotName'. Any other database has no heap to
// dump: the flag is dropped then, so that the header never announces a section that isn't there.
void writeSnapshot(JNIEnv* env, DB* db, SnapshotWriter& writer, jint progressHandle, jlong flags,
                   InstanceCounting* counting = nullptr, const char* snapshotName = nullptr);

#endif
