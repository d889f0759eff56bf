#include "agent/EngineEvents.h"

#include <string.h>

#include "agent/EventGate.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "engines/Engine.h"

// The events engines may handle, with the parameters and arguments of their callbacks.
#define KJP_ENGINE_EVENTS(X)                                                                                   \
  X(ClassLoad, (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jclass klass), (jvmti, env, thread, klass))    \
  X(ClassPrepare, (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jclass klass), (jvmti, env, thread, klass)) \
  X(Exception,                                                                                                 \
    (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jmethodID method, jlocation location, jobject exception,  \
     jmethodID catchMethod, jlocation catchLocation),                                                          \
    (jvmti, env, thread, method, location, exception, catchMethod, catchLocation))                             \
  X(ExceptionCatch,                                                                                            \
    (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jmethodID method, jlocation location, jobject exception), \
    (jvmti, env, thread, method, location, exception))                                                         \
  X(ObjectFree, (jvmtiEnv * jvmti, jlong tag), (jvmti, tag))                                                   \
  X(VMObjectAlloc,                                                                                             \
    (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jobject object, jclass klass, jlong size),                \
    (jvmti, env, thread, object, klass, size))                                                                 \
  X(MonitorContendedEnter, (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jobject object),                   \
    (jvmti, env, thread, object))                                                                              \
  X(MonitorContendedEntered, (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jobject object),                 \
    (jvmti, env, thread, object))                                                                              \
  X(MonitorWait, (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jobject object, jlong timeout),              \
    (jvmti, env, thread, object, timeout))                                                                     \
  X(MonitorWaited, (jvmtiEnv * jvmti, JNIEnv * env, jthread thread, jobject object, jboolean timedOut),        \
    (jvmti, env, thread, object, timedOut))

namespace {

// Each engine's own handlers, filled once at load and read by the dispatchers.
const int MAX_ENGINES = 16;
jvmtiEventCallbacks ourEngineHandlers[MAX_ENGINES];

#define KJP_DISPATCHER(Name, Parameters, Arguments) \
  void JNICALL dispatch##Name Parameters {          \
    EventGate::Passage passage(ourEngineEventGate); \
    if (!passage.open()) {                          \
      return;                                       \
    }                                               \
    for (int i = 0; i < ourEngineCount; i++) {      \
      if (ourEngineHandlers[i].Name != nullptr) {   \
        ourEngineHandlers[i].Name Arguments;        \
      }                                             \
    }                                               \
  }
KJP_ENGINE_EVENTS(KJP_DISPATCHER)
#undef KJP_DISPATCHER

void registerNatives(JNIEnv* env, jclass klass, const NativeList& natives) {
  if (natives.myCount == 0) {
    return;
  }
  jint result = env->RegisterNatives(klass, natives.myMethods, natives.myCount);
  assertJNI(env);
  KASSERT_TEXT(result == 0, "RegisterNatives");
}

}  // namespace

void addEngineCapabilities(jvmtiCapabilities* capabilities) {
  forEachEngine([&](const Engine& engine) {
    if (engine.addCapabilities != nullptr) {
      engine.addCapabilities(capabilities);
    }
  });
}

void setEngineEventHandlers(jvmtiEventCallbacks* callbacks) {
  KASSERT(ourEngineCount <= MAX_ENGINES);
  for (int i = 0; i < ourEngineCount; i++) {
    jvmtiEventCallbacks& mine = ourEngineHandlers[i];
    memset(&mine, 0, sizeof(mine));
    if (ourEngines[i]->setEventHandlers != nullptr) {
      ourEngines[i]->setEventHandlers(&mine);
    }
    // Every handler the engine set must be one the dispatcher knows.
    jvmtiEventCallbacks known;
    memset(&known, 0, sizeof(known));
#define KJP_COPY(Name, Parameters, Arguments) known.Name = mine.Name;
    KJP_ENGINE_EVENTS(KJP_COPY)
#undef KJP_COPY
    KASSERT_TEXT(memcmp(&known, &mine, sizeof(known)) == 0, "an engine handles an event the agent can't dispatch");
#define KJP_CHOOSE(Name, Parameters, Arguments) \
  if (mine.Name != nullptr) {                   \
    callbacks->Name = dispatch##Name;           \
  }
    KJP_ENGINE_EVENTS(KJP_CHOOSE)
#undef KJP_CHOOSE
  }
}

void enableEngineEventsAtLoad(jvmtiEnv* jvmti) {
  forEachEngine([&](const Engine& engine) {
    for (jint i = 0; i < engine.myEventsAtLoad.myCount; i++) {
      jvmtiEvent event = engine.myEventsAtLoad.myEvents[i];
      bool exceptionEvent = event == JVMTI_EVENT_EXCEPTION || event == JVMTI_EVENT_EXCEPTION_CATCH;
      if (!exceptionEvent || exceptionEventsWanted()) {
        check_JVMTI_error(jvmti->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr));
      }
    }
  });
}

void registerEngineCoreNatives(JNIEnv* env, jclass core) {
  forEachEngine([&](const Engine& engine) { registerNatives(env, core, engine.myCoreNatives); });
}

void registerEngineCallbackNatives(JNIEnv* env, jclass callback) {
  forEachEngine([&](const Engine& engine) { registerNatives(env, callback, engine.myCallbackNatives); });
}
