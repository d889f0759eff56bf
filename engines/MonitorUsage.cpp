#include "engines/MonitorUsage.h"

#include <stdint.h>

#include "agent/Clock.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/KMap.h"
#include "db/DB.h"
#include "engines/ClassNameTags.h"
#include "engines/KFrameStorage.h"
#include "engines/KeyedRows.h"
#include "engines/ThreadInfo.h"

namespace {

struct MonitorKey {
  jint myThread;
  jint myOwner;
  jint myClass;
  jint myFrame;

  MonitorKey withThread(jint thread) const { return MonitorKey{thread, myOwner, myClass, myFrame}; }
  void fill(MonitorRecord* record) const {
    record->myThread = myThread;
    record->myOwner = myOwner;
    record->myClassNameStrID = myClass;
    record->myFrame = myFrame;
  }
};

struct OwnerIDAndTime {
  jint myOwner;
  jlong myStartNs;  // 0: nothing pending
};

// Found by argument-dependent lookup when KMap is instantiated.
inline jint kmap_hashCode(const MonitorKey& key) {
  uint32_t hash = static_cast<uint32_t>(key.myThread);
  hash = hash * 29u + static_cast<uint32_t>(key.myFrame);
  hash = hash * 29u + static_cast<uint32_t>(key.myOwner);
  hash = hash * 29u + static_cast<uint32_t>(key.myClass);
  return static_cast<jint>(hash);
}
inline bool kmap_equal(const MonitorKey& a, const MonitorKey& b) {
  return a.myThread == b.myThread && a.myOwner == b.myOwner && a.myClass == b.myClass && a.myFrame == b.myFrame;
}
inline bool kmap_isNull(const MonitorKey& key) { return key.myThread == 0; }

}  // namespace

namespace Monitors {

namespace {

KeyedRows<MonitorKey, MonitorRecord> ourMonitorKeys(1024, &DB::myMonitorTable);
KMap<jint, OwnerIDAndTime> ourPendingMonitorEvents(1024);

// The running number of the thread that owns 'owner'; a null thread means the current one.
jint runningNumberOf(jthread thread) {
  ThreadInfo* info = getThreadInfoJVMTI(thread);
  return info != nullptr ? info->myRunningNumber : 0;
}

// Opens the interval of the current thread on 'monitor', held by 'owner'.
void openInterval(JNIEnv* env, jthread thread, jint owner, jobject monitor) {
  jint running = 0;
  if (getMonitorRecordIndex(env, thread, owner, monitor, &running) != 0) {
    ourPendingMonitorEvents.put(running, OwnerIDAndTime{owner, getTimeNs()});
  }
}

// Books the open interval of the thread, if any, in the row of its path as it is now.
void closeInterval(JNIEnv* env, jthread thread, jobject monitor) {
  ThreadInfo* info = getThreadInfoJVMTI(thread);
  if (info == nullptr || info->myRunningNumber == 0) {
    return;
  }
  OwnerIDAndTime pending{0, 0};
  if (!ourPendingMonitorEvents.get(info->myRunningNumber, &pending) || pending.myStartNs == 0) {
    return;
  }
  ourPendingMonitorEvents.put(info->myRunningNumber, OwnerIDAndTime{0, 0});
  jint row = getMonitorRecordIndex(env, thread, pending.myOwner, monitor, nullptr);
  if (row == 0) {
    return;
  }
  MonitorRecord* record = ourMonitorKeys.record(row);
  record->myTimeNs += getTimeNs() - pending.myStartNs;
  record->myCount++;
  record->myModificationStamp = ourDB->myModificationStamp;
}

// The owner of a monitor that the thread is about to block on; a monitor that nobody owns
// (it was released in between) reads as owned by the thread itself.
jint monitorOwner(JNIEnv* env, jobject object) {
  jvmtiMonitorUsage usage;
  if (ourJVMTI->GetObjectMonitorUsage(object, &usage) != JVMTI_ERROR_NONE) {
    return 0;
  }
  jint owner = runningNumberOf(usage.owner);
  if (usage.owner != nullptr) {
    env->DeleteLocalRef(usage.owner);
  }
  for (jint i = 0; i < usage.waiter_count; i++) {
    env->DeleteLocalRef(usage.waiters[i]);
  }
  for (jint i = 0; i < usage.notify_waiter_count; i++) {
    env->DeleteLocalRef(usage.notify_waiters[i]);
  }
  deallocate(usage.waiters);
  deallocate(usage.notify_waiters);
  return owner;
}

// java.util.concurrent's locks name their holder in AbstractOwnableSynchronizer; found once.
jclass ourOwnableSynchronizerClass = nullptr;
jfieldID ourExclusiveOwnerField = nullptr;
bool ourOwnableSynchronizerLooked = false;

// The running number of the thread holding a park's blocker, 0 when the blocker names none.
jint blockerOwner(JNIEnv* env, jobject blocker) {
  if (!ourOwnableSynchronizerLooked) {
    ourOwnableSynchronizerLooked = true;
    jclass klass = env->FindClass("java/util/concurrent/locks/AbstractOwnableSynchronizer");
    if (klass != nullptr) {
      ourExclusiveOwnerField = env->GetFieldID(klass, "exclusiveOwnerThread", "Ljava/lang/Thread;");
      ourOwnableSynchronizerClass = static_cast<jclass>(env->NewGlobalRef(klass));
      env->DeleteLocalRef(klass);
    }
    if (env->ExceptionCheck()) {
      env->ExceptionClear();
      ourExclusiveOwnerField = nullptr;
    }
  }
  if (ourExclusiveOwnerField == nullptr || !env->IsInstanceOf(blocker, ourOwnableSynchronizerClass)) {
    return 0;
  }
  jobject owner = env->GetObjectField(blocker, ourExclusiveOwnerField);
  if (owner == nullptr) {
    return 0;
  }
  jint running = runningNumberOf(owner);
  env->DeleteLocalRef(owner);
  return running;
}

}  // namespace

jint getMonitorRecordIndex(JNIEnv* env, jthread thread, jint owner, jobject monitor, jint* op_runningNumber) {
  if ((ourStatus & MONITORS_BIT) == 0) {
    return 0;
  }
  ThreadInfo* info = getThreadInfoJVMTI(thread);
  if (info == nullptr) {
    return 0;
  }
  jint frame = ourFrameStorage.fillCurrentFrameJVMTI(env, false, nullptr);
  if (frame <= 0) {
    return 0;
  }
  jint className = getClassNameStrID(env, ourJVMTI5, monitor, true);
  if (op_runningNumber != nullptr) {
    *op_runningNumber = info->myRunningNumber;
  }
  return ourMonitorKeys.findOrCreate(MonitorKey{info->myRunningNumber, owner, className, frame});
}

void JNICALL monitorContendedEnter(jvmtiEnv*, JNIEnv* env, jthread thread, jobject object) {
  if (currentPhase() != JVMTI_PHASE_LIVE) {
    return;
  }
  LockHolder holder(&ourLock, "Monitors(168)");
  jint owner = monitorOwner(env, object);
  if (owner != 0) {
    openInterval(env, thread, owner, object);
  }
}

void JNICALL monitorWait(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jobject object, jlong) {
  // The waiting thread still owns the monitor, so the row's owner is the thread itself.
  monitorContendedEnter(jvmti, env, thread, object);
}

void JNICALL monitorContendedEntered(jvmtiEnv*, JNIEnv* env, jthread thread, jobject object) {
  if (currentPhase() != JVMTI_PHASE_LIVE) {
    return;
  }
  LockHolder holder(&ourLock, "Monitors(185)");
  closeInterval(env, thread, object);
}

void JNICALL monitorWaited(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jobject object, jboolean) {
  monitorContendedEntered(jvmti, env, thread, object);
}

void mergeMonitorUsage(KSet<jint>* threadRunningNumbersToCleanup) {
  ourMonitorKeys.mergeThreads(threadRunningNumbersToCleanup, ourOldestDeadThreads->myRunningNumber,
                              [](MonitorRecord* target, const MonitorRecord* source) {
                                target->myTimeNs += source->myTimeNs;
                                target->myCount += source->myCount;
                              });
}

void cleanupMonitorUsage() {
  ourPendingMonitorEvents.init();
  clearAllTags(ourJVMTI5);
  ourMonitorKeys.clear(MONITOR_TABLE_ID);
}

}  // namespace Monitors

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpParkEntry0(JNIEnv* env, jclass, jobject blocker) {
  // A virtual thread has no ThreadInfo, so its parks stay off its carrier's rows.
  if ((ourStatus & MONITORS_BIT) == 0 || blocker == nullptr || getCurrentThreadInfo() == nullptr) {
    return;
  }
  LockHolder holder(&ourLock, "Monitors(220)");
  Monitors::openInterval(env, nullptr, Monitors::blockerOwner(env, blocker), blocker);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpParkExit0(JNIEnv* env, jclass, jobject blocker) {
  if (blocker == nullptr || getCurrentThreadInfo() == nullptr) {
    return;
  }
  LockHolder holder(&ourLock, "Monitors(228)");
  Monitors::closeInterval(env, nullptr, blocker);
}

}  // extern "C"
