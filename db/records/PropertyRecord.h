#ifndef KJP_PROPERTYRECORD_H
#define KJP_PROPERTYRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// The six telemetry constants occupy the first property rows, in this order.
const jint TELEC_HEAP_MEMORY_MAX_KB_PROP_INDEX = 0;
const jint TELEC_NON_HEAP_MEMORY_MAX_KB_PROP_INDEX = 1;
const jint TELEC_UNLOADED_CLASS_COUNT_PROP_INDEX = 2;
const jint TELEC_PEAK_THREAD_COUNT_PROP_INDEX = 3;
const jint TELEC_CREATED_THREAD_COUNT_PROP_INDEX = 4;
const jint TELEC_DEADLOCK_FOUND_PROP_INDEX = 5;
const jint TELEC_FIELD_COUNT = 6;

// A named int. The value is a number or, for properties the runtime sets as text, a string
// index; the string collection treats it as a string index either way.
#define KJP_PROPERTY_RECORD_FIELDS(X, C)                             \
  X(C, jint, myNameStrID, FIELD_PROPERTIES_NAME_STR_ID, "nameStrID") \
  X(C, jint, myValue, FIELD_PROPERTIES_VALUE, "value")

struct PropertyRecord {
  KJP_RECORD_BODY(KJP_PROPERTY_RECORD_FIELDS)
};

#endif
