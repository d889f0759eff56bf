#ifndef KJP_FIELDRETRIEVER_H
#define KJP_FIELDRETRIEVER_H

#include <jni.h>

class DB;

// Field ids of the generic field access. The UI names fields by these numbers, so they never
// change. The comment gives the width; 32-bit fields go through get/setIntField, 64-bit ones
// through get/setLongField.
enum FieldID {
  FIELD_STRING_TEXT = 0,                   // 64, the text pointer
  FIELD_THREAD_NAME_STR_ID = 1,            // 32
  FIELD_THREAD_GROUP_STR_ID = 2,           // 32
  FIELD_THREAD_INDEX_FOR_TFI = 3,          // 32
  FIELD_THREAD_RUNNING_NUMBER = 4,         // 32
  FIELD_THREAD_THREAD_ID = 5,              // 64
  FIELD_METHOD_NAME_STR_ID = 6,            // 32
  FIELD_METHOD_SIGNATURE_STR_ID = 7,       // 32
  FIELD_METHOD_CLASS_NAME_STR_ID = 8,      // 32
  FIELD_METHOD_FLAGS = 9,                  // 32
  FIELD_THREADFRAME_THREAD_INDEX_FOR_TFI = 10,  // 32
  FIELD_THREADFRAME_FRAME_ID = 11,         // 32
  FIELD_J2EE_THREAD = 12,                  // 32
  FIELD_J2EE_FRAME = 13,                   // 32
  FIELD_J2EE_STR_ID = 14,                  // 32
  FIELD_J2EE_KIND = 15,                    // 32
  FIELD_J2EE_TIME_NS = 16,                 // 64
  FIELD_J2EE_COUNT = 17,                   // 64
  FIELD_MONITOR_THREAD = 18,               // 32
  FIELD_MONITOR_FRAME = 19,                // 32
  FIELD_MONITOR_OWNER = 20,                // 32
  FIELD_MONITOR_CLASS_NAME_STR_ID = 21,    // 32
  FIELD_MONITOR_TIME_NS = 22,              // 64
  FIELD_MONITOR_COUNT = 23,                // 64
  FIELD_CPUPROFILING_TIME = 24,            // 64
  FIELD_CPUPROFILING_COUNT = 25,           // 64
  FIELD_INSTANCECOUNTS_CLASS_NAME_STR_ID = 26,  // 32
  FIELD_INSTANCECOUNTS_COUNT = 27,         // 32
  FIELD_INSTANCECOUNTS_SIZE = 28,          // 64
  FIELD_FRAME_PARENT = 29,                 // 32
  FIELD_FRAME_CALLEE = 30,                 // 32
  FIELD_FRAME_FIRST_CHILD = 31,            // 32
  FIELD_FRAME_NEXT_SIBLING = 32,           // 32
  FIELD_SNAPSHOT_PATH_STR_ID = 33,         // 32
  FIELD_SNAPSHOT_FLAGS = 34,               // 64
  FIELD_ALLOCINFO_COUNT = 35,              // 64
  FIELD_ALLOCINFO_SIZE = 36,               // 64
  FIELD_ALLOCATOR_THREAD = 37,             // 32
  FIELD_ALLOCATOR_FRAME = 38,              // 32
  FIELD_ALLOCATOR_OBJECT_INDEX = 39,       // 32
  FIELD_GENERATION_TYPE = 40,              // 32
  FIELD_GENERATION_DESCRIPTION_STR_ID = 41,  // 32
  FIELD_GENERATION_UPTIME_MS = 42,         // 64
  FIELD_PROPERTIES_NAME_STR_ID = 43,       // 32
  FIELD_PROPERTIES_VALUE = 44,             // 32
  FIELD_THREADSTATE_THREAD = 45,           // 32
  FIELD_THREADSTATE_FRAME = 46,            // 32
  FIELD_THREADSTATE_STATE = 47,            // 32
  FIELD_THREADSTATE_CPU_TIME_NS = 48,      // 64
  FIELD_EXCEPTION_THREAD = 49,             // 32
  FIELD_EXCEPTION_THROW_FRAME = 50,        // 32
  FIELD_EXCEPTION_CATCH_FRAME = 51,        // 32
  FIELD_EXCEPTION_CLASS_NAME_STR_ID = 52,  // 32
  FIELD_EXCEPTION_COUNT = 53,              // 64
};

// Returns the address of one field of row 'index', reached by getRecord(index, true).
typedef void* (*FieldRetriever)(DB* db, jint index);

// One retriever per field id, 54 in all.
extern const FieldRetriever ourFieldRetriever[];

#endif
