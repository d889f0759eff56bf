#ifndef KJP_RECORDLAYOUT_H
#define KJP_RECORDLAYOUT_H

#include <jni.h>

// The layout of the rows of each table in a table stream, made from the records' field lists:
// what a reader of snapshots must agree with. The string table's one field is a text; the
// telemetry and table generation tables have no list (fixed values, and none).
struct RecordFieldLayout {
  const char* myName;
  int myWidth;  // bytes in the stream: 4 or 8, or 0 for a text
};

struct RecordTableLayout {
  jint myTableID;
  const char* myTableName;
  const RecordFieldLayout* myFields;
  int myFieldCount;
};

// Every table with a field list, by ascending table id.
extern const RecordTableLayout ourRecordTableLayouts[];
extern const int ourRecordTableLayoutCount;

#endif
