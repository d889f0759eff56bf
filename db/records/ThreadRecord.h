#ifndef KJP_THREADRECORD_H
#define KJP_THREADRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// A thread as the UI sees it. The row outlives the thread: once a dead thread is folded into
// "<Oldest dead threads>", only its myIndexForTFI drops to 0.
#define KJP_THREAD_RECORD_FIELDS(X, C)                                      \
  X(C, jint, myNameStrID, FIELD_THREAD_NAME_STR_ID, "nameStrID")            \
  X(C, jint, myGroupStrID, FIELD_THREAD_GROUP_STR_ID, "groupStrID")         \
  X(C, jint, myIndexForTFI, FIELD_THREAD_INDEX_FOR_TFI, "indexForTFI")      \
  X(C, jint, myRunningNumber, FIELD_THREAD_RUNNING_NUMBER, "runningNumber") \
  X(C, jlong, myThreadID, FIELD_THREAD_THREAD_ID, "threadID")

struct ThreadRecord {
  KJP_RECORD_BODY(KJP_THREAD_RECORD_FIELDS)
};

#endif
