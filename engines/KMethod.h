#ifndef KJP_KMETHOD_H
#define KJP_KMETHOD_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KMap.h"

// Three string pool indices naming a method: name, signature, class. The key of the method
// table's name index.
struct IntTriple {
  jint myFirst;
  jint mySecond;
  jint myThird;
};

inline jint kmap_hashCode(const IntTriple& key) { return key.myFirst + key.mySecond + key.myThird; }
inline bool kmap_equal(const IntTriple& a, const IntTriple& b) {
  return a.myFirst == b.myFirst && a.mySecond == b.mySecond && a.myThird == b.myThird;
}
// Interned names are never at pool index 0, so an all-zero triple is free to mean "no key".
inline bool kmap_isNull(const IntTriple& key) { return key.myFirst == 0 && key.mySecond == 0 && key.myThird == 0; }

// Turns method names into rows of the method table. All of it runs under ourLock.
class KMethod {
 public:
  // The method's index, never 0; a new row gets its filter flags, and is hidden when it
  // belongs to the agent's callback class or is a wrapped native.
  static jint getByName(const char* methodName, const char* methodSignature, const char* className);
};

// The method index of a method given by its JVM class signature ("Ljava/lang/String;").
jint getMethodByName(const char* classSignature, const char* methodName, const char* methodSignature);

// The method index of a JVM method handle, asking the JVM for its names once per handle. A
// handle the JVM no longer names (its class was unloaded) gets the row of this pseudo-method.
jint getMethodByID(JNIEnv* env, jmethodID methodID);
#define UNLOADED_METHOD_CLASS "L<unloaded class>;"
#define UNLOADED_METHOD_NAME "<unloaded method>"

// Memo of method handle to method index; handles stay valid while their class lives, and a
// class loaded twice gets new handles that map to the same row.
extern KMap<jmethodID, jint> ourMethodID2MethodIndex;
// (name, signature, class) string indices to method index.
extern KMap<IntTriple, jint> ourMethodsByName;

#endif
