#include "engines/J2EECalls.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/Engine.h"
#include "engines/KFrameStorage.h"
#include "engines/ThreadInfo.h"
#include "engines/WallTimeCorrector.h"

namespace {

// The string pool index of a Java string; "" for null. Caller holds ourLock.
jint internJString(JNIEnv* env, jstring text) {
  if (text == nullptr) {
    return ourDB->myStrPool->getDBIndex("", true);
  }
  const char* utf = env->GetStringUTFChars(text, nullptr);
  if (utf == nullptr) {
    env->ExceptionClear();
    return ourDB->myStrPool->getDBIndex("", true);
  }
  jint index = ourDB->myStrPool->getDBIndex(utf, true);
  env->ReleaseStringUTFChars(text, utf);
  return index;
}

// The text tagged on a statement or dispatcher when it was made; "" when it has none.
jint taggedText(jobject object) {
  jlong tag = 0;
  if (object != nullptr && ourJVMTI3 != nullptr && ourJVMTI3->GetTag(object, &tag) == JVMTI_ERROR_NONE && tag != 0) {
    return static_cast<jint>(tag);
  }
  return ourDB->myStrPool->getDBIndex("", true);
}

// Wall-timed methods charge their callers only when the tree is corrected; the J2EE time is read
// from the tree, so it is corrected first.
void correctWallTimes(ThreadInfo* info) {
  WallTimeCorrector corrector;
  corrector.scheduleForCorrection(info);
  corrector.correctWallTimes();
}

bool isRecording() { return (ourStatus & CPU_J2EE_BIT) != 0; }

// The probe's method type, or 0 when the object it was called on (asked about by
// kjpIsJ2EEClass just before, on this thread) implements no interface with methods of that
// type: InitialContext.close() has the name and descriptor of Connection.close().
jshort receiverKind(jshort kind) {
  ThreadInfo* info = getCurrentThreadInfo();
  return kind == 0 || info == nullptr || (info->myJ2EEReceiverTypes & (1 << kind)) != 0 ? kind : 0;
}

// Entry with a text known before the lock: a string argument, or the text tagged on the object.
void entryWithString(JNIEnv* env, jstring text, jshort kind) {
  if (kind == 0 || !isRecording()) {
    return;
  }
  J2EEStack stack;
  if (!takeJ2EEStack(stack)) {
    return;
  }
  LockHolder holder(&ourLock, "J2EECalls(50)");
  if (isRecording()) {
    kjpJ2EEEntryImpl(env, internJString(env, text), kind, &stack);
  }
}

void exitCall(JNIEnv* env, jshort kind) {
  if (kind == 0 || !isRecording()) {
    return;
  }
  LockHolder holder(&ourLock, "J2EECalls(60)");
  if (isRecording()) {
    kjpJ2EEExitImpl(env);
  }
}

}  // namespace

bool takeJ2EEStack(J2EEStack& stack) {
  // While the JVM shuts down, daemon threads still run into probes and the walk is refused:
  // the call is then not recorded, the application goes on.
  if (ourJVMTI->GetStackTrace(nullptr, 0, KFrameStorage::MAX_STACK_DEPTH, stack.myFrames, &stack.myCount) !=
      JVMTI_ERROR_NONE) {
    stack.myCount = 0;
    return false;
  }
  return true;
}

jint currentJ2EEFrame(JNIEnv* env, KVector<bool>* filteredCalls, const J2EEStack* stack) {
  bool traced = (ourStatus & CPU_COUNTS_BIT) != 0;
  bool skipNative = traced && !canInstrumentNativeMethods();
  // The probes run beside the tracing probes of the same method, not inside its traced call, so
  // the thread's own bit stack must not be refilled from here: a scratch stack gives the folding.
  static KVector<bool>& scratch = *new KVector<bool>(64);
  KVector<bool>* bits = !traced ? nullptr : filteredCalls != nullptr ? filteredCalls : &scratch;
  if (stack != nullptr) {
    return ourFrameStorage.fillFrameFromStack(env, stack->myFrames, stack->myCount, skipNative, bits);
  }
  return ourFrameStorage.fillCurrentFrameJVMTI(env, skipNative, bits);
}

void dropUnwoundJ2EECalls(ThreadInfo* info, jint currentFrame) {
  KVector<J2EERecord*>& records = info->myJ2EERecordsStack;
  KVector<jlong>& times = info->myJ2EETimesStack;
  while (!records.isEmpty() && !times.isEmpty()) {
    jint open = records.get(records.size() - 1)->myFrame;
    for (jint frame = currentFrame; frame > 0; frame = ourFrameStorage.getParent(frame)) {
      if (frame == open) {
        return;
      }
    }
    records.pop();
    times.pop();
  }
}

void kjpJ2EEEntryImpl(JNIEnv* env, int string, int kind, const J2EEStack* stack) {
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr || info->myIsAgentThread) {
    return;
  }
  jint frame = currentJ2EEFrame(env, nullptr, stack);
  if (frame == -1) {
    return;
  }
  if (!exceptionEventsWanted()) {
    // Without catch events, calls whose exits an exception skipped are still open here; their
    // frames are off the path of this one.
    dropUnwoundJ2EECalls(info, frame);
  }
  J2EERecord* record = info->getJ2EERecord(string, kind, frame);
  KASSERT(record);
  record->myCount++;
  record->myModificationStamp = ourDB->myModificationStamp;
  correctWallTimes(info);
  info->myJ2EETimesStack.push(info->getCPUProfilingRecord(frame, true)->time);
  info->myJ2EERecordsStack.push(record);
}

void kjpJ2EEExitImpl(JNIEnv* env) {
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr || info->myJ2EERecordsStack.isEmpty()) {
    return;
  }
  if (!exceptionEventsWanted()) {
    // Calls made inside this one whose exits an exception skipped lie above its own record,
    // which no catch trimmed: they are off the path of the method that returns now.
    jint frame = currentJ2EEFrame(env, nullptr);
    if (frame != -1) {
      dropUnwoundJ2EECalls(info, frame);
    }
    if (info->myJ2EERecordsStack.isEmpty()) {
      return;
    }
  }
  J2EERecord* record = info->myJ2EERecordsStack.pop();
  KASSERT(record);
  if (info->myJ2EETimesStack.isEmpty()) {
    return;
  }
  correctWallTimes(info);
  // The call closes in the activation it opened in, so its path is the record's own: no walk.
  jlong time = info->getCPUProfilingRecord(record->myFrame, true)->time;
  jlong start = info->myJ2EETimesStack.pop();
  if (time > start) {
    record->myTimeNs += time - start;
  }
  record->myModificationStamp = ourDB->myModificationStamp;
}

jstring getRequestURI(JNIEnv* env, jobject request) {
  if (request == nullptr) {
    return nullptr;
  }
  jclass klass = env->GetObjectClass(request);
  jmethodID method = env->GetMethodID(klass, "getRequestURI", "()Ljava/lang/String;");
  env->DeleteLocalRef(klass);
  if (method == nullptr) {
    env->ExceptionClear();
    return nullptr;
  }
  jstring uri = static_cast<jstring>(env->CallObjectMethod(request, method));
  if (env->ExceptionCheck()) {
    env->ExceptionClear();
    return nullptr;
  }
  return uri;
}

extern "C" {

JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Callback_kjpIsJ2EEClass(JNIEnv* env, jclass, jobject object) {
  jlong tag = 0;
  if (object != nullptr && ourJVMTI6 != nullptr && !ourVMDeathCalled) {
    jclass klass = env->GetObjectClass(object);
    if (ourJVMTI6->GetTag(klass, &tag) != JVMTI_ERROR_NONE) {
      tag = 0;
    }
    env->DeleteLocalRef(klass);
  }
  ThreadInfo* info = getCurrentThreadInfo();
  if (info != nullptr) {
    info->myJ2EEReceiverTypes = static_cast<jint>(tag);
  }
  return tag != 0 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpServletEntry(JNIEnv* env, jclass, jobject request,
                                                                        jshort kind) {
  kind = receiverKind(kind);
  if (kind == 0 || !isRecording()) {
    return;
  }
  jstring uri = getRequestURI(env, request);
  entryWithString(env, uri, kind);
  if (uri != nullptr) {
    env->DeleteLocalRef(uri);
  }
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpServletExit(JNIEnv* env, jclass, jobject, jshort kind) {
  kind = receiverKind(kind);
  exitCall(env, kind);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLEntry1(JNIEnv* env, jclass, jobject text,
                                                                     jshort kind) {
  kind = receiverKind(kind);
  entryWithString(env, static_cast<jstring>(text), kind);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLEntry2(JNIEnv* env, jclass, jobject statement,
                                                                     jshort kind) {
  kind = receiverKind(kind);
  if (kind == 0 || !isRecording()) {
    return;
  }
  J2EEStack stack;
  if (!takeJ2EEStack(stack)) {
    return;
  }
  LockHolder holder(&ourLock, "J2EECalls(150)");
  if (isRecording()) {
    kjpJ2EEEntryImpl(env, taggedText(statement), kind, &stack);
  }
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLEntry3(JNIEnv* env, jclass, jobject text,
                                                                     jshort kind) {
  kind = receiverKind(kind);
  entryWithString(env, static_cast<jstring>(text), kind);
}

// The statement or dispatcher that prepareStatement, prepareCall or getRequestDispatcher made
// keeps its text in a tag, for the calls that run it later. It is tagged whether or not J2EE
// recording runs: statements are often prepared once, before anyone starts profiling.
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLExit1(JNIEnv* env, jclass, jobject statement,
                                                                    jobject text, jshort kind) {
  kind = receiverKind(kind);
  if (kind == 0) {
    return;
  }
  LockHolder holder(&ourLock, "J2EECalls(170)");
  if (statement != nullptr && text != nullptr && ourJVMTI3 != nullptr && !ourVMDeathCalled) {
    ourJVMTI3->SetTag(statement, internJString(env, static_cast<jstring>(text)));
  }
  if (isRecording()) {
    kjpJ2EEExitImpl(env);
  }
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLExit2(JNIEnv* env, jclass, jobject, jshort kind) {
  kind = receiverKind(kind);
  exitCall(env, kind);
}

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpSQLExit3(JNIEnv* env, jclass, jobject, jshort kind) {
  kind = receiverKind(kind);
  exitCall(env, kind);
}

}  // extern "C"
