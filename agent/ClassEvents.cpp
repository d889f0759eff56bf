#include "agent/ClassEvents.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "engines/AllocationEntry.h"
#include "engines/KFrameStorage.h"
#include "engines/ObjectEnumerator.h"
#include "engines/ThreadInfo.h"
#include "instrument/J2EEHelper.h"

void JNICALL classPrepare(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jclass klass) {
  class_alloc_handler(jvmti, env, thread, klass);
  jboolean isInterface = JNI_FALSE;
  check_JVMTI_error(ourJVMTI->IsInterface(klass, &isInterface));
  // An interface has no bodies for the J2EE probes to run in, so it is never marked.
  if (isInterface) {
    return;
  }
  if (J2EEHelper::isClassImplementsSQLInterfaces(env, klass) && ourJVMTI6 != nullptr) {
    check_JVMTI_error(ourJVMTI6->SetTag(klass, 1));
  }
}

void JNICALL objectFree(jvmtiEnv*, jlong tag) {
  // Objects that were never recorded but got a generation mark carry 0 in the low half.
  jint pureTag = getAllocatorRowOfTag(tag);
  if (tag != 0 && pureTag > 0) {
    ourObjectEnumerator->return_tag_to_pool(pureTag);
  }
}

void trimUnwoundJ2EECalls(JNIEnv* env, ThreadInfo* info) {
  KVector<J2EERecord*>& records = info->myJ2EERecordsStack;
  KVector<jlong>& times = info->myJ2EETimesStack;
  KASSERT_TEXT(records.size() == times.size(), "recordsStack->size() == timesStack->size()");
  if (records.isEmpty()) {
    return;
  }
  jint currentFrameIndex;
  if ((ourStatus & CPU_COUNTS_BIT) != 0) {
    // Tracing keeps one filtered bit per open frame; the walk refills them for the stack as
    // it now is.
    currentFrameIndex =
        ourFrameStorage.fillCurrentFrameJVMTI(env, !canInstrumentNativeMethods(), &info->myFilteredCallsStack);
  } else {
    currentFrameIndex = ourFrameStorage.fillCurrentFrameJVMTI(env, false, nullptr);
  }
  KASSERT(currentFrameIndex != -1);

  while (!records.isEmpty()) {
    J2EERecord* record = records.pop();
    bool onStack = false;
    for (jint frame = currentFrameIndex; frame != 0; frame = ourFrameStorage.getParent(frame)) {
      if (frame == record->myFrame) {
        onStack = true;
        break;
      }
    }
    if (onStack) {
      records.push(record);
      break;
    }
    times.pop();
  }
}

void JNICALL exception_catch(jvmtiEnv*, JNIEnv* env, jthread, jmethodID, jlocation, jobject) {
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr) {
    return;
  }
  LockHolder holder(&ourLock, "JVMTI_Agent(702)");
  if ((ourStatus & CPU_J2EE_BIT) != 0) {
    trimUnwoundJ2EECalls(env, info);
  }
  // The exception telemetry engine is told of the catch here once it is part of the library.
}
