#include "engines/CallLogs.h"

#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "engines/ThreadInfo.h"
#include "engines/Tracing.h"

namespace {

const char* const CALL_LOG_CLASS = "com/kestrix/runtime/CallLog";

// ThreadInfo::myCallLogSlot of a thread whose place another thread held.
const jint DENIED = -2;

// One reader at a time (ourLock), so one buffer serves them all.
jint ourEvents[CallLogs::MAX_CAPACITY];

// CallLog.OWNERS and CallLog.LOGS: the thread that holds each place of the table, and its log.
jobjectArray ourOwners = nullptr;
jobjectArray ourLogs = nullptr;

// Array functions must not run with an exception pending, and a throw's event may come with one.
class PendingExceptionKeeper {
 public:
  explicit PendingExceptionKeeper(JNIEnv* env) : myEnv(env), myPending(env->ExceptionOccurred()) {
    if (myPending != nullptr) {
      env->ExceptionClear();
    }
  }
  ~PendingExceptionKeeper() {
    if (myPending != nullptr) {
      myEnv->Throw(myPending);
      myEnv->DeleteLocalRef(myPending);
    }
  }
  PendingExceptionKeeper(const PendingExceptionKeeper&) = delete;
  PendingExceptionKeeper& operator=(const PendingExceptionKeeper&) = delete;

 private:
  JNIEnv* myEnv;
  jthrowable myPending;
};

// An event of a log as written by CallLog.
void replayEvent(ThreadInfo* info, jint event) {
  if (event < 0) {
    replayExit(info, ~event);
  } else if ((event & CallLogs::LEAF) != 0) {
    replayCall(info, event & ~CallLogs::LEAF);
  } else {
    replayEntry(info, event);
  }
}

JNIEnv* currentEnv() {
  void* env = nullptr;
  return ourVM != nullptr && ourVM->GetEnv(&env, JNI_VERSION_1_6) == JNI_OK ? static_cast<JNIEnv*>(env) : nullptr;
}

// An empty log of 'capacity' events whose request word says 'needsNative', as a local and a
// global reference; false, with neither, when there is no memory for it.
bool newLog(JNIEnv* env, jint capacity, bool needsNative, jintArray* local, jintArray* global) {
  *local = env->NewIntArray(CallLogs::HEADER + capacity);
  *global = *local == nullptr ? nullptr : static_cast<jintArray>(env->NewGlobalRef(*local));
  if (*global == nullptr) {
    env->ExceptionClear();
    env->DeleteLocalRef(*local);
    return false;
  }
  jint header[CallLogs::HEADER] = {CallLogs::HEADER, needsNative ? 1 : 0};
  env->SetIntArrayRegion(*local, 0, CallLogs::HEADER, header);
  return true;
}

}  // namespace

bool CallLogs::prepare(JNIEnv* env) {
  LockHolder holder(&ourLock, "CallLogs(prepare)");
  if (ourOwners != nullptr) {
    return true;
  }
  jclass logClass = env->FindClass(CALL_LOG_CLASS);
  if (logClass == nullptr) {
    env->ExceptionClear();
    return false;
  }
  // Asking for a static field initializes the class.
  jfieldID owners = env->GetStaticFieldID(logClass, "OWNERS", "[Ljava/lang/Thread;");
  jfieldID logs = owners == nullptr ? nullptr : env->GetStaticFieldID(logClass, "LOGS", "[[I");
  if (logs == nullptr || env->ExceptionCheck()) {
    env->ExceptionClear();
    env->DeleteLocalRef(logClass);
    return false;
  }
  jobject ownerArray = env->GetStaticObjectField(logClass, owners);
  jobject logArray = env->GetStaticObjectField(logClass, logs);
  if (ownerArray != nullptr && logArray != nullptr && env->GetArrayLength(static_cast<jarray>(ownerArray)) == SLOTS) {
    ourLogs = static_cast<jobjectArray>(env->NewGlobalRef(logArray));
    ourOwners = static_cast<jobjectArray>(env->NewGlobalRef(ownerArray));
  }
  env->DeleteLocalRef(ownerArray);
  env->DeleteLocalRef(logArray);
  env->DeleteLocalRef(logClass);
  return ourOwners != nullptr && ourLogs != nullptr;
}

void CallLogs::callNotLogged(JNIEnv* env, jint slot, jint event) {
  ThreadInfo* info = getCurrentThreadInfo();
  // A virtual thread has no ThreadInfo of its own, and the agent's threads record nothing.
  if (info != nullptr && !info->myIsAgentThread && info->myCallLog == nullptr && info->myCallLogSlot == -1 &&
      slot >= 0 && slot < SLOTS && (ourStatus & CPU_COUNTS_BIT) != 0 && !ourVMDeathCalled) {
    claim(env, info, slot);
  }
  if (event >= 0) {
    methodEntry(env, event);
  } else {
    methodExit(env, ~event);
  }
}

void CallLogs::claim(JNIEnv* env, ThreadInfo* info, jint slot) {
  LockHolder holder(&ourLock, "CallLogs(claim)");
  if (ourOwners == nullptr) {
    return;
  }
  PendingExceptionKeeper keeper(env);
  jobject owner = env->GetObjectArrayElement(ourOwners, slot);
  jthread thread = nullptr;
  if (owner != nullptr || ourJVMTI->GetCurrentThread(&thread) != JVMTI_ERROR_NONE || thread == nullptr) {
    env->DeleteLocalRef(owner);
    info->myCallLogSlot = DENIED;  // the place is taken: this thread's probes keep calling in
    return;
  }
  bool needsNative = info->myCurrentFrameIndex == -1;
  jintArray log = nullptr;
  jintArray global = nullptr;
  if (!newLog(env, CAPACITY, needsNative, &log, &global)) {
    env->DeleteLocalRef(thread);  // short of memory: the thread's probes keep calling in
    return;
  }
  // The log before the owner: a probe that finds itself the owner reads the log next.
  env->SetObjectArrayElement(ourLogs, slot, log);
  env->SetObjectArrayElement(ourOwners, slot, thread);
  info->myCallLog = global;
  info->myCallLogSlot = slot;
  info->myCallLogRead = HEADER;
  info->myCallLogFirstIsEntered = false;
  info->myCallLogNeedsNative = needsNative;
  env->DeleteLocalRef(log);
  env->DeleteLocalRef(thread);
}

void CallLogs::catchUp(JNIEnv* env, ThreadInfo* info, bool isCurrentThread) {
  LockHolder holder(&ourLock, "CallLogs(catchUp)");
  if (info->myCallLog == nullptr) {
    return;
  }
  PendingExceptionKeeper keeper(env);
  jintArray log = info->myCallLog;
  jint written = HEADER;
  env->GetIntArrayRegion(log, 0, 1, &written);
  jint from = info->myCallLogRead;
  jint length = env->GetArrayLength(log);
  if (written > length) {
    written = length;
  }
  if (written > from) {
    jint count = written - from;
    env->GetIntArrayRegion(log, from, count, ourEvents);
    // Calls logged after counting stopped count for nothing.
    bool counting = (ourStatus & CPU_COUNTS_BIT) != 0;
    jint first = 0;
    if (info->myCallLogFirstIsEntered) {
      // The entry read last time may have become a whole call since: only its end is new.
      if (counting && (ourEvents[0] & LEAF) != 0) {
        replayExit(info, ourEvents[0] & ~LEAF);
      }
      first = 1;
    }
    if (counting) {
      for (jint i = first; i < count; i++) {
        replayEvent(info, ourEvents[i]);
      }
    }
    // The last event, an entry while its thread writes on, may still turn into a whole call;
    // it is read again next time.
    jint last = ourEvents[count - 1];
    bool reread = !isCurrentThread && last >= 0 && (last & LEAF) == 0;
    info->myCallLogRead = reread ? written - 1 : written;
    info->myCallLogFirstIsEntered = reread;
  }
  // Only the thread itself may rewind or replace its log: it is not writing while it is here.
  if (isCurrentThread && written == length && length - HEADER < MAX_CAPACITY &&
      grow(env, info, (length - HEADER) * 2)) {
    return;
  }
  if (isCurrentThread && info->myCallLogRead != HEADER) {
    jint start = HEADER;
    env->SetIntArrayRegion(log, 0, 1, &start);
    info->myCallLogRead = HEADER;
    info->myCallLogFirstIsEntered = false;
  }
}

bool CallLogs::grow(JNIEnv* env, ThreadInfo* info, jint capacity) {
  // Everything in the old log is read; the new one starts empty, with the same request word.
  jintArray bigger = nullptr;
  jintArray global = nullptr;
  if (!newLog(env, capacity, info->myCallLogNeedsNative, &bigger, &global)) {
    return false;  // the log it has serves on
  }
  env->SetObjectArrayElement(ourLogs, info->myCallLogSlot, bigger);
  env->DeleteGlobalRef(info->myCallLog);
  env->DeleteLocalRef(bigger);
  info->myCallLog = global;
  info->myCallLogRead = HEADER;
  info->myCallLogFirstIsEntered = false;
  return true;
}

void CallLogs::publish(JNIEnv* env, ThreadInfo* info) {
  if (info->myCallLog == nullptr) {
    return;  // most threads, at every gate closure
  }
  LockHolder holder(&ourLock, "CallLogs(publish)");
  bool needsNative = info->myCurrentFrameIndex == -1;
  if (info->myCallLog == nullptr || needsNative == info->myCallLogNeedsNative) {
    return;
  }
  PendingExceptionKeeper keeper(env);
  jint word = needsNative ? 1 : 0;
  env->SetIntArrayRegion(info->myCallLog, 1, 1, &word);
  info->myCallLogNeedsNative = needsNative;
}

void CallLogs::catchUpAll() {
  JNIEnv* env = currentEnv();
  if (env == nullptr) {
    return;
  }
  forEachLiveThread([&](ThreadInfo* info) {
    if (info->myCallLog != nullptr) {
      catchUp(env, info, false);
    }
  });
}

void CallLogs::publishAll() {
  JNIEnv* env = currentEnv();
  if (env == nullptr) {
    return;
  }
  forEachLiveThread([&](ThreadInfo* info) { publish(env, info); });
}

void CallLogs::release(ThreadInfo* info) {
  JNIEnv* env = info->myCallLog == nullptr ? nullptr : currentEnv();
  if (env == nullptr) {
    return;
  }
  catchUp(env, info, false);
  PendingExceptionKeeper keeper(env);
  // The owner first: the thread object must not stay reachable from the table.
  env->SetObjectArrayElement(ourOwners, info->myCallLogSlot, nullptr);
  env->SetObjectArrayElement(ourLogs, info->myCallLogSlot, nullptr);
  env->DeleteGlobalRef(info->myCallLog);
  info->myCallLog = nullptr;
  info->myCallLogSlot = -1;
}

void CallLogs::releaseAll() {
  forEachLiveThread([&](ThreadInfo* info) {
    release(info);
    // A thread denied a place may find one free at the next start.
    info->myCallLogSlot = -1;
  });
}

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpCallLogEvent0(JNIEnv* env, jclass, jint slot,
                                                                                    jint event) {
  CallLogs::callNotLogged(env, slot, event);
}
