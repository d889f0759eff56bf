#ifndef KJP_MONITORRECORD_H
#define KJP_MONITORRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// Time a thread spent blocked or waiting on monitors of one class at one frame.
#define KJP_MONITOR_RECORD_FIELDS(X, C)                                           \
  X(C, jint, myThread, FIELD_MONITOR_THREAD, "thread")                            \
  X(C, jint, myFrame, FIELD_MONITOR_FRAME, "frame")                               \
  X(C, jint, myOwner, FIELD_MONITOR_OWNER, "owner")                               \
  X(C, jint, myClassNameStrID, FIELD_MONITOR_CLASS_NAME_STR_ID, "classNameStrID") \
  X(C, jlong, myTimeNs, FIELD_MONITOR_TIME_NS, "timeNs")                          \
  X(C, jlong, myCount, FIELD_MONITOR_COUNT, "count")

struct MonitorRecord {
  KJP_RECORD_BODY(KJP_MONITOR_RECORD_FIELDS)
};

#endif
