#ifndef KJP_ALLOCATORRECORD_H
#define KJP_ALLOCATORRECORD_H

#include <jni.h>

#include "agent/KAssert.h"
#include "snapshot/AbstractWriter.h"

// Where a recorded object was allocated; the row number is the low half of its tag. These
// rows reach the UI only inside the heap section of a snapshot, never as a table.
struct AllocatorRecord {
  jint myModificationStamp;
  jint myThread;
  jint myFrame;
  jint myObjectIndex;

  void writeRecord(AbstractWriter& writer) const {
    (void)writer;
    KASSERT(0);
  }
};

#endif
