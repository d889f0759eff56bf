#ifndef KJP_TELEMETRYRECORD_H
#define KJP_TELEMETRYRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// The values of one telemetry sample, by position.
const jint TELE_HEAP_MEMORY_USED_KB = 0;
const jint TELE_HEAP_MEMORY_COMMITTED_KB = 1;
const jint TELE_NON_HEAP_MEMORY_USED_KB = 2;
const jint TELE_NON_HEAP_MEMORY_COMMITTED_KB = 3;
const jint TELE_LOADED_CLASS_COUNT = 4;
const jint TELE_LIVE_THREAD_COUNT = 5;
const jint TELE_DAEMON_THREAD_COUNT = 6;
const jint TELE_GC_COLLECTION1_COUNT = 7;
const jint TELE_GC_COLLECTION2_COUNT = 8;
const jint TELE_GC_TOTAL_COLLECTION_TIME_MS = 9;
const jint TELE_CPU_TIME_MS = 10;
const jint TELE_PROCESSOR_COUNT = 11;
const jint TELE_UPTIME_DS = 12;
const jint TELE_THREAD_STATE_COUNT = 13;
const jint TELE_THREAD_STATE_START_INDEX = 14;
const jint TELE_FIELD_COUNT = 15;

// One telemetry sample, about a second apart. The last three values are filled natively and
// tie the sample to its rows in the thread-state table.
struct TelemetryRecord {
  jint myModificationStamp;
  jint myValues[TELE_FIELD_COUNT];

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    for (jint i = 0; i < TELE_FIELD_COUNT; i++) {
      writer.writeInt(myValues[i]);
    }
  }
};

#endif
