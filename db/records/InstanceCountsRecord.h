#ifndef KJP_INSTANCECOUNTSRECORD_H
#define KJP_INSTANCECOUNTSRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// Live instances of one class.
#define KJP_INSTANCE_COUNTS_RECORD_FIELDS(X, C)                                          \
  X(C, jint, myClassNameStrID, FIELD_INSTANCECOUNTS_CLASS_NAME_STR_ID, "classNameStrID") \
  X(C, jint, myCount, FIELD_INSTANCECOUNTS_COUNT, "count")                               \
  X(C, jlong, mySize, FIELD_INSTANCECOUNTS_SIZE, "size")

struct InstanceCountsRecord {
  KJP_RECORD_BODY(KJP_INSTANCE_COUNTS_RECORD_FIELDS)
};

#endif
