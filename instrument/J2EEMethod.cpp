#include "instrument/J2EEMethod.h"

#include <string.h>

#include "agent/KAssert.h"
#include "agent/KHelpers.h"
#include "classfile/MethodInfo.h"

J2EEMethod::J2EEMethod(const char* name, const char* descriptor, int instrumentationType, int methodType)
    : myName(k_strdup(name)),
      myDescriptor(k_strdup(descriptor)),
      myJ2EEInstrumentationType(instrumentationType),
      myJ2EEMethodType(methodType),
      myHash(computeHash(name, descriptor)),
      myOwnsTexts(true) {
  KASSERT(name);
  KASSERT(descriptor);
}

J2EEMethod::J2EEMethod(const MethodInfo* method)
    : J2EEMethod(method->getName().get(), method->getDescriptor().get(), 0, 0) {}

J2EEMethod::J2EEMethod(const char* name, const char* descriptor, bool owned)
    : myName(const_cast<char*>(name)),
      myDescriptor(const_cast<char*>(descriptor)),
      myJ2EEInstrumentationType(0),
      myJ2EEMethodType(0),
      myHash(computeHash(name, descriptor)),
      myOwnsTexts(owned) {}

J2EEMethod J2EEMethod::borrowed(const char* name, const char* descriptor) { return J2EEMethod(name, descriptor, false); }

J2EEMethod::~J2EEMethod() {
  if (myOwnsTexts) {
    delete[] myName;
    delete[] myDescriptor;
  }
}

int J2EEMethod::computeHash(const char* name, const char* descriptor) {
  // 31 * hash + byte over both texts, each byte sign-extended, wrapping in 32 bits.
  unsigned int hash = 0;
  for (const char* p = name; *p != 0; p++) {
    hash = static_cast<unsigned int>(static_cast<signed char>(*p)) + 31u * hash;
  }
  for (const char* p = descriptor; *p != 0; p++) {
    hash = static_cast<unsigned int>(static_cast<signed char>(*p)) + 31u * hash;
  }
  return static_cast<int>(hash);
}

jint kmap_hashCode(const J2EEMethod* method) { return method->getHash(); }

bool kmap_equal(const J2EEMethod* a, const J2EEMethod* b) {
  return strcmp(a->getName(), b->getName()) == 0 && strcmp(a->getDescriptor(), b->getDescriptor()) == 0;
}

bool kmap_isNull(const J2EEMethod* method) { return method == nullptr; }
