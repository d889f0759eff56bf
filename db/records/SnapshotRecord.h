#ifndef KJP_SNAPSHOTRECORD_H
#define KJP_SNAPSHOTRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// A snapshot file known to the session.
struct SnapshotRecord {
  jint myModificationStamp;
  jint myPathStrID;
  jlong myFlags;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myPathStrID);
    writer.writeLong(myFlags);
  }
};

#endif
