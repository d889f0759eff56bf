#include "engines/AllocationEntry.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "agent/Options.h"
#include "db/DB.h"
#include "engines/KFrameStorage.h"
#include "engines/KMethod.h"
#include "engines/ObjectEnumerator.h"
#include "engines/ThreadInfo.h"

AllocationRecordingSettings ourAllocationRecordingSettings = {false, 1, false, 1048576};
jint ourAllocationCounter = 0;

namespace {

const char* const STARTUP_ALLOCATIONS_METHOD = "<Objects allocated during JVM startup>";

bool isPickedByCount(const AllocationRecordingSettings& settings) {
  return settings.myRecordEachEnabled && ourAllocationCounter % settings.myRecordEach == 0;
}

// Before the live phase there is no stack worth walking: everything made then is booked under
// one pseudo-method below the root.
jint getStartupAllocationsFrame() {
  if (ourFrameStorage.ourStartupAllocationsFrame == -1) {
    jint methodIndex = KMethod::getByName(STARTUP_ALLOCATIONS_METHOD, "()V", "");
    ourFrameStorage.ourStartupAllocationsFrame = ourFrameStorage.getChild(0, methodIndex);
  }
  return ourFrameStorage.ourStartupAllocationsFrame;
}

// Recording asked for by the options starts at VM Init, once the callback class can be switched
// and VMObjectAlloc enabled; what the start phase before it allocates reaches us through the
// class events only, and is recorded by the options' rules.
AllocationRecordingSettings getStartPhaseSettings() {
  return AllocationRecordingSettings{ourOptions.myRecordEachEnabled, ourOptions.myRecordEach,
                                     ourOptions.mySizeLimitEnabled, ourOptions.mySizeLimit};
}

}  // namespace

jint kjpInitImpl(JNIEnv* env, jobject object, jint allocatorIndex) {
  bool recording = (ourStatus & ALLOCATION_RECORDING_BIT) != 0;
  if (!recording && !ourOptions.myAllocAtStart) {
    return allocatorIndex;
  }
  jvmtiPhase phase = currentPhase();
  if (phase != JVMTI_PHASE_LIVE && phase != JVMTI_PHASE_START) {
    return allocatorIndex;
  }
  if (!recording && phase != JVMTI_PHASE_START) {
    return allocatorIndex;
  }
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr || info->myIsAgentThread) {
    return allocatorIndex;
  }
  KASSERT_TEXT(env != nullptr, "jni");
  KASSERT_TEXT(object != nullptr, "obj");

  jint tag = 0;
  {
    LockHolder holder(&ourLock, "Instrumentation(180)");
    if (ourVMDeathCalled) {
      return allocatorIndex;
    }
    // Unsigned, so that a counter past 2^31 wraps instead of overflowing.
    ourAllocationCounter = static_cast<jint>(static_cast<unsigned int>(ourAllocationCounter) + 1u);
    AllocationRecordingSettings settings = recording ? ourAllocationRecordingSettings : getStartPhaseSettings();
    bool picked = isPickedByCount(settings);
    // Without a size rule, an object the count doesn't pick needs no size.
    if (!picked && !settings.mySizeLimitEnabled) {
      return allocatorIndex;
    }
    jlong size = 0;
    check_JVMTI_error(ourJVMTI->GetObjectSize(object, &size));
    if (!picked && size < settings.mySizeLimit) {
      return allocatorIndex;
    }

    if (phase == JVMTI_PHASE_LIVE) {
      if (allocatorIndex == -1) {
        allocatorIndex = ourFrameStorage.fillCurrentFrameJVMTI(env, false, nullptr);
        KASSERT(allocatorIndex != -1);
      }
    } else {
      // A probe's frame from the start phase can't be trusted; all of it goes to one node.
      allocatorIndex = getStartupAllocationsFrame();
    }
    if (allocatorIndex == 0) {
      return 0;  // nothing on the stack to book it to
    }

    tag = ourObjectEnumerator->store_allocation_info(info, allocatorIndex);
    AllocInfoRecord* figures = info->getAllocInfo(allocatorIndex);
    figures->myCount++;
    figures->mySize += size;
    figures->myModificationStamp = ourDB->myModificationStamp;
  }
  // Outside ourLock: tagging may wait for the JVM, and nothing else here needs the lock.
  if (tag != 0) {
    check_JVMTI_error(ourJVMTI->SetTag(object, makeAllocationTag(tag, 0)));
  }
  return allocatorIndex;
}

void jni_object_alloc_handler(JNIEnv* env, jobject object) { kjpInitImpl(env, object, -1); }

void JNICALL vm_object_alloc_handler(jvmtiEnv*, JNIEnv* env, jthread, jobject object, jclass, jlong) {
  kjpInitImpl(env, object, -1);
}

void JNICALL class_alloc_handler(jvmtiEnv*, JNIEnv* env, jthread, jclass klass) {
  // Both ClassLoad and ClassPrepare report the class object: a class is one allocation, and a
  // second tag would lose the first row for good, as no ObjectFree would ever give it back.
  if (((ourStatus & ALLOCATION_RECORDING_BIT) != 0 || ourOptions.myAllocAtStart) && ourJVMTI != nullptr) {
    jlong tag = 0;
    if (ourJVMTI->GetTag(klass, &tag) == JVMTI_ERROR_NONE && getAllocatorRowOfTag(tag) > 0) {
      return;
    }
  }
  kjpInitImpl(env, klass, -1);
}

extern "C" JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Callback_kjpInit0(JNIEnv* env, jclass, jobject object,
                                                                            jint allocatorIndex) {
  return kjpInitImpl(env, object, allocatorIndex);
}
