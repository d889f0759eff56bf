#ifndef KJP_GENERATIONRECORD_H
#define KJP_GENERATIONRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// A marked point of the heap history.
#define KJP_GENERATION_RECORD_FIELDS(X, C)                                                \
  X(C, jint, myType, FIELD_GENERATION_TYPE, "type")                                       \
  X(C, jint, myDescriptionStrID, FIELD_GENERATION_DESCRIPTION_STR_ID, "descriptionStrID") \
  X(C, jlong, myUptimeMs, FIELD_GENERATION_UPTIME_MS, "uptimeMs")

struct GenerationRecord {
  KJP_RECORD_BODY(KJP_GENERATION_RECORD_FIELDS)
};

#endif
