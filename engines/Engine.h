#ifndef KJP_ENGINE_H
#define KJP_ENGINE_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KSet.h"

class ThreadInfo;

// What the start natives of the runtime's Core class return; the Java side knows the codes.
const jint ERRORCODE_OK = 0;
const jint ERRORCODE_ALREADY_STARTED = 3;

// One row for RegisterNatives.
template <typename Function>
JNINativeMethod nativeRow(const char* name, const char* signature, Function* function) {
  return JNINativeMethod{const_cast<char*>(name), const_cast<char*>(signature), reinterpret_cast<void*>(function)};
}

// A list of natives for RegisterNatives, as an engine hands them to the entry points.
struct NativeList {
  const JNINativeMethod* myMethods;
  jint myCount;
};

template <int N>
constexpr NativeList nativeList(const JNINativeMethod (&methods)[N]) {
  return NativeList{methods, N};
}

// A list of JVMTI events.
struct EventList {
  const jvmtiEvent* myEvents;
  jint myCount;
};

template <int N>
constexpr EventList eventList(const jvmtiEvent (&events)[N]) {
  return EventList{events, N};
}

// One measurement of the agent (allocations, CPU, J2EE calls, monitors, exceptions) as the
// entry points in agent/ see it. Each engine describes itself with one of these in its own
// files; ourEngines lists them all. Every function may be null when the engine has nothing
// to do at that point.
struct Engine {
  const char* myName;

  // Adds the capabilities the engine's events and calls need to those that Agent_OnLoad asks
  // of the main JVMTI environment.
  void (*addCapabilities)(jvmtiCapabilities* capabilities);
  // Puts the engine's event handlers into 'callbacks', which starts empty and holds only this
  // engine's. An event that several engines handle is passed to each, in table order.
  void (*setEventHandlers)(jvmtiEventCallbacks* callbacks);
  // Events switched on at load for the agent's whole life. Events that only matter while the
  // engine runs it switches on and off itself as it starts and stops.
  EventList myEventsAtLoad;

  // At VM Init, before the Java runtime is defined: starts what the options ask of the engine,
  // so that the measurement also covers the runtime's start-up, and reports the outcome.
  void (*startFromOptions)(JNIEnv* env);
  // At VM Init, once the Java runtime runs: the engine's own agent threads.
  void (*startThreads)(JNIEnv* env);

  // Natives of the runtime's Core class that the engine serves (its start, stop, clear and
  // settings), registered at VM Init with the others.
  NativeList myCoreNatives;
  // Natives of the Callback class that its probes reach, registered at VM Start.
  NativeList myCallbackNatives;

  // A thread has started and has just been given its ThreadInfo; runs on that thread. Caller
  // holds ourLock.
  void (*threadStarted)(ThreadInfo* info);
  // A live thread has ended; its ThreadInfo is destroyed right after. Caller holds ourLock.
  void (*threadEnded)(ThreadInfo* info);
  // The dead threads whose running numbers are in 'folded' are being folded into the
  // pseudo-thread of the oldest dead threads: per-thread rows of the engine move there.
  // Caller holds ourLock.
  void (*foldThreads)(KSet<jint>* folded);

  // The tables in 'tableMask' of the agent's database are about to be written to a client or
  // a snapshot: figures derived from the engine's state are brought up to date. Caller holds
  // ourLock.
  void (*beforeTablesWritten)(JNIEnv* env, jint tableMask);
};

// Every engine of the library, in the order in which the entry points call them.
extern const Engine* const ourEngines[];
extern const int ourEngineCount;

// Calls 'action' for each engine, in table order.
template <typename Action>
void forEachEngine(Action action) {
  for (int i = 0; i < ourEngineCount; i++) {
    action(*ourEngines[i]);
  }
}

// Whether the engines may ask for exception events. Holding the capability alone makes HotSpot
// deoptimize the code of every throw, so "disableexceptions" leaves it out for good: no
// exception telemetry, and tracing and J2EE recording rebuild their stacks from the real ones
// instead of hearing of unwinding.
bool exceptionEventsWanted();

// Switches the probes of the callback class on or off after a change of ourStatus. Set by
// class instrumentation, which owns the callback class; while it is null, a mode change only
// changes ourStatus, which the probes also check.
extern void (*ourRedefineCallback)(JNIEnv* env);

// ourRedefineCallback, if set: what an engine calls after changing its status bits.
void redefineCallbackAfterStatusChange(JNIEnv* env);

// Empties a table of the agent's database and publishes the clear, so that a client drops
// what it holds of the table instead of waiting for deletions that never come row by row.
// Caller holds ourLock.
void clearTableAndNote(jint tableID);

#endif
