#include "engines/ThreadInfo.h"

#include <string.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KString.h"
#include "db/StringPool.h"
#include "engines/J2EEIndex.h"

ThreadInfo* ourOldestDeadThreads = nullptr;
ThreadInfo* ourVMStartThread = nullptr;

jint ThreadInfo::ourRunningNumber = 0;
IndexPool ThreadInfo::ourIndexForTFIPool(1);

bool isAgentThreadName(const char* name) {
  if (name == nullptr) {
    return false;
  }
  return strcmp(name, "(GC Main Thread)") == 0 || KString::startsWith(name, "KJPAgent-");
}

ThreadInfo::ThreadInfo(const char* name, const char* groupName, jlong threadID)
    : myInLockFreeSection(false),
      myIsAgentThread(false),
      myCurrentFrameIndex(-1),
      myFilteredCallsStack(64),
      myTracedCalls(16),
      myEntryTimesNs(10),
      myThreadID(threadID),
      myThreadTableIndex(0),
      myIndexForTFI(0),
      myRunningNumber(0),
      myJ2EETimesStack(10),
      myJ2EERecordsStack(10),
      myLastCPUTimeNs(0),
      myNeedsWallTimeCorrection(false) {
  init();
  myIsAgentThread = isAgentThreadName(name);
  StringPool* strings = ourDB->myStrPool;
  ThreadRecord* record = getThreadRecord();
  record->myNameStrID = strings->getDBIndex(name == nullptr ? "" : name, true);
  record->myGroupStrID = strings->getDBIndex(groupName == nullptr ? "" : groupName, true);
  record->myIndexForTFI = myIndexForTFI;
  record->myRunningNumber = myRunningNumber;
  record->myThreadID = myThreadID;
  record->myModificationStamp = ourDB->myModificationStamp;
}

void ThreadInfo::init() {
  myCurrentFrameIndex = -1;
  myLastCPUTimeNs = 0;
  myNeedsWallTimeCorrection = false;
  myThreadTableIndex = ourDB->myThreadTable->getIndexPool().nextIndex();
  myIndexForTFI = ourIndexForTFIPool.nextIndex();
  myRunningNumber = ++ourRunningNumber;
}

void ThreadInfo::updateName(const char* name) {
  jint nameIndex = ourDB->myStrPool->getDBIndex(name, true);
  ThreadRecord* record = getThreadRecord();
  // Only the index decides: a name already pooled for another thread still updates this row.
  if (nameIndex != record->myNameStrID) {
    record->myNameStrID = nameIndex;
    record->myModificationStamp = ourDB->myModificationStamp;
    // A thread that takes an agent name is exempted late; one that loses it is profiled.
    myIsAgentThread = isAgentThreadName(name);
  }
}

void ThreadInfo::makeSureThreadHasName(JNIEnv* env, jthread thread) {
  jvmtiThreadInfo info;
  memset(&info, 0, sizeof(info));
  if (ourJVMTI->GetThreadInfo(thread, &info) != JVMTI_ERROR_NONE) {
    return;
  }
  if (info.thread_group != nullptr) {
    env->DeleteLocalRef(info.thread_group);
  }
  if (info.context_class_loader != nullptr) {
    env->DeleteLocalRef(info.context_class_loader);
  }
  if (info.name == nullptr) {
    return;
  }
  updateName(info.name);
  deallocate(info.name);
}

J2EERecord* ThreadInfo::getJ2EERecord(jint stringIndex, jint kind, jint frameIndex) {
  jint row = ourDB->myJ2EEIndex->getIndex(stringIndex, kind, frameIndex, myRunningNumber);
  return ourDB->myJ2EETable->getRecord(row, true);
}

void ThreadInfo::clearCPUAndJ2EEInfo() {
  myLastCPUTimeNs = 0;
  myCurrentFrameIndex = -1;
  myEntryTimesNs.clear();
  myJ2EETimesStack.clear();
  myJ2EERecordsStack.clear();
  myFilteredCallsStack.clear();
  // Before the CPU rows they point at are dropped.
  myTracedCalls.clear();
  myCallees.clear();
  ourDB->myJ2EEIndex->clearThread(myRunningNumber);
  myNeedsWallTimeCorrection = false;
}

// Mirrors the current thread's JVMTI slot; see setCurrentThreadInfo.
__thread ThreadInfo* ourCurrentThreadInfo __attribute__((tls_model("initial-exec"))) = nullptr;

bool ourTracksVirtualThreads = false;

namespace {

// The ThreadInfo of the platform thread itself, which the mirror returns to when a virtual
// thread leaves it.
__thread ThreadInfo* ourPlatformThreadInfo __attribute__((tls_model("initial-exec"))) = nullptr;

// Whether a virtual thread is mounted on this platform thread.
__thread bool ourRunsVirtualThread __attribute__((tls_model("initial-exec"))) = false;

ThreadInfo* threadLocalStorage(jthread thread) {
  void* data = nullptr;
  if (ourJVMTI->GetThreadLocalStorage(thread, &data) != JVMTI_ERROR_NONE) {
    return nullptr;
  }
  return static_cast<ThreadInfo*>(data);
}

// A virtual thread finds its own JVMTI slot, which the agent never fills, while a native
// thread-local answers for its carrier. So the mirror serves only where the agent is told when
// virtual threads come and go.
bool isMirrorUsable() { return !ourHasVirtualThreads || ourTracksVirtualThreads; }

}  // namespace

void setCurrentThreadInfo(ThreadInfo* info) {
  ourPlatformThreadInfo = info;
  ourCurrentThreadInfo = isMirrorUsable() ? info : nullptr;
}

void enterVirtualThread() {
  ourRunsVirtualThread = true;
  ourCurrentThreadInfo = nullptr;
}

void leaveVirtualThread() {
  ourRunsVirtualThread = false;
  ourCurrentThreadInfo = isMirrorUsable() ? ourPlatformThreadInfo : nullptr;
}

ThreadInfo* getThreadInfoJVMTI(jthread thread) {
  if (thread == nullptr && ourVMInitCalled && !ourVMDeathCalled) {
    // The slot of the current thread changes only in its own start and end events, which
    // update the mirror too; a thread whose start went unseen fills it here once.
    ThreadInfo* info = ourCurrentThreadInfo;
    if (info == nullptr && !ourRunsVirtualThread) {
      info = threadLocalStorage(nullptr);
      setCurrentThreadInfo(info);
    }
    return info;
  }
  if (currentPhase() == JVMTI_PHASE_START) {
    return ourVMStartThread;
  }
  return threadLocalStorage(thread);
}
