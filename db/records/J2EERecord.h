#ifndef KJP_J2EERECORD_H
#define KJP_J2EERECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// An SQL statement or request URI seen at one call path of one thread.
#define KJP_J2EE_RECORD_FIELDS(X, C)                 \
  X(C, jint, myThread, FIELD_J2EE_THREAD, "thread")   \
  X(C, jint, myFrame, FIELD_J2EE_FRAME, "frame")      \
  X(C, jint, myStrID, FIELD_J2EE_STR_ID, "strID")     \
  X(C, jint, myKind, FIELD_J2EE_KIND, "kind")         \
  X(C, jlong, myTimeNs, FIELD_J2EE_TIME_NS, "timeNs") \
  X(C, jlong, myCount, FIELD_J2EE_COUNT, "count")

struct J2EERecord {
  KJP_RECORD_BODY(KJP_J2EE_RECORD_FIELDS)
};

#endif
