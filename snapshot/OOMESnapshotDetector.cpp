#include "snapshot/OOMESnapshotDetector.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/AgentThread.h"
#include "agent/Options.h"
#include "snapshot/SnapshotCapture.h"
#include "snapshot/TransferGuard.h"

namespace {

// The JVM's exit waits up to 300 ms for threads that run native code, and a thread in sleep()
// does; one waiting on a raw monitor is blocked in the JVM's eyes, and the exit goes on.
void pause(jvmtiEnv* jvmti, unsigned seconds) {
  static jrawMonitorID ourPauseMonitor = nullptr;
  if (ourPauseMonitor == nullptr && jvmti->CreateRawMonitor("kjp_oome_detector_pause", &ourPauseMonitor) != JVMTI_ERROR_NONE) {
    sleep(seconds);
    return;
  }
  jvmti->RawMonitorEnter(ourPauseMonitor);
  jvmti->RawMonitorWait(ourPauseMonitor, static_cast<jlong>(seconds) * 1000);
  jvmti->RawMonitorExit(ourPauseMonitor);
}

jlong fileSize(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 ? static_cast<jlong>(info.st_size) : -1;
}

void JNICALL detectorThreadEntry(jvmtiEnv*, JNIEnv* env, void*) { oome_snapshot_detector(env); }

KString makeCandidate(const char* dumpPath, int pid) {
  char name[64];
  snprintf(name, sizeof(name), "/java_pid%d.hprof", pid);
  return KString(dumpPath, name);
}

}  // namespace

HeapDumpWatcher::HeapDumpWatcher(const char* dumpPath, int pid)
    : myPath(dumpPath),
      myCandidate(makeCandidate(dumpPath, pid)),
      myPathTime(modificationTime(dumpPath)),
      myCandidateTime(modificationTime(myCandidate.get())) {}

jlong HeapDumpWatcher::modificationTime(const char* path) {
  struct stat info;
  if (stat(path, &info) != 0 || S_ISDIR(info.st_mode)) {
    return -1;
  }
  return static_cast<jlong>(info.st_mtim.tv_sec) * 1000000000LL + info.st_mtim.tv_nsec;
}

KString HeapDumpWatcher::check() {
  jlong candidateTime = modificationTime(myCandidate.get());
  if (candidateTime != -1 && candidateTime != myCandidateTime) {
    return myCandidate;
  }
  jlong pathTime = modificationTime(myPath.get());
  if (pathTime != -1 && pathTime != myPathTime) {
    return myPath;
  }
  return KString();
}

void oome_snapshot_detector(JNIEnv* env) {
  char* dumpPath = ourOptions.getHeapDumpPath();
  if (dumpPath == nullptr) {
    return;
  }
  HeapDumpWatcher watcher(dumpPath, static_cast<int>(getpid()));
  delete[] dumpPath;
  for (;;) {
    KString found = watcher.check();
    if (found.length() > 0) {
      addSnapshotInfo(found.get(), OOME_HPROF_SNAPSHOT_FLAGS);
      // The JVM may still be writing the dump: its identity is taken once its size holds.
      jlong size = fileSize(found.get());
      for (;;) {
        pause(ourJVMTI, OOME_POLL_SECONDS);
        jlong now = fileSize(found.get());
        if (now == size) {
          break;
        }
        size = now;
      }
      sealSnapshotFile(found.get());
      return;
    }
    pause(ourJVMTI, OOME_POLL_SECONDS);
  }
}

void startOOMESnapshotDetector(JNIEnv* env) {
  jthread thread = createAgentThread(env, "KJPAgent-OOMESnapshotDetector");
  check_JVMTI_error(ourJVMTI->RunAgentThread(thread, detectorThreadEntry, nullptr, JVMTI_THREAD_MAX_PRIORITY));
  env->DeleteLocalRef(thread);
}
