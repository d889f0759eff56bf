#ifndef KJP_METHODIDPROVIDER_H
#define KJP_METHODIDPROVIDER_H

#include <jni.h>

// Hands the instrumentation the method index that a probe carries, without the patchers
// knowing the database. The index is fixed into the bytecode, so probe and database agree
// on it with no lookup at run time.
//
// Virtual so that offline tools and tests can number methods without a database.
class MethodIDProvider {
 public:
  virtual ~MethodIDProvider() {}

  // The index (> 0) of the method's row, made on first need. className is internal form
  // ("java/lang/String") or already a signature ("Ljava/lang/String;"). Call under ourLock.
  virtual jint getMethodID(const char* className, const char* methodName, const char* descriptor) const;

  // Adds 'flags' (MF_NOT_INSTRUMENTED, MF_J2EE) to the row of a method that getMethodID
  // returned. Call under ourLock.
  virtual void addMethodFlags(jint methodIndex, jint flags) const;

  // Sets MF_J2EE on a method that took J2EE probes, which keeps method filters from folding
  // it, and keeps it in mind until its class (className in internal form) is prepared: the
  // probes go into every method of a catalogue name, and only then is it known whether the
  // class is one of the catalogue's. Call under ourLock.
  virtual void addJ2EEMethod(const char* className, jint methodIndex) const;
};

#endif
