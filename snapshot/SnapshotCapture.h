#ifndef KJP_SNAPSHOTCAPTURE_H
#define KJP_SNAPSHOTCAPTURE_H

#include <jni.h>

#include "agent/KString.h"

// Writes a snapshot of the agent's database to 'path' under ourLock. With 'suspendThreads',
// every other Java thread is suspended for the length of the write, unless a debugger runs
// with the JVM (it owns suspension then); without it, nothing of the JVM is touched, for
// callers where no JVM runs. Returns false with the reason in 'error' when the file could not
// be opened or a write failed; a failed write still leaves the (truncated) file behind.
bool captureSnapshotToFile(JNIEnv* env, const char* path, jint progressHandle, jlong flags, bool suspendThreads,
                           KString* error);

// The capture behind Core.captureSnapshot: null on success, else the error text.
jstring captureSnapshotJVMTI(JNIEnv* env, jstring file, jint progressHandle, jlong flags);

// Whether a snapshot of this path was registered in the session, whether or not the file
// still exists.
bool findSnapshot(const KString& path);

// Registers a snapshot file so that the UI can list and fetch it; takes ourLock.
void addSnapshotInfo(const char* path, jlong flags);

extern "C" {
JNIEXPORT jstring JNICALL Java_com_kestrix_runtime_Core_captureSnapshot(JNIEnv* env, jclass, jstring file,
                                                                       jint progressHandle, jlong flags);
JNIEXPORT jboolean JNICALL Java_com_kestrix_runtime_Core_findSnapshot(JNIEnv* env, jclass, jstring path);
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_addSnapshotInfo(JNIEnv* env, jclass, jstring path, jlong flags);
}

#endif
