#ifndef KJP_RECORDFIELDS_H
#define KJP_RECORDFIELDS_H

#include <jni.h>

#include "db/FieldRetriever.h"
#include "snapshot/AbstractWriter.h"

// A record's fields are written down once, as a list macro next to the struct:
//
//   #define KJP_MONITOR_RECORD_FIELDS(X, C)
//     X(C, jint, myThread, FIELD_MONITOR_THREAD, "thread") ...
//
// with, for each field in stream order, its C++ type, its member, its field id (the generic
// access of the UI's natives) and its name in the tools' table layout. The struct's members
// and its writer, the retrievers of the field ids (FieldRetriever.cpp) and the layout the
// tests compare with the tools' reader (RecordLayout.cpp) all follow from that one list. C is
// whatever the expansion needs to carry along: the record type and its table, say.

inline void writeRecordField(AbstractWriter& writer, jint value) { writer.writeInt(value); }
inline void writeRecordField(AbstractWriter& writer, jlong value) { writer.writeLong(value); }

#define KJP_DECLARE_RECORD_FIELD(C, type, member, id, name) type member;
#define KJP_WRITE_RECORD_FIELD(C, type, member, id, name) writeRecordField(writer, member);

// The stamp and the fields of a record.
#define KJP_RECORD_MEMBERS(FIELDS) \
  jint myModificationStamp;        \
  FIELDS(KJP_DECLARE_RECORD_FIELD, _)

// The same with the writer of a row as it goes into a table stream: the stamp, then the fields.
#define KJP_RECORD_BODY(FIELDS)                            \
  KJP_RECORD_MEMBERS(FIELDS)                               \
  void writeRecord(AbstractWriter& writer) const {         \
    writer.writeInt(myModificationStamp);                  \
    FIELDS(KJP_WRITE_RECORD_FIELD, _)                      \
  }

#endif
