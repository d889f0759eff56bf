#ifndef KJP_OOMESNAPSHOTDETECTOR_H
#define KJP_OOMESNAPSHOTDETECTOR_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KString.h"

// Snapshot flags of a heap dump the JVM wrote at an OutOfMemoryError: with heap, HPROF format,
// caused by the error.
const jlong OOME_HPROF_SNAPSHOT_FLAGS = 273;

// Seconds between two looks at the heap dump path.
const unsigned OOME_POLL_SECONDS = 3;

// Notices the heap dump that the JVM writes by itself on an OutOfMemoryError (with
// -XX:+HeapDumpOnOutOfMemoryError), so that the UI can fetch it with the other snapshots. The
// dump path is either a file or a directory that receives "java_pid<pid>.hprof"; whichever
// changes after the watch began is the dump.
class HeapDumpWatcher {
 public:
  HeapDumpWatcher(const char* dumpPath, int pid);

  // The dump's path once it has appeared or changed, else empty.
  KString check();

  const KString& getCandidate() const { return myCandidate; }

  // Modification time in nanoseconds, -1 for a path that doesn't exist or is a directory.
  static jlong modificationTime(const char* path);

 private:
  KString myPath;
  KString myCandidate;
  jlong myPathTime;
  jlong myCandidateTime;
};

// The body of "KJPAgent-OOMESnapshotDetector": watches until a dump appears, registers it and
// ends. Without a dump path it ends at once; without a dump it lasts as long as the process.
void oome_snapshot_detector(JNIEnv* env);

// Starts the detector thread; called at VM Init whatever the options say.
void startOOMESnapshotDetector(JNIEnv* env);

#endif
