#include "engines/J2EERecording.h"

#include <string.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KHelpers.h"
#include "agent/KLock.h"
#include "agent/KMap.h"
#include "db/DB.h"
#include "db/records/MethodRecord.h"
#include "engines/Filter.h"
#include "engines/J2EECalls.h"
#include "engines/J2EEIndex.h"
#include "engines/KFrameStorage.h"
#include "engines/ThreadInfo.h"
#include "instrument/J2EEHelper.h"

namespace {

// The indices of the methods with J2EE probes of each class not yet prepared, by the class's
// internal name (owned). Guarded by ourLock.
KMap<const char*, KVector<jint>*>& probedMethods() {
  static KMap<const char*, KVector<jint>*>& map = *new KMap<const char*, KVector<jint>*>(64);
  return map;
}

// Forgets the class's probed methods, and takes MF_J2EE back from them unless it is a J2EE class.
void settleProbedMethods(jclass klass, bool isJ2EEClass) {
  LockHolder holder(&ourLock, "J2EERecording(30)");
  if (probedMethods().isEmpty()) {
    return;
  }
  char* signature = nullptr;
  if (ourJVMTI->GetClassSignature(klass, &signature, nullptr) != JVMTI_ERROR_NONE || signature == nullptr) {
    return;
  }
  size_t length = strlen(signature);
  if (length > 2 && signature[0] == 'L' && signature[length - 1] == ';') {
    signature[length - 1] = '\0';
    const char* name = signature + 1;
    KVector<jint>* methods = nullptr;
    if (probedMethods().get(name, &methods)) {
      const char* key = probedMethods().getExisting(name);
      probedMethods().remove(name);
      for (jint i = 0; i < methods->size() && !isJ2EEClass; i++) {
        MethodRecord* record = ourDB->myMethodTable->getRecord(methods->get(i), false);
        if (record != nullptr && (record->myFlags & MF_J2EE) != 0) {
          record->myFlags &= ~MF_J2EE;
          Filter::applyFilters(record);
          record->myModificationStamp = ourDB->myModificationStamp;
        }
      }
      delete methods;
      delete[] key;
    }
  }
  deallocate(signature);
}

}  // namespace

void noteJ2EEProbedMethod(const char* className, jint methodIndex) {
  KVector<jint>* methods = nullptr;
  if (!probedMethods().get(className, &methods)) {
    methods = new KVector<jint>(4);
    probedMethods().put(k_strdup(className), methods);
  }
  methods->push(methodIndex);
}

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
  // The tag is the class's J2EE method types, which the probes' natives check their own against.
  jint types = J2EEHelper::methodTypesOf(env, klass);
  bool isJ2EEClass = types != 0;
  if (isJ2EEClass && ourJVMTI6 != nullptr) {
    ourJVMTI6->SetTag(klass, types);
  }
  settleProbedMethods(klass, isJ2EEClass);
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
    nullptr,
    foldThreads,
    nullptr,
};
