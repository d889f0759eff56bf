#ifndef KJP_THREADFRAMERECORD_H
#define KJP_THREADFRAMERECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// Which (thread slot, frame) pair a TFI stands for. The same row number indexes the CPU and
// allocation figures of the pair. Slot and frame both 0 marks an empty row.
#define KJP_THREAD_FRAME_RECORD_FIELDS(X, C)                                                   \
  X(C, jint, myThreadIndexForTFI, FIELD_THREADFRAME_THREAD_INDEX_FOR_TFI, "threadIndexForTFI") \
  X(C, jint, myFrameID, FIELD_THREADFRAME_FRAME_ID, "frameID")

struct ThreadFrameRecord {
  KJP_RECORD_BODY(KJP_THREAD_FRAME_RECORD_FIELDS)
};

#endif
