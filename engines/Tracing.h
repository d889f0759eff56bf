#ifndef KJP_TRACING_H
#define KJP_TRACING_H

#include <jni.h>
#include <jvmti.h>

class ThreadInfo;

// The tracing probes' runtime. Each thread keeps a shadow of its call stack: the current
// frame of the shared tree, one entry time per open call and one "filtered" bit per open call.
// Calls that end unseen (exceptions, tracing started mid-call) make the shadow lose step with
// the real stack; the thread then drops it and the next entry rebuilds it from a JVMTI walk.

// The method index the probes pass as two halves, low first.
inline jint methodIndexFromHalves(jshort low, jshort high) {
  return static_cast<jint>((static_cast<unsigned int>(static_cast<unsigned short>(high)) << 16) |
                           static_cast<unsigned short>(low));
}

// What the entry and exit natives do for a method index; the natives only unpack it.
void methodEntry(JNIEnv* env, jint methodIndex);
void methodExit(JNIEnv* env, jint methodIndex);

// An entry or exit read back from a thread's call log: what the natives do, except that a
// thread whose stack is not known skips it, since the stack it had then is gone. Caller holds
// ourLock and is the thread itself or has the gate closed.
void replayEntry(ThreadInfo* info, jint methodIndex);
void replayExit(ThreadInfo* info, jint methodIndex);
// An entry and its exit at once, for a call that made no traced call of its own.
void replayCall(ThreadInfo* info, jint methodIndex);

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpMethodEntry0(JNIEnv* env, jclass, jshort low, jshort high);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpMethodExit0(JNIEnv* env, jclass, jshort low, jshort high);
}

// True while probes may record: the JVM is live and not dying. Finding it dying drops the
// calling thread's shadow stack first. Caller holds ourLock.
bool isMethodTracingActive();

// The clock a method's time is taken in: wall time for wall-time methods, else thread CPU.
jlong getMethodTimeNs(jint methodIndex);

// now - then; 'where' names the calling site for a debugger and changes nothing.
inline jlong getTimeDeltaNs(jlong now, jlong then, int where) {
  (void)where;
  return now - then;
}

// Closes every open call of the thread as of now, adding its time so far; the frame stays.
// Caller holds ourLock.
void resetStackTrace(ThreadInfo* threadInfo, bool isCurrentThread);
// Reopens the open calls as of now, after resetStackTrace. Caller holds ourLock.
void restoreStackTrace(ThreadInfo* threadInfo, bool isCurrentThread);
// resetStackTrace, then forgets the shadow stack so that the next entry rebuilds it.
void dropShadowStack(ThreadInfo* threadInfo, bool isCurrentThread);

// The JVMTI Exception callback: a throw may unwind frames past their exit probes.
void JNICALL exception(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                       jobject exception, jmethodID catchMethod, jlocation catchLocation);

#endif
