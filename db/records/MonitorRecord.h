#ifndef KJP_MONITORRECORD_H
#define KJP_MONITORRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// Time a thread spent blocked or waiting on monitors of one class at one frame.
struct MonitorRecord {
  jint myModificationStamp;
  jint myThread;
  jint myFrame;
  jint myOwner;
  jint myClassNameStrID;
  jlong myTimeNs;
  jlong myCount;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myThread);
    writer.writeInt(myFrame);
    writer.writeInt(myOwner);
    writer.writeInt(myClassNameStrID);
    writer.writeLong(myTimeNs);
    writer.writeLong(myCount);
  }
};

#endif
