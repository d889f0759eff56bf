#ifndef KJP_METHODRECORD_H
#define KJP_METHODRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// Method flags.
const jint MF_HIDDEN = 1;
const jint MF_FILTERED = 2;
const jint MF_WALL_TIME = 4;
const jint MF_NOT_INSTRUMENTED = 8;
const jint MF_J2EE = 16;
const jint MF_WAIT = 32;

// A method, named by three pooled strings; the row index is the method index fixed in the
// instrumented bytecode.
struct MethodRecord {
  jint myModificationStamp;
  jint myNameStrID;
  jint mySignatureStrID;
  jint myClassNameStrID;
  jint myFlags;

  void writeRecord(AbstractWriter& writer) const {
    writer.writeInt(myModificationStamp);
    writer.writeInt(myNameStrID);
    writer.writeInt(mySignatureStrID);
    writer.writeInt(myClassNameStrID);
    writer.writeInt(myFlags);
  }
};

#endif
