#ifndef KJP_SOCKETDESCRIPTOR_H
#define KJP_SOCKETDESCRIPTOR_H

#include <jni.h>

// The operating system's file descriptor behind a java.net.Socket, which the table and
// snapshot writers send on directly. Read through JNI field access, which, unlike reflection,
// isn't refused on JVMs that close java.net's internals to other modules. Socket.impl may be
// a wrapper that hands everything to a delegate (a SOCKS layer over the platform socket on
// JDK 13 and later); the descriptor is the one of the innermost implementation.
// -1 for null, or when no descriptor can be found; no exception is left pending.
jint getSocketFD(JNIEnv* env, jobject socket);

extern "C" JNIEXPORT jint JNICALL Java_com_kestrix_runtime_Core_getSocketFD(JNIEnv* env, jclass, jobject socket);

#endif
