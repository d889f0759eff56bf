#ifndef KJP_ALLOCATORRECORD_H
#define KJP_ALLOCATORRECORD_H

#include <jni.h>

#include "agent/KAssert.h"
#include "db/records/RecordFields.h"

// Where a recorded object was allocated; the row number is the low half of its tag. These
// rows reach the UI only inside the heap section of a snapshot, never as a table.
#define KJP_ALLOCATOR_RECORD_FIELDS(X, C)                                \
  X(C, jint, myThread, FIELD_ALLOCATOR_THREAD, "thread")                 \
  X(C, jint, myFrame, FIELD_ALLOCATOR_FRAME, "frame")                    \
  X(C, jint, myObjectIndex, FIELD_ALLOCATOR_OBJECT_INDEX, "objectIndex")

struct AllocatorRecord {
  KJP_RECORD_MEMBERS(KJP_ALLOCATOR_RECORD_FIELDS)

  void writeRecord(AbstractWriter& writer) const {
    (void)writer;
    KASSERT(0);
  }
};

#endif
