#ifndef KJP_METHODRECORD_H
#define KJP_METHODRECORD_H

#include <jni.h>

#include "db/records/RecordFields.h"

// Method flags.
const jint MF_HIDDEN = 1;
const jint MF_FILTERED = 2;
const jint MF_WALL_TIME = 4;
const jint MF_NOT_INSTRUMENTED = 8;
const jint MF_J2EE = 16;
const jint MF_WAIT = 32;
// Of a hidden class (a lambda's, a method handle's), which the class-load hook never sees: it
// never carries probes, so tracing steps over it, but samples see it.
const jint MF_HIDDEN_CLASS = 64;

// A method, named by three pooled strings; the row index is the method index fixed in the
// instrumented bytecode.
#define KJP_METHOD_RECORD_FIELDS(X, C)                                           \
  X(C, jint, myNameStrID, FIELD_METHOD_NAME_STR_ID, "nameStrID")                 \
  X(C, jint, mySignatureStrID, FIELD_METHOD_SIGNATURE_STR_ID, "signatureStrID")  \
  X(C, jint, myClassNameStrID, FIELD_METHOD_CLASS_NAME_STR_ID, "classNameStrID") \
  X(C, jint, myFlags, FIELD_METHOD_FLAGS, "flags")

struct MethodRecord {
  KJP_RECORD_BODY(KJP_METHOD_RECORD_FIELDS)
};

#endif
