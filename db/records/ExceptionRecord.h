#ifndef KJP_EXCEPTIONRECORD_H
#define KJP_EXCEPTIONRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// Exceptions of one class thrown at one frame and caught at another; a catch frame of 0
// counts throws whose catch hasn't been seen.
#define KJP_EXCEPTION_RECORD_FIELDS(X, C)                                           \
  X(C, jint, myThread, FIELD_EXCEPTION_THREAD, "thread")                            \
  X(C, jint, myThrowFrame, FIELD_EXCEPTION_THROW_FRAME, "throwFrame")               \
  X(C, jint, myCatchFrame, FIELD_EXCEPTION_CATCH_FRAME, "catchFrame")               \
  X(C, jint, myClassNameStrID, FIELD_EXCEPTION_CLASS_NAME_STR_ID, "classNameStrID") \
  X(C, jlong, myCount, FIELD_EXCEPTION_COUNT, "count")

struct ExceptionRecord {
  KJP_RECORD_BODY(KJP_EXCEPTION_RECORD_FIELDS)
};

#endif
