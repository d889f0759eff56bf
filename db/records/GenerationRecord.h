#ifndef KJP_GENERATIONRECORD_H
#define KJP_GENERATIONRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// A marked point of the heap history.
struct GenerationRecord {
  jint myModificationStamp;
  jint myType;
  jint myDescriptionStrID;
  jlong myUptimeMs;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myType);
    writer.writeInt(myDescriptionStrID);
    writer.writeLong(myUptimeMs);
  }
};

#endif
