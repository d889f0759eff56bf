#ifndef KJP_STRINGRECORD_H
#define KJP_STRINGRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// One interned text. The text is shared with the string pool's map, which is what frees it;
// it is null once the string has been collected, and then streams as length -1.
// The text is the one field, and the only one that is no number: its writer is its own.
#define KJP_STRING_RECORD_FIELDS(X, C) X(C, char*, myText, FIELD_STRING_TEXT, "text")

struct StringRecord {
  KJP_RECORD_MEMBERS(KJP_STRING_RECORD_FIELDS)

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeString(myText);
  }
};

#endif
