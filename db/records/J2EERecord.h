#ifndef KJP_J2EERECORD_H
#define KJP_J2EERECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// An SQL statement or request URI seen at one call path of one thread.
struct J2EERecord {
  jint myModificationStamp;
  jint myThread;
  jint myFrame;
  jint myStrID;
  jint myKind;
  jlong myTimeNs;
  jlong myCount;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myThread);
    writer.writeInt(myFrame);
    writer.writeInt(myStrID);
    writer.writeInt(myKind);
    writer.writeLong(myTimeNs);
    writer.writeLong(myCount);
  }
};

#endif
