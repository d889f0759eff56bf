#ifndef KJP_THREADSTATERECORD_H
#define KJP_THREADSTATERECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// One sampled thread of one telemetry sample.
struct ThreadStateRecord {
  jint myModificationStamp;
  jint myThread;
  jint myFrame;
  jint myState;
  jlong myCPUTimeNs;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myThread);
    writer.writeInt(myFrame);
    writer.writeInt(myState);
    writer.writeLong(myCPUTimeNs);
  }
};

#endif
