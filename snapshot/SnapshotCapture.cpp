#include "snapshot/SnapshotCapture.h"

#include <fcntl.h>
#include <jvmti.h>
#include <string.h>
#include <unistd.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "agent/KVector.h"
#include "agent/Options.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/InstanceCounting.h"
#include "engines/ThreadInfo.h"
#include "engines/TracingGate.h"
#include "snapshot/SnapshotFile.h"
#include "snapshot/SnapshotWriter.h"
#include "snapshot/TableStream.h"

namespace {

// Keeps every other Java thread still while a capture writes, so that the tables, and a heap
// dump, are one consistent picture. Threads are resumed in reverse order of suspension.
class ThreadSuspension {
 public:
  ThreadSuspension(JNIEnv* env, bool active) : myEnv(env), mySuspended(64), myThreads(nullptr), myCount(0) {
    if (active) {
      suspendOthers();
    }
  }

  ~ThreadSuspension() { resumeAll(); }

  ThreadSuspension(const ThreadSuspension&) = delete;
  ThreadSuspension& operator=(const ThreadSuspension&) = delete;

  void resumeAll() {
    while (!mySuspended.isEmpty()) {
      ourJVMTI->ResumeThread(mySuspended.pop());
    }
    if (myThreads != nullptr) {
      for (jint i = 0; i < myCount; i++) {
        myEnv->DeleteLocalRef(myThreads[i]);
      }
      deallocate(myThreads);
      myThreads = nullptr;
    }
  }

 private:
  void suspendOthers() {
    if (ourJVMTI->GetAllThreads(&myCount, &myThreads) != JVMTI_ERROR_NONE) {
      myThreads = nullptr;
      myCount = 0;
      return;
    }
    jthread current = nullptr;
    if (ourJVMTI->GetCurrentThread(&current) != JVMTI_ERROR_NONE) {
      current = nullptr;
    }
    ThreadInfo* currentInfo = getThreadInfoJVMTI(nullptr);
    for (jint i = 0; i < myCount; i++) {
      jthread thread = myThreads[i];
      // Threads are told apart by their ThreadInfo, so one without counts as another thread.
      // The JVM's own main thread has none, and it is the one that delivers VM Death: hence
      // the identity check, since a thread that suspends itself never wakes up again.
      ThreadInfo* info = getThreadInfoJVMTI(thread);
      if ((info != nullptr && info == currentInfo) || (current != nullptr && myEnv->IsSameObject(thread, current))) {
        continue;
      }
      if (ourIsJRockit && isGCMainThread(thread)) {
        continue;
      }
      if (ourJVMTI->SuspendThread(thread) == JVMTI_ERROR_NONE) {
        mySuspended.push(thread);
      }
    }
    if (current != nullptr) {
      myEnv->DeleteLocalRef(current);
    }
  }

  // JRockit's collector runs as a Java-visible thread; suspending it would stop the JVM.
  bool isGCMainThread(jthread thread) {
    jvmtiThreadInfo info;
    memset(&info, 0, sizeof(info));
    if (ourJVMTI->GetThreadInfo(thread, &info) != JVMTI_ERROR_NONE) {
      return false;
    }
    bool result = info.name != nullptr && strcmp(info.name, "(GC Main Thread)") == 0;
    if (info.thread_group != nullptr) {
      myEnv->DeleteLocalRef(info.thread_group);
    }
    if (info.context_class_loader != nullptr) {
      myEnv->DeleteLocalRef(info.context_class_loader);
    }
    if (info.name != nullptr) {
      deallocate(info.name);
    }
    return result;
  }

  JNIEnv* myEnv;
  KVector<jthread> mySuspended;
  jthread* myThreads;
  jint myCount;
};

}  // namespace

bool captureSnapshotToFile(JNIEnv* env, const char* path, jint progressHandle, jlong flags, bool suspendThreads,
                           KString* error) {
  // A capture asked for as the JVM ends (a periodic one, a client's) would find JVMTI refusing
  // everything once the exit snapshot is written (the exit snapshot itself is taken while the
  // JVM's death is announced, still live).
  if (ourVMDeathCalled && currentPhase() == JVMTI_PHASE_DEAD) {
    *error = "The JVM is shutting down";
    return false;
  }
  // Counted before ourLock is taken: the heap walk needs no lock, and probes shouldn't wait for it.
  InstanceCounting counting(env, ourDB, env != nullptr ? 1 << INSTANCECOUNTS_TABLE_ID : 0);
  if (env != nullptr) {
    counting.gatherClassInstanceStatistics(env);
  }
  LockHolder holder(&ourLock, "SnapshotCapture(118)");
  TracingGate::Closure stillTracing;
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd == -1) {
    *error = "Cannot open file to write snapshot";
    return false;
  }
  // On top of the increment in the header: successive files are numbered 2 apart.
  ourSnapshotCount++;
  ThreadSuspension suspension(env, suspendThreads && !ourOptions.myWithDebugger);
  closeOpenCalls();
  bool ok = true;
  {
    SnapshotWriter writer(fd, SNAPSHOT_BUFFER_SIZE, true);
    // The snapshot's name is what follows the last slash (or backslash) of its path.
    const char* name = path;
    for (const char* c = path; *c != 0; c++) {
      if (*c == '/' || *c == '\\') {
        name = c + 1;
      }
    }
    writeSnapshot(env, ourDB, writer, progressHandle, flags, &counting, name);
    writer.flush();
    if (writer.getError() != nullptr) {
      *error = writer.getError();
      ok = false;
    }
  }
  reopenOpenCalls();
  close(fd);
  suspension.resumeAll();
  return ok;
}

jstring captureSnapshotJVMTI(JNIEnv* env, jstring file, jint progressHandle, jlong flags) {
  KASSERT(ourJVMTI);
  KString path = createUTFKStringFromJString(env, file);
  KString error;
  if (captureSnapshotToFile(env, path.get(), progressHandle, flags, true, &error)) {
    return nullptr;
  }
  return newStringUTF(env, error);
}

bool findSnapshot(const KString& path) {
  LockHolder holder(&ourLock, "SnapshotCapture(150)");
  DBTable<SnapshotRecord>* snapshots = ourDB->mySnapshotTable;
  jint capacity = snapshots->getCapacity();
  for (jint i = 0; i < capacity; i++) {
    SnapshotRecord* record = snapshots->getRecord(i, false);
    if (record == nullptr || record->myModificationStamp == 0) {
      continue;
    }
    StringRecord* text = ourDB->myStringTable->getRecord(record->myPathStrID, false);
    if (text != nullptr && text->myText != nullptr && strcmp(text->myText, path.get()) == 0) {
      return true;
    }
  }
  return false;
}

void addSnapshotInfo(const char* path, jlong flags) {
  LockHolder holder(&ourLock, "SnapshotCapture(168)");
  SnapshotRecord* record = ourDB->mySnapshotTable->createRecord();
  record->myFlags = flags;
  record->myPathStrID = ourDB->myStrPool->getDBIndex(path, true);
  record->myModificationStamp = ourDB->myModificationStamp;
}

extern "C" {

JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_captureSnapshot(JNIEnv* env, jclass, jstring file,
                                                                       jint progressHandle, jlong flags) {
  return captureSnapshotJVMTI(env, file, progressHandle, flags);
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_findSnapshot(JNIEnv* env, jclass, jstring path) {
  return findSnapshot(createUTFKStringFromJString(env, path)) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_addSnapshotInfo(JNIEnv* env, jclass, jstring path,
                                                                    jlong flags) {
  addSnapshotInfo(createUTFKStringFromJString(env, path).get(), flags);
}

}  // extern "C"
