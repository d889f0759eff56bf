#ifndef KJP_ALLOCINFORECORD_H
#define KJP_ALLOCINFORECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// Allocation figures of one (thread, frame) pair; the row number is its TFI.
#define KJP_ALLOC_INFO_RECORD_FIELDS(X, C)             \
  X(C, jlong, myCount, FIELD_ALLOCINFO_COUNT, "count") \
  X(C, jlong, mySize, FIELD_ALLOCINFO_SIZE, "size")

struct AllocInfoRecord {
  KJP_RECORD_BODY(KJP_ALLOC_INFO_RECORD_FIELDS)
};

#endif
