#ifndef KJP_ALLOCATIONENTRY_H
#define KJP_ALLOCATIONENTRY_H

#include <jni.h>
#include <jvmti.h>

// Which allocations are recorded while allocation recording runs. Written by the natives that
// start recording, read under ourLock by every allocation report.
struct AllocationRecordingSettings {
  // Record every N-th allocation, N being myRecordEach (at least 1 while enabled).
  bool myRecordEachEnabled;
  jint myRecordEach;
  // Record every object of at least mySizeLimit bytes.
  bool mySizeLimitEnabled;
  jint mySizeLimit;
};

extern AllocationRecordingSettings ourAllocationRecordingSettings;

// Every allocation that reached the sampling decision since the agent loaded, on all threads
// together; never reset. Guarded by ourLock.
extern jint ourAllocationCounter;

// The common end of every road an allocation is reported by. Records the object when the
// settings pick it: tags it with a new AllocatorRecord and adds it to its thread's figures at
// the allocating frame. 'allocatorIndex' is that frame when the caller knows it, -1 otherwise;
// returns the frame to reuse for the next allocation of the same method activation.
jint kjpInitImpl(JNIEnv* env, jobject object, jint allocatorIndex);

// An object made through a JNI allocation function.
void jni_object_alloc_handler(JNIEnv* env, jobject object);

// JVMTI VMObjectAlloc: objects the JVM makes without running bytecode.
void JNICALL vm_object_alloc_handler(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jobject object, jclass klass,
                                     jlong size);

// JVMTI ClassLoad: the class object itself counts as an allocation.
void JNICALL class_alloc_handler(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jclass klass);

extern "C" {
// The constructor probe's native, through Callback.kjpInit.
JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Callback_kjpInit0(JNIEnv* env, jclass, jobject object,
                                                                 jint allocatorIndex);
}

#endif
