#ifndef KJP_THREADSTATERECORD_H
#define KJP_THREADSTATERECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// One sampled thread of one telemetry sample.
#define KJP_THREAD_STATE_RECORD_FIELDS(X, C)                           \
  X(C, jint, myThread, FIELD_THREADSTATE_THREAD, "thread")             \
  X(C, jint, myFrame, FIELD_THREADSTATE_FRAME, "frame")                \
  X(C, jint, myState, FIELD_THREADSTATE_STATE, "state")                \
  X(C, jlong, myCPUTimeNs, FIELD_THREADSTATE_CPU_TIME_NS, "cpuTimeNs")

struct ThreadStateRecord {
  KJP_RECORD_BODY(KJP_THREAD_STATE_RECORD_FIELDS)
};

#endif
