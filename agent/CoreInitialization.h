#ifndef KJP_COREINITIALIZATION_H
#define KJP_COREINITIALIZATION_H

#include <jni.h>

// The runtime class com/kestrix/runtime/Core once initializeCore has defined it.
extern jclass ourClassCoreGlobalRef;

// Brings up the Java half of the agent at VM Init: defines the embedded runtime classes into
// the system class loader, registers Core's natives and calls Core.init with the options.
// The JVM ends with status -1 when a class the runtime can't do without fails to define or
// Core.init fails; only the classes built on java.lang.management may be missing, which
// costs their services only.
void initializeCore(JNIEnv* env);

// Whether a failed definition of this class leaves the runtime usable.
bool isOptionalRuntimeClass(const char* name);

// At VM Death: has the runtime write the exit snapshot when the options ask for one or a
// measurement is running, with heap for onexit=memory or running allocation recording.
void captureSnapshotOnExit(JNIEnv* env, jlong status);

// Closes the runtime's listening socket as the JVM dies, so that no thread of the agent waits
// in native code when the JVM exits.
void stopListening(JNIEnv* env);

// The flags of the exit snapshot before the runtime adds the cause bit; -1 when none is due.
jlong getExitSnapshotFlags(jlong status, bool onExitMemory, bool onExitSnapshot);

#endif
