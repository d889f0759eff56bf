#ifndef KJP_CLASSLOADHOOK_H
#define KJP_CLASSLOADHOOK_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KVector.h"

class MethodIDProvider;

// Set at the first load of com/kestrix/runtime/Callback; from then on the hook leaves its
// bodies to redefineCallback.
extern bool ourCallbackSeen;

// The callback class as the hook first prepared it, before any body was switched on. Every
// redefinition starts from these bytes. Never freed: the hook may still run on some thread
// while the process ends.
extern KVector<unsigned char>& ourCallbackBytes;

// The JVMTI ClassFileLoadHook: every class on its way into the JVM (first loads and
// redefinitions alike) is rewritten with its probes, and handed back when that changed it.
// A class that cannot be read or rewritten goes into the JVM as it came, with a warning.
void JNICALL class_file_load_hook_handler(jvmtiEnv* jvmti, JNIEnv* env, jclass classBeingRedefined, jobject loader,
                                          const char* name, jobject protectionDomain, jint classDataLength,
                                          const unsigned char* classData, jint* newClassDataLength,
                                          unsigned char** newClassData);

// Gives every method with code of the class in 'input' its method row, flagged as not
// instrumented, without changing the class. For classes that must load without probes.
void markAllMethodsAsNotInstrumented(const MethodIDProvider* provider, KVector<unsigned char>& input);

// Whether the class file in 'data' is the class 'name' (internal form). The name's bytes must
// occur in the data; only then is the class read and its own name compared.
bool isClass(const unsigned char* data, int length, const char* name);

#endif
