#ifndef KJP_MONITORUSAGE_H
#define KJP_MONITORUSAGE_H

#include <jni.h>
#include <jvmti.h>

#include "agent/KSet.h"

// What monitor profiling records: one interval per contended enter, wait or park, booked at
// its end in the monitor table under (thread, owner, monitor class, call path). A wait's
// owner is the waiting thread itself; a park's is the owner of its lock where the lock has
// one (an AbstractOwnableSynchronizer), 0 otherwise. Everything runs under ourLock.
namespace Monitors {

// JVMTI MonitorContendedEnter and MonitorWait: the thread starts to block or wait.
void JNICALL monitorContendedEnter(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jobject object);
void JNICALL monitorWait(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jobject object, jlong timeout);
// JVMTI MonitorContendedEntered and MonitorWaited: the interval ends and is booked.
void JNICALL monitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jobject object);
void JNICALL monitorWaited(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jobject object, jboolean timedOut);

// The row of (thread, owner, monitor class, current call path), made when new; 0 when monitor
// profiling is off, the thread is unknown or its stack is empty. Stores the thread's running
// number in *op_runningNumber when given.
jint getMonitorRecordIndex(JNIEnv* env, jthread thread, jint owner, jobject monitor, jint* op_runningNumber);

// Folds the rows of the dead threads in the set into the pseudo-thread of the oldest ones.
void mergeMonitorUsage(KSet<jint>* threadRunningNumbersToCleanup);

// Forgets every row, pending interval and cached class name.
void cleanupMonitorUsage();

}  // namespace Monitors

extern "C" {
// The park probes in LockSupport.park, parkNanos and parkUntil, through the Callback class:
// the blocker an application thread parks on, and its return.
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpParkEntry0(JNIEnv* env, jclass, jobject blocker);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpParkExit0(JNIEnv* env, jclass, jobject blocker);
}

#endif
