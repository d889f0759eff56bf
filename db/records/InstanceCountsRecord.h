#ifndef KJP_INSTANCECOUNTSRECORD_H
#define KJP_INSTANCECOUNTSRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// Live instances of one class.
struct InstanceCountsRecord {
  jint myModificationStamp;
  jint myClassNameStrID;
  jint myCount;
  jlong mySize;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myClassNameStrID);
    writer.writeInt(myCount);
    writer.writeLong(mySize);
  }
};

#endif
