#ifndef KJP_JNIREDIRECTION_H
#define KJP_JNIREDIRECTION_H

#include <jni.h>

// Objects that native code makes through JNI never pass a constructor probe, so allocation
// recording would miss them. redirectJNIFunctions replaces the sixteen JNI functions that make
// objects (DefineClass, AllocObject, the three NewObject forms, NewString, NewStringUTF,
// NewObjectArray and the eight primitive array constructors) with versions that call the
// JVM's own function and report every object it made to jni_object_alloc_handler. Installed
// once, at VM Start, for the life of the process.
void redirectJNIFunctions();

// The JVM's own table, as it was before the redirection; null before it.
extern const JNINativeInterface_* ourSavedJNIFunctions;

#endif
