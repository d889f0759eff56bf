#ifndef KJP_CPUPROFILINGRECORD_H
#define KJP_CPUPROFILINGRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// CPU figures of one (thread, frame) pair; the row number is its TFI.
struct CPUProfilingRecord {
  jint myModificationStamp;
  jlong time;
  jlong count;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeLong(time);
    writer.writeLong(count);
  }
};

#endif
