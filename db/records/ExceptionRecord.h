#ifndef KJP_EXCEPTIONRECORD_H
#define KJP_EXCEPTIONRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// Exceptions of one class thrown at one frame and caught at another; a catch frame of 0
// counts throws whose catch hasn't been seen.
struct ExceptionRecord {
  jint myModificationStamp;
  jint myThread;
  jint myThrowFrame;
  jint myCatchFrame;
  jint myClassNameStrID;
  jlong myCount;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myThread);
    writer.writeInt(myThrowFrame);
    writer.writeInt(myCatchFrame);
    writer.writeInt(myClassNameStrID);
    writer.writeLong(myCount);
  }
};

#endif
