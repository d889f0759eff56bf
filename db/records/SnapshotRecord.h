#ifndef KJP_SNAPSHOTRECORD_H
#define KJP_SNAPSHOTRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// A snapshot file known to the session.
#define KJP_SNAPSHOT_RECORD_FIELDS(X, C)                           \
  X(C, jint, myPathStrID, FIELD_SNAPSHOT_PATH_STR_ID, "pathStrID") \
  X(C, jlong, myFlags, FIELD_SNAPSHOT_FLAGS, "flags")

struct SnapshotRecord {
  KJP_RECORD_BODY(KJP_SNAPSHOT_RECORD_FIELDS)
};

#endif
