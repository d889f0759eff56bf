#ifndef KJP_FRAMERECORD_H
#define KJP_FRAMERECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// A node of the shared call tree. Parent, first child and next sibling default to -1, so a
// fresh row links to nothing; the callee is a method index.
struct FrameRecord {
  jint myModificationStamp;
  jint myParent;
  jint myCallee;
  jint myFirstChild;
  jint myNextSibling;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myParent);
    writer.writeInt(myCallee);
    writer.writeInt(myFirstChild);
    writer.writeInt(myNextSibling);
  }
};

#endif
