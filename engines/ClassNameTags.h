#ifndef KJP_CLASSNAMETAGS_H
#define KJP_CLASSNAMETAGS_H

#include <jni.h>
#include <jvmti.h>

// The string pool index of the fully qualified name of an object's class. The index is kept
// as the tag of the class on 'tags', an environment of the engine's own, so that a class's
// signature is read and interned once; with 'tagObject' the object gets the same tag, and the
// next call for that object asks nothing but its tag. 'tags' may be null (a JVM that refused
// the environment): then nothing is cached. Caller holds ourLock.
jint getClassNameStrID(JNIEnv* env, jvmtiEnv* tags, jobject object, bool tagObject);

// Sets every tag of 'tags' back to 0, so that names are read anew after a clear.
void clearAllTags(jvmtiEnv* tags);

#endif
