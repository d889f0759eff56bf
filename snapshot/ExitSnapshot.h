#ifndef KJP_EXITSNAPSHOT_H
#define KJP_EXITSNAPSHOT_H

#include <jni.h>

#include "agent/KString.h"

class Options;

// Whether the JVM's end calls for a snapshot: the onexit options ask for one, and so does any
// measurement that is running (allocations, CPU, monitors), whose data would otherwise be lost.
bool isExitSnapshotWanted(jlong status, const Options& options);

// The capture flags of the exit snapshot, before the cause bit: with heap for onexit=memory and
// while allocations are recorded, whose objects only a heap dump can show.
jlong getExitSnapshotFlags(jlong status, const Options& options);

// Called at VM Death: writes the exit snapshot when one is wanted, into the snapshot directory
// under the name the runtime would choose, registers it and logs where it went, or why not.
// Any failure is logged and swallowed: the JVM is ending, and it must end normally.
void captureSnapshotOnExit(JNIEnv* env);

// The text of the agent version property.
#define KJP_AGENT_VERSION_TEXT "Kestrix Java Profiler 8.0.1; build 4064 200902201432"

#endif
