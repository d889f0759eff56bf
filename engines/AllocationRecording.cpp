#include "engines/AllocationRecording.h"

#include <string.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/Options.h"
#include "agent/StartReport.h"
#include "db/DB.h"
#include "engines/Generations.h"
#include "engines/ObjectEnumerator.h"

namespace AllocationRecording {

jint start(JNIEnv* env, const AllocationRecordingSettings& settings) {
  LockHolder holder(&ourLock, "AllocationRecording(16)");
  if ((ourStatus & ALLOCATION_RECORDING_BIT) != 0) {
    return ERRORCODE_ALREADY_STARTED;
  }
  ourAllocationRecordingSettings = settings;
  ourStatus |= ALLOCATION_RECORDING_BIT;
  redefineCallbackAfterStatusChange(env);
  check_JVMTI_alive(ourJVMTI->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_VM_OBJECT_ALLOC, nullptr));
  return ERRORCODE_OK;
}

void stop(JNIEnv* env) {
  LockHolder holder(&ourLock, "AllocationRecording(28)");
  if ((ourStatus & ALLOCATION_RECORDING_BIT) == 0) {
    return;
  }
  ourStatus &= ~ALLOCATION_RECORDING_BIT;
  check_JVMTI_alive(ourJVMTI->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_VM_OBJECT_ALLOC, nullptr));
  redefineCallbackAfterStatusChange(env);
}

}  // namespace AllocationRecording

void JNICALL objectFree(jvmtiEnv*, jlong tag) {
  // Objects that were never recorded but got a generation mark carry 0 in the low half.
  jint pureTag = getAllocatorRowOfTag(tag);
  if (tag != 0 && pureTag > 0) {
    ourObjectEnumerator->return_tag_to_pool(pureTag);
  }
}

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearAllocationData(JNIEnv*, jclass) {
  LockHolder holder(&ourLock, "AllocationRecording(50)");
  ourObjectEnumerator->clearAllocators();
  clearTableAndNote(ALLOCINFO_TABLE_ID);
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEach(JNIEnv*, jclass) {
  return ourAllocationRecordingSettings.myRecordEach;
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEachEnabled(JNIEnv*,
                                                                                                      jclass) {
  return ourAllocationRecordingSettings.myRecordEachEnabled ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimit(JNIEnv*, jclass) {
  return ourAllocationRecordingSettings.mySizeLimit;
}

JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimitEnabled(JNIEnv*,
                                                                                                     jclass) {
  return ourAllocationRecordingSettings.mySizeLimitEnabled ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_markMemory(JNIEnv* env, jclass, jint type, jstring description) {
  Generations::markMemory(env, type, createUTFKStringFromJString(env, description));
}

JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_startAllocationRecording(JNIEnv* env, jclass,
                                                                             jboolean recordEachEnabled,
                                                                             jint recordEach,
                                                                             jboolean sizeLimitEnabled,
                                                                             jint sizeLimit) {
  AllocationRecordingSettings settings = {recordEachEnabled != JNI_FALSE, recordEach, sizeLimitEnabled != JNI_FALSE,
                                          sizeLimit};
  return AllocationRecording::start(env, settings);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_stopAllocationRecording(JNIEnv* env, jclass) {
  AllocationRecording::stop(env);
}

}  // extern "C"

namespace {

void addCapabilities(jvmtiCapabilities* capabilities) {
  capabilities->can_tag_objects = 1;
  capabilities->can_generate_vm_object_alloc_events = 1;
  capabilities->can_generate_object_free_events = 1;
}

void setEventHandlers(jvmtiEventCallbacks* callbacks) {
  // A class object counts as an allocation at its load and again at its preparation.
  callbacks->ClassLoad = class_alloc_handler;
  callbacks->ClassPrepare = class_alloc_handler;
  callbacks->ObjectFree = objectFree;
  // Switched on only while allocations are recorded.
  callbacks->VMObjectAlloc = vm_object_alloc_handler;
}

const jvmtiEvent EVENTS_AT_LOAD[] = {JVMTI_EVENT_CLASS_LOAD, JVMTI_EVENT_CLASS_PREPARE, JVMTI_EVENT_OBJECT_FREE};

void startFromOptions(JNIEnv* env) {
  if (!ourOptions.myAllocAtStart) {
    return;
  }
  AllocationRecordingSettings settings = {ourOptions.myRecordEachEnabled, ourOptions.myRecordEach,
                                          ourOptions.mySizeLimitEnabled, ourOptions.mySizeLimit};
  jint result = AllocationRecording::start(env, settings);
  reportStartResult(result, "Allocations recording is started", "Cannot start allocations recording");
}

const JNINativeMethod CORE_NATIVES[] = {
    nativeRow("clearAllocationData", "()V", Java_com_kestrix_runtime_Core_clearAllocationData),
    nativeRow("getAllocationRecordingSettingsRecordEach", "()I",
              Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEach),
    nativeRow("getAllocationRecordingSettingsRecordEachEnabled", "()Z",
              Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEachEnabled),
    nativeRow("getAllocationRecordingSettingsSizeLimit", "()I",
              Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimit),
    nativeRow("getAllocationRecordingSettingsSizeLimitEnabled", "()Z",
              Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimitEnabled),
    nativeRow("markMemory", "(ILjava/lang/String;)V", Java_com_kestrix_runtime_Core_markMemory),
    nativeRow("startAllocationRecording", "(ZIZI)I", Java_com_kestrix_runtime_Core_startAllocationRecording),
    nativeRow("stopAllocationRecording", "()V", Java_com_kestrix_runtime_Core_stopAllocationRecording),
};

const JNINativeMethod CALLBACK_NATIVES[] = {
    nativeRow("kjpInit0", "(Ljava/lang/Object;I)I", Java_com_kestrix_runtime_Callback_kjpInit0),
};

}  // namespace

const Engine ourAllocationEngine = {
    "allocations",
    addCapabilities,
    setEventHandlers,
    eventList(EVENTS_AT_LOAD),
    startFromOptions,
    nullptr,
    nativeList(CORE_NATIVES),
    nativeList(CALLBACK_NATIVES),
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};
