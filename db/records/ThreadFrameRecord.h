#ifndef KJP_THREADFRAMERECORD_H
#define KJP_THREADFRAMERECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// Which (thread slot, frame) pair a TFI stands for. The same row number indexes the CPU and
// allocation figures of the pair. Slot and frame both 0 marks an empty row.
struct ThreadFrameRecord {
  jint myModificationStamp;
  jint myThreadIndexForTFI;
  jint myFrameID;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myThreadIndexForTFI);
    writer.writeInt(myFrameID);
  }
};

#endif
