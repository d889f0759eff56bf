#ifndef KJP_CPUPROFILINGRECORD_H
#define KJP_CPUPROFILINGRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// CPU figures of one (thread, frame) pair; the row number is its TFI.
#define KJP_CPUPROFILING_RECORD_FIELDS(X, C)            \
  X(C, jlong, time, FIELD_CPUPROFILING_TIME, "time")    \
  X(C, jlong, count, FIELD_CPUPROFILING_COUNT, "count")

struct CPUProfilingRecord {
  KJP_RECORD_BODY(KJP_CPUPROFILING_RECORD_FIELDS)
};

#endif
