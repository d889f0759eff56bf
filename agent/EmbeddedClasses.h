#ifndef KJP_EMBEDDEDCLASSES_H
#define KJP_EMBEDDEDCLASSES_H

#include <jni.h>

// One class of the Java runtime that travels inside the library.
struct EmbeddedClass {
  const char* myName;  // internal form, "com/kestrix/runtime/Core"
  jint mySize;
  const unsigned char* myBytes;
};

// The runtime's classes in definition order: a class's superclass and interfaces from the
// runtime come before it. Generated at build time from the compiled runtime sources; the
// callback class isn't among them, since it comes from the jar on the boot class path.
extern const EmbeddedClass ourEmbeddedClasses[];
extern const int ourEmbeddedClassCount;

#endif
