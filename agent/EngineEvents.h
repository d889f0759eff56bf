#ifndef KJP_ENGINEEVENTS_H
#define KJP_ENGINEEVENTS_H

#include <jni.h>
#include <jvmti.h>

// How the agent's entry points reach the engines of ourEngines at load: their capabilities,
// their JVMTI event handlers and the events they want from the start.

// Adds every engine's capabilities to 'capabilities'.
void addEngineCapabilities(jvmtiCapabilities* capabilities);

// Puts the engines' handlers into 'callbacks': each event that an engine handles goes to a
// dispatcher that passes ourEngineEventGate and calls every engine's handler, in table order.
// An engine that handles an event the dispatcher doesn't know is a programming error and ends
// the process at load.
void setEngineEventHandlers(jvmtiEventCallbacks* callbacks);

// Switches on the events the engines want from load on.
void enableEngineEventsAtLoad(jvmtiEnv* jvmti);

// Registers the natives of the engines on the runtime's Core class, or on the Callback class.
void registerEngineCoreNatives(JNIEnv* env, jclass core);
void registerEngineCallbackNatives(JNIEnv* env, jclass callback);

#endif
