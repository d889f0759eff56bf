#ifndef KJP_THREADRECORD_H
#define KJP_THREADRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// A thread as the UI sees it. The row outlives the thread: once a dead thread is folded into
// "<Oldest dead threads>", only its myIndexForTFI drops to 0.
struct ThreadRecord {
  jint myModificationStamp;
  jint myNameStrID;
  jint myGroupStrID;
  jint myIndexForTFI;
  jint myRunningNumber;
  jlong myThreadID;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myNameStrID);
    writer.writeInt(myGroupStrID);
    writer.writeInt(myIndexForTFI);
    writer.writeInt(myRunningNumber);
    writer.writeLong(myThreadID);
  }
};

#endif
