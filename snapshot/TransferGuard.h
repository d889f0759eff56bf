#ifndef KJP_TRANSFERGUARD_H
#define KJP_TRANSFERGUARD_H

#include <jni.h>

// Which files may leave the machine through the agent's socket: only a regular file that the
// agent itself wrote, and only while it is still that file. When the agent has written a
// snapshot (or the JVM an HPROF dump for it), its identity is sealed: device, inode and size.
// A transfer opens the path without following a symbolic link and compares what it opened
// with the seal; the bytes sent are read from that same descriptor, up to the sealed size, so
// a file swapped in after the check can't leak either.
//
// Everything runs under ourLock.

// Results of openForTransfer other than a descriptor (which is >= 0).
const jint TRANSFER_UNKNOWN = -1;   // the agent never wrote a snapshot at this path
const jint TRANSFER_MISSING = -2;   // nothing to open there
const jint TRANSFER_CHANGED = -3;   // a link, not a regular file, or not the file that was written

// Records the identity of the file at 'path' as it is now, after the agent wrote it; a file
// the agent writes further (a section appended) is sealed again. A path that holds no
// regular file is sealed as unreadable.
void sealSnapshotFile(const char* path);

// Opens a sealed snapshot for reading: a descriptor, with the sealed size in *size, or one of
// the refusals above.
jint openForTransfer(const char* path, jlong* size);

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_sealSnapshot(JNIEnv* env, jclass, jstring path);
// Opens the snapshot into 'descriptor' (a new java.io.FileDescriptor); returns its sealed
// size, or a refusal as above.
JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_openSnapshotForTransfer(JNIEnv* env, jclass, jstring path,
                                                                             jobject descriptor);
}

#endif
