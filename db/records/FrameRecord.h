#ifndef KJP_FRAMERECORD_H
#define KJP_FRAMERECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// A node of the shared call tree. Parent, first child and next sibling default to -1, so a
// fresh row links to nothing; the callee is a method index.
#define KJP_FRAME_RECORD_FIELDS(X, C)                                \
  X(C, jint, myParent, FIELD_FRAME_PARENT, "parent")                 \
  X(C, jint, myCallee, FIELD_FRAME_CALLEE, "callee")                 \
  X(C, jint, myFirstChild, FIELD_FRAME_FIRST_CHILD, "firstChild")    \
  X(C, jint, myNextSibling, FIELD_FRAME_NEXT_SIBLING, "nextSibling")

struct FrameRecord {
  KJP_RECORD_BODY(KJP_FRAME_RECORD_FIELDS)
};

#endif
