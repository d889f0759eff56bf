#ifndef KJP_STRINGRECORD_H
#define KJP_STRINGRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// One interned text. The text is shared with the string pool's map, which is what frees it;
// it is null once the string has been collected, and then streams as length -1.
struct StringRecord {
  jint myModificationStamp;
  char* myText;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeString(myText);
  }
};

#endif
