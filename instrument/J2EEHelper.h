#ifndef KJP_J2EEHELPER_H
#define KJP_J2EEHELPER_H

#include <jni.h>

#include "agent/KSet.h"
#include "instrument/J2EEMethod.h"

class ClassFile;
class MethodInfo;

// The J2EE catalogue: the JDBC, servlet, JSP and JNDI methods that are reported as J2EE
// events. A method of a class being read is matched by name and descriptor alone; whether
// its class really implements one of the interfaces is decided at run time.
class J2EEHelper {
 public:
  static constexpr int J2EE_INSTRUMENTATION_TYPE_1 = 1;
  static constexpr int J2EE_INSTRUMENTATION_TYPE_2 = 2;
  static constexpr int J2EE_INSTRUMENTATION_TYPE_3 = 3;
  static constexpr int J2EE_INSTRUMENTATION_TYPE_4 = 4;
  static constexpr int J2EE_INSTRUMENTATION_TYPE_5 = 5;

  // Filled by the one static instance at library load, before any class can be read, and
  // never changed afterwards, so readers need no lock.
  static KSet<const J2EEMethod*> ourAllMethods;
  static KSet<const char*> ourAllInterfaceNames;

  J2EEHelper();

  // The catalogue entry with this name and descriptor, or null.
  static const J2EEMethod* find(const char* name, const char* descriptor);
  static const J2EEMethod* find(const MethodInfo* method);

  // Whether some method of this class, not an interface, has the name and descriptor of a
  // catalogue entry: a first filter only, the supertypes are checked at run time.
  static bool canBeJ2EEClass(const ClassFile& classFile);

  // Whether the class is one of the catalogue's interfaces or implements one, directly, through
  // its interfaces' supertypes or through a superclass. Asks the JVM, through ourJVMTI, about
  // a class that is at least prepared.
  static bool isClassImplementsSQLInterfaces(JNIEnv* env, jclass klass);

  // The J2EE method types (bit 1 << type) of the catalogue interfaces that the class is or
  // implements, found as above; 0 for no J2EE class. A method of the catalogue is a J2EE call
  // only on an object whose class has its type: a JNDI context's close() has the name and
  // descriptor of a JDBC connection's.
  static jint methodTypesOf(JNIEnv* env, jclass klass);

  // The bit of the catalogue interface with this class signature, 0 for any other.
  static jint methodTypesOfInterface(const char* signature);
};

#endif
