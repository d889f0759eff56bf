#ifndef KJP_ALLOCINFORECORD_H
#define KJP_ALLOCINFORECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// Allocation figures of one (thread, frame) pair; the row number is its TFI.
struct AllocInfoRecord {
  jint myModificationStamp;
  jlong myCount;
  jlong mySize;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeLong(myCount);
    writer.writeLong(mySize);
  }
};

#endif
