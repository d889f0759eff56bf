#ifndef KJP_J2EEMETHOD_H
#define KJP_J2EEMETHOD_H

#include <jni.h>

class MethodInfo;

// One row of the J2EE catalogue, and the key by which a method of a class being read is
// looked up in it: name and descriptor only, whatever class the method is in.
class J2EEMethod {
 public:
  J2EEMethod(const char* name, const char* descriptor, int instrumentationType, int methodType);
  // A lookup key for a method as read; both types 0.
  explicit J2EEMethod(const MethodInfo* method);
  ~J2EEMethod();

  J2EEMethod(const J2EEMethod&) = delete;
  J2EEMethod& operator=(const J2EEMethod&) = delete;

  // A key that borrows its texts instead of copying them, for the lookup done for every
  // method of every class; it must not outlive them.
  static J2EEMethod borrowed(const char* name, const char* descriptor);

  const char* getName() const { return myName; }
  const char* getDescriptor() const { return myDescriptor; }
  int getJ2EEInstrumentationType() const { return myJ2EEInstrumentationType; }
  int getJ2EEMethodType() const { return myJ2EEMethodType; }
  int getHash() const { return myHash; }

 private:
  J2EEMethod(const char* name, const char* descriptor, bool owned);
  static int computeHash(const char* name, const char* descriptor);

  char* myName;
  char* myDescriptor;
  int myJ2EEInstrumentationType;
  int myJ2EEMethodType;
  int myHash;
  bool myOwnsTexts;
};

// Hashing and equality for KSet<const J2EEMethod*>: by content, not by address.
jint kmap_hashCode(const J2EEMethod* method);
bool kmap_equal(const J2EEMethod* a, const J2EEMethod* b);
bool kmap_isNull(const J2EEMethod* method);

#endif
