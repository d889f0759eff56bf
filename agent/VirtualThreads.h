#ifndef KJP_VIRTUALTHREADS_H
#define KJP_VIRTUALTHREADS_H

#include <jni.h>
#include <jvmti.h>

// The events of the JVM's virtual threads (JVMTI 19 and later). The code of a virtual thread runs
// on a platform thread, its carrier, whose native thread-locals are the carrier's; these events
// tell the agent when a virtual thread starts or resumes on a carrier and when it leaves it.
// The agent's headers may predate virtual threads, so the numbers and names are spelled out here.
class VirtualThreads {
 public:
  static const int START_EVENT = 87;
  static const int END_EVENT = 88;

  // Asks for the capability of seeing virtual threads, if the JVM can give it, in a call of its
  // own so that a refusal leaves the other capabilities alone. Only while the agent loads.
  static bool addCapability(jvmtiEnv* jvmti);

  // After addCapability succeeded and the start and end callbacks are installed: switches on
  // the start and end events and the mount and unmount extension events. Enables either all or
  // none of them; true when all.
  static bool enableEvents(jvmtiEnv* jvmti);

  static void JNICALL started(jvmtiEnv* jvmti, JNIEnv* env, jthread virtualThread);
  static void JNICALL ended(jvmtiEnv* jvmti, JNIEnv* env, jthread virtualThread);
  // Extension events pass the JNI environment and the virtual thread after the JVMTI one.
  static void JNICALL mounted(jvmtiEnv* jvmti, ...);
  static void JNICALL unmounting(jvmtiEnv* jvmti, ...);
};

#endif
