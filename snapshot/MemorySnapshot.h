#ifndef KJP_MEMORYSNAPSHOT_H
#define KJP_MEMORYSNAPSHOT_H

#include <jni.h>

#include "agent/KString.h"
#include "snapshot/SnapshotWriter.h"

// Record tags of the heap part of a snapshot file. Every record starts with its tag byte.
const int HEAP_TAG_INSTANCE = 3;
const int HEAP_TAG_OBJECT_ARRAY = 4;
const int HEAP_TAG_PRIMITIVE_ARRAY = 5;
const int HEAP_TAG_STRING_VALUE = 7;
const int HEAP_TAG_ALLOCATOR = 8;
const int HEAP_TAG_FIELD_REFERENCE = 9;
const int HEAP_TAG_ARRAY_ELEMENT_REFERENCE = 10;
const int HEAP_TAG_CLASS_LOADER_REFERENCE = 11;
const int HEAP_TAG_SIGNERS_REFERENCE = 12;
const int HEAP_TAG_PROTECTION_DOMAIN_REFERENCE = 13;
const int HEAP_TAG_STATIC_FIELD_REFERENCE = 14;
const int HEAP_TAG_CONSTANT_POOL_REFERENCE = 15;
const int HEAP_TAG_COUNTS = 25;
const int HEAP_TAG_PRIMITIVE_DATA = 39;
const int HEAP_TAG_CLASS = 40;
const int HEAP_TAG_GC_ROOT = 43;

// Root kinds of record 43, one bit each.
const jint ROOT_OTHER = 1;
const jint ROOT_JNI_GLOBAL = 2;
const jint ROOT_JNI_LOCAL = 4;
const jint ROOT_STACK_LOCAL = 8;
const jint ROOT_THREAD = 32;
const jint ROOT_MONITOR = 64;

// The heap part of a snapshot of the live JVM: the counts section, every object, class,
// reference and GC root as flat records, and the primitive values, for a file whose OIDs are
// object indices. Each object is numbered while the dump runs: the low half of its allocation
// tag holds minus its index, unless the object was recorded, in which case its AllocatorRecord
// keeps the index and the tag stays. Runs under ourLock with every other Java thread suspended.
//
// The three counts of the counts section are only known once the tables that follow the heap
// are written too: write() leaves them open, commitCounts() closes them.
class HeapDump {
 public:
  HeapDump(JNIEnv* env, SnapshotWriter& writer, jint progressHandle);
  ~HeapDump();
  HeapDump(const HeapDump&) = delete;
  HeapDump& operator=(const HeapDump&) = delete;

  // The counts section and all heap records; progress runs from 7 to 65. 'snapshotName' names
  // the generation that the capture marks.
  void write(const KString& snapshotName);

  void commitCounts();

 private:
  JNIEnv* myEnv;
  SnapshotWriter& myWriter;
  jint myProgressHandle;
  // Made by write(), right behind the counts section's tag.
  SnapshotWriter::Counter* myObjectCount;
  SnapshotWriter::Counter* myStringCount;
  SnapshotWriter::Counter* myAllocatorCount;
};

#endif
