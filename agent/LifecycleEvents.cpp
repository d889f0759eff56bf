#include "agent/LifecycleEvents.h"

#include <stdio.h>

#include "agent/CPUTime.h"
#include "agent/CoreInitialization.h"
#include "agent/EngineEvents.h"
#include "agent/EventGate.h"
#include "agent/JNIRedirection.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "engines/DeadThreadFolder.h"
#include "engines/Engine.h"
#include "engines/ThreadInfo.h"
#include "snapshot/OOMESnapshotDetector.h"

void JNICALL vmStart(jvmtiEnv* jvmti, JNIEnv* env) {
  ourVMStartCalled = true;
  redirectJNIFunctions();
  // The callback class is on the boot class path from Agent_OnLoad on; resolving it here makes
  // a broken jar fail at start-up, not at the first probe. Each engine registers the natives
  // its probes reach.
  jclass callbackClass = env->FindClass("com/kestrix/runtime/Callback");
  assertJNI(env);
  KASSERT_TEXT(callbackClass != nullptr, "callbackClass");
  registerEngineCallbackNatives(env, callbackClass);
  env->DeleteLocalRef(callbackClass);
}

void JNICALL vmInit(jvmtiEnv* jvmti, JNIEnv* env, jthread thread) {
  // Measurements asked for on the command line start before the Java runtime exists, so they
  // also cover its start-up.
  forEachEngine([&](const Engine& engine) {
    if (engine.startFromOptions != nullptr) {
      engine.startFromOptions(env);
    }
  });
  initializeCore(env);
  forEachEngine([&](const Engine& engine) {
    if (engine.startThreads != nullptr) {
      engine.startThreads(env);
    }
  });
  startOOMESnapshotDetector(env);
  ourVMInitCalled = true;
}

void JNICALL vmDeath(jvmtiEnv* jvmti, JNIEnv* env) {
  if (!ourVMInitCalled) {
    return;  // nothing was started, so there is nothing to save
  }
  jlong status = ourStatus;
  ourVMDeathCalled = true;
  // The engines' handlers still running on other threads finish while the JVM answers them;
  // the exit snapshot then sees their data complete.
  ourEngineEventGate.close(2000);
  captureSnapshotOnExit(env, status);
  stopListening(env);
  // The data dump event was never enabled; switching it off is kept as a harmless no-op.
  check_JVMTI_error(jvmti->SetEventNotificationMode(JVMTI_DISABLE, static_cast<jvmtiEvent>(71), nullptr));
}

namespace {

// The JVM's name of a thread and of its group, released by the destructor.
struct JVMThreadNames {
  jvmtiEnv* myJVMTI;
  char* myName = nullptr;
  char* myGroupName = nullptr;
  bool myValid = false;

  JVMThreadNames(jvmtiEnv* jvmti, JNIEnv* env, jthread thread) : myJVMTI(jvmti) {
    jvmtiThreadInfo info;
    if (jvmti->GetThreadInfo(thread, &info) != JVMTI_ERROR_NONE) {
      return;
    }
    myValid = true;
    myName = info.name;
    if (info.thread_group != nullptr) {
      jvmtiThreadGroupInfo groupInfo;
      if (jvmti->GetThreadGroupInfo(info.thread_group, &groupInfo) == JVMTI_ERROR_NONE) {
        myGroupName = groupInfo.name;
        if (groupInfo.parent != nullptr) {
          env->DeleteLocalRef(groupInfo.parent);
        }
      }
      env->DeleteLocalRef(info.thread_group);
    }
    if (info.context_class_loader != nullptr) {
      env->DeleteLocalRef(info.context_class_loader);
    }
  }

  ~JVMThreadNames() {
    if (myName != nullptr) {
      myJVMTI->Deallocate(reinterpret_cast<unsigned char*>(myName));
    }
    if (myGroupName != nullptr) {
      myJVMTI->Deallocate(reinterpret_cast<unsigned char*>(myGroupName));
    }
  }
};

}  // namespace

// Threads still start and end while the JVM dies (shutdown hooks, the JVM's own helpers);
// thread-local storage then answers "wrong phase", and such a thread records nothing.
static bool isDeadPhase(jvmtiEnv* jvmti) {
  jvmtiPhase phase = JVMTI_PHASE_LIVE;
  return jvmti->GetPhase(&phase) == JVMTI_ERROR_NONE && phase == JVMTI_PHASE_DEAD;
}

void JNICALL threadStart(jvmtiEnv* jvmti, JNIEnv* env, jthread thread) {
  LockHolder holder(&ourLock, "JVMTI_Agent(612)");
  KASSERT(thread != nullptr);
  if (isDeadPhase(jvmti)) {
    return;
  }
  JVMThreadNames names(jvmti, env, thread);
  ThreadInfo* info = new ThreadInfo(names.myValid && names.myName != nullptr ? names.myName : "",
                                    names.myValid ? names.myGroupName : nullptr, getCurrentThreadID());
  jvmtiError error = ourJVMTI->SetThreadLocalStorage(thread, info);
  if (error == JVMTI_ERROR_WRONG_PHASE) {
    return;  // the JVM began to die after the check above; the row stays, unused
  }
  check_JVMTI_error(error);
  setCurrentThreadInfo(info);
  ourAllThreadInfos.add(info);
  forEachEngine([&](const Engine& engine) {
    if (engine.threadStarted != nullptr) {
      engine.threadStarted(info);
    }
  });
}

void JNICALL threadEnd(jvmtiEnv* jvmti, JNIEnv* env, jthread thread) {
  LockHolder holder(&ourLock, "JVMTI_Agent(640)");
  ThreadInfo* info = nullptr;
  if (ourJVMTI->GetThreadLocalStorage(thread, reinterpret_cast<void**>(&info)) != JVMTI_ERROR_NONE) {
    info = nullptr;
  }
  if (info != nullptr) {
    info->makeSureThreadHasName(env, thread);
    jvmtiError error = ourJVMTI->SetThreadLocalStorage(thread, nullptr);
    if (error != JVMTI_ERROR_WRONG_PHASE) {
      check_JVMTI_error(error);
    }
    setCurrentThreadInfo(nullptr);
  }
  DeadThreadFolder::threadEnded(info);
}
