#include "engines/Exceptions.h"

#include <stdint.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/KMap.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/ClassNameTags.h"
#include "engines/KFrameStorage.h"
#include "engines/KMethod.h"
#include "engines/KeyedRows.h"
#include "engines/ThreadInfo.h"

namespace {

struct ExceptionKey {
  jint myThread;
  jint myThrowFrame;
  jint myCatchFrame;  // 0: not caught
  jint myClass;

  ExceptionKey withThread(jint thread) const { return ExceptionKey{thread, myThrowFrame, myCatchFrame, myClass}; }
  void fill(ExceptionRecord* record) const {
    record->myThread = myThread;
    record->myThrowFrame = myThrowFrame;
    record->myCatchFrame = myCatchFrame;
    record->myClassNameStrID = myClass;
  }
};

// A throw waiting for its catch.
struct ExceptionData {
  jint myClass;
  jint myThrowFrame;
  // The walk at the throw reached the outermost frame, so the catching frame is on its path.
  bool myThrowPathIsWhole;
};

// Found by argument-dependent lookup when KMap is instantiated.
inline jint kmap_hashCode(const ExceptionKey& key) {
  uint32_t hash = static_cast<uint32_t>(key.myThread);
  hash = hash * 29u + static_cast<uint32_t>(key.myThrowFrame);
  hash = hash * 29u + static_cast<uint32_t>(key.myCatchFrame);
  hash = hash * 29u + static_cast<uint32_t>(key.myClass);
  return static_cast<jint>(hash);
}
inline bool kmap_equal(const ExceptionKey& a, const ExceptionKey& b) {
  return a.myThread == b.myThread && a.myThrowFrame == b.myThrowFrame && a.myCatchFrame == b.myCatchFrame &&
         a.myClass == b.myClass;
}
inline bool kmap_isNull(const ExceptionKey& key) { return key.myThread == 0; }

}  // namespace

namespace Exceptions {

namespace {

KeyedRows<ExceptionKey, ExceptionRecord> ourExceptionKeys(1024, &DB::myExceptionTable);
KMap<jint, ExceptionData> ourPendingExceptions(1024);

jint getExceptionClassNameStrID(JNIEnv* env, jobject exception) {
  if (exception == nullptr) {
    return ourDB->myStrPool->getDBIndex("<unknown>", true);
  }
  // Only the class carries the name: the object's own tag is its row.
  return getClassNameStrID(env, ourJVMTI7, exception, false);
}

jlong tagOf(jobject exception) {
  jlong tag = 0;
  if (exception == nullptr || ourJVMTI7 == nullptr || ourJVMTI7->GetTag(exception, &tag) != JVMTI_ERROR_NONE) {
    return 0;
  }
  return tag;
}

void recordExceptionOccurrence(ThreadInfo* info, jint throwFrame, jint catchFrame, jint classStrID,
                               jobject exception) {
  jint counted = static_cast<jint>(tagOf(exception));
  if (counted != 0) {
    // Counted before, so rethrown: it moves from the row of its earlier catch to this one and
    // keeps its first throw path.
    ExceptionRecord* earlier = ourExceptionKeys.record(counted);
    earlier->myCount--;
    earlier->myModificationStamp = ourDB->myModificationStamp;
    throwFrame = earlier->myThrowFrame;
  }
  jint row = ourExceptionKeys.findOrCreate(ExceptionKey{info->myRunningNumber, throwFrame, catchFrame, classStrID});
  if (exception != nullptr && ourJVMTI7 != nullptr) {
    check_JVMTI_error(ourJVMTI7->SetTag(exception, row));
  }
  ExceptionRecord* record = ourExceptionKeys.record(row);
  record->myCount++;
  record->myModificationStamp = ourDB->myModificationStamp;
}

void JNICALL exceptionThrown(jvmtiEnv*, JNIEnv* env, jthread, jmethodID, jlocation, jobject exception,
                             jmethodID catchMethod, jlocation) {
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr) {
    return;
  }
  LockHolder holder(&ourLock, "Exceptions(101)");
  handleException(env, info, exception, catchMethod != nullptr);
}

void JNICALL exceptionCaught(jvmtiEnv*, JNIEnv* env, jthread, jmethodID method, jlocation, jobject exception) {
  ThreadInfo* info = getThreadInfoJVMTI(nullptr);
  if (info == nullptr) {
    return;
  }
  LockHolder holder(&ourLock, "Exceptions(110)");
  handleExceptionCatch(env, info, exception, method);
}

// The catching frame as the throw's path shows it, 0 when the path can't tell. Between throw
// and catch the stack only unwound, so the catching frame was on the stack that the throw
// walked; a walk makes a node of every frame whose method it keeps, so when the catching
// method has exactly one node on that path, that node is the catching frame, and a walk of the
// stack now would end at the same node. A stack walk costs about a microsecond a frame in
// compiled code, and programs that throw for control flow (compilers, parsers) do it deep.
jint catchFrameOnThrowPath(JNIEnv* env, const ExceptionData& pending, jmethodID catchMethod) {
  if (catchMethod == nullptr || !pending.myThrowPathIsWhole || pending.myThrowFrame == 0) {
    return 0;
  }
  return ourFrameStorage.onlyAncestorOf(pending.myThrowFrame, getMethodByID(env, catchMethod));
}

}  // namespace

void handleException(JNIEnv* env, ThreadInfo* info, jobject exception, bool willBeCaught) {
  if (currentPhase() != JVMTI_PHASE_LIVE) {
    return;
  }
  jint throwFrame = ourFrameStorage.fillCurrentFrameJVMTI(env, false, nullptr);
  jint classStrID = getExceptionClassNameStrID(env, exception);
  if (willBeCaught) {
    ourPendingExceptions.put(info->myRunningNumber,
                             ExceptionData{classStrID, throwFrame, ourFrameStorage.lastWalkWasWhole()});
  } else {
    recordExceptionOccurrence(info, throwFrame, 0, classStrID, exception);
  }
}

void handleExceptionCatch(JNIEnv* env, ThreadInfo* info, jobject exception, jmethodID catchMethod) {
  if (currentPhase() != JVMTI_PHASE_LIVE) {
    return;
  }
  ExceptionData pending{0, 0, false};
  if (!ourPendingExceptions.get(info->myRunningNumber, &pending)) {
    return;
  }
  jint catchFrame = catchFrameOnThrowPath(env, pending, catchMethod);
  if (catchFrame == 0) {
    catchFrame = ourFrameStorage.fillCurrentFrameJVMTI(env, false, nullptr);
  }
  recordExceptionOccurrence(info, pending.myThrowFrame, catchFrame, pending.myClass, exception);
  ourPendingExceptions.remove(info->myRunningNumber);
}

void mergeExceptionUsage(KSet<jint>* threadRunningNumbersToCleanup) {
  ourExceptionKeys.mergeThreads(threadRunningNumbersToCleanup, ourOldestDeadThreads->myRunningNumber,
                                [](ExceptionRecord* target, const ExceptionRecord* source) {
                                  target->myCount += source->myCount;
                                });
}

void cleanupExceptionUsage() {
  ourPendingExceptions.init();
  clearAllTags(ourJVMTI7);
  ourExceptionKeys.clear(EXCEPTION_TABLE_ID);
}

}  // namespace Exceptions

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearExceptions(JNIEnv*, jclass) {
  LockHolder holder(&ourLock, "Exceptions(155)");
  Exceptions::cleanupExceptionUsage();
}

namespace {

void addCapabilities(jvmtiCapabilities* capabilities) {
  if (exceptionEventsWanted()) {
    capabilities->can_generate_exception_events = 1;
  }
  capabilities->can_tag_objects = 1;
}

void setEventHandlers(jvmtiEventCallbacks* callbacks) {
  callbacks->Exception = Exceptions::exceptionThrown;
  callbacks->ExceptionCatch = Exceptions::exceptionCaught;
}

// Tracing switches Exception off when it stops and on again when it starts; the catches stay on.
const jvmtiEvent EVENTS_AT_LOAD[] = {JVMTI_EVENT_EXCEPTION, JVMTI_EVENT_EXCEPTION_CATCH};

const JNINativeMethod CORE_NATIVES[] = {
    nativeRow("clearExceptions", "()V", Java_com_kestrix_runtime_Core_clearExceptions),
};

}  // namespace

const Engine ourExceptionEngine = {
    "exceptions",
    addCapabilities,
    setEventHandlers,
    eventList(EVENTS_AT_LOAD),
    nullptr,
    nullptr,
    nativeList(CORE_NATIVES),
    NativeList{nullptr, 0},
    nullptr,
    nullptr,
    Exceptions::mergeExceptionUsage,
    nullptr,
};
