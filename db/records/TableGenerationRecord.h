#ifndef KJP_TABLEGENERATIONRECORD_H
#define KJP_TABLEGENERATIONRECORD_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// Row t holds the stamp at which table t was last cleared at run time.
struct TableGenerationRecord {
  jint myModificationStamp;

  void writeRecord(AbstractWriter& writer) const { writer.writeInt(myModificationStamp); }
};

#endif
