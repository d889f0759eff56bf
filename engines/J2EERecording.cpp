#include "engines/J2EERecording.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "db/DB.h"
#include "engines/J2EECalls.h"
#include "engines/J2EEIndex.h"
#include "engines/KFrameStorage.h"
#include "engines/ThreadInfo.h"
#include "instrument/J2EEHelper.h"

void JNICALL markJ2EEClass(jvmtiEnv*, JNIEnv* env, jthread, jclass klass) {
  // Classes are still prepared while the JVM dies (java -version ends that way), when the JVM
  // answers none of the questions below.
  jvmtiPhase phase = currentPhase();
  if (phase != JVMTI_PHASE_LIVE && phase != JVMTI_PHASE_START) {
    return;
  }
  // The phase may still change under the questions below, so their errors end the check
  // rather than the JVM.
  jboolean isInterface = JNI_FALSE;
  // An interface has no bodies for the J2EE probes to run in, so it is never marked.
  if (ourJVMTI->IsInterface(klass, &isInterface) != JVMTI_ERROR_NONE || isInterface) {
    return;
  }
  if (J2EEHelper::isClassImplementsSQLInterfaces(env, klass) && ourJVMTI6 != nullptr) {
    ourJVMTI6->SetTag(klass, 1);
  }
}

void trimUnwoundJ2EECalls(JNIEnv* env, ThreadInfo* info) {
  KVector<J2EERecord*>& records = info->myJ2EERecordsStack;
  KVector<jlong>& times = info->myJ2EETimesStack;
  KASSERT_TEXT(records.size() == times.size(), "recordsStack->size() == timesStack->size()");
  if (records.isEmpty()) {
    return;
  }
  // At the catch the stack is whole again, down to the catching method: tracing's filtered bits
  // are refilled for the stack as it now is.
  jint currentFrameIndex = currentJ2EEFrame(env, &info->myFilteredCallsStack);
  KASSERT(currentFrameIndex != -1);
  dropUnwoundJ2EECalls(info, currentFrameIndex);
}

void JNICALL exception_catch(jvmtiEnv*, JNIEnv* env, jthread, jmethodID, jlocation, jobject) {
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr) {
    return;
  }
  LockHolder holder(&ourLock, "J2EERecording(66)");
  if ((ourStatus & CPU_J2EE_BIT) != 0) {
    trimUnwoundJ2EECalls(env, info);
  }
}

namespace {

void addCapabilities(jvmtiCapabilities* capabilities) {
  capabilities->can_tag_objects = 1;
  if (exceptionEventsWanted()) {
    capabilities->can_generate_exception_events = 1;
  }
}

void setEventHandlers(jvmtiEventCallbacks* callbacks) {
  callbacks->ClassPrepare = markJ2EEClass;
  callbacks->ExceptionCatch = exception_catch;
}

const jvmtiEvent EVENTS_AT_LOAD[] = {JVMTI_EVENT_CLASS_PREPARE, JVMTI_EVENT_EXCEPTION_CATCH};

void foldThreads(KSet<jint>* folded) { ourDB->myJ2EEIndex->mergeJ2EEIndex(folded); }

const JNINativeMethod CALLBACK_NATIVES[] = {
    nativeRow("kjpSQLEntry1", "(Ljava/lang/Object;S)V", Java_com_kestrix_runtime_Callback_kjpSQLEntry1),
    nativeRow("kjpSQLEntry2", "(Ljava/lang/Object;S)V", Java_com_kestrix_runtime_Callback_kjpSQLEntry2),
    nativeRow("kjpSQLEntry3", "(Ljava/lang/Object;S)V", Java_com_kestrix_runtime_Callback_kjpSQLEntry3),
    nativeRow("kjpSQLExit1", "(Ljava/lang/Object;Ljava/lang/Object;S)V",
              Java_com_kestrix_runtime_Callback_kjpSQLExit1),
    nativeRow("kjpSQLExit2", "(Ljava/lang/Object;S)V", Java_com_kestrix_runtime_Callback_kjpSQLExit2),
    nativeRow("kjpSQLExit3", "(Ljava/lang/Object;S)V", Java_com_kestrix_runtime_Callback_kjpSQLExit3),
    nativeRow("kjpServletEntry", "(Ljava/lang/Object;S)V", Java_com_kestrix_runtime_Callback_kjpServletEntry),
    nativeRow("kjpServletExit", "(Ljava/lang/Object;S)V", Java_com_kestrix_runtime_Callback_kjpServletExit),
    nativeRow("kjpIsJ2EEClass", "(Ljava/lang/Object;)Z", Java_com_kestrix_runtime_Callback_kjpIsJ2EEClass),
};

}  // namespace

const Engine ourJ2EEEngine = {
    "j2ee",
    addCapabilities,
    setEventHandlers,
    eventList(EVENTS_AT_LOAD),
    nullptr,
    nullptr,
    NativeList{nullptr, 0},
    nativeList(CALLBACK_NATIVES),
    nullptr,
    foldThreads,
    nullptr,
};
