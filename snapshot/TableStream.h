#ifndef KJP_TABLESTREAM_H
#define KJP_TABLESTREAM_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

class DB;
class InstanceCounting;

// Every table but the allocator's: its rows travel inside a heap dump instead.
const jint ALL_TABLES_MASK = 258047;

// The number of stamps a client sends with an update request, one per mask bit.
const jint TABLE_STAMP_COUNT = 32;

// Streams the tables of 'tableMask' in ascending id. Each table is its id (after the byte 42
// when 'writeMarker' is set, as in snapshot files), its row count and the rows whose absolute
// stamp exceeds stamps[id] (everything when 'stamps' is null). The progress range is cut into
// 18 equal shares, one per table id, whether or not the table is written.
//
// For the agent's own database, derived data is brought up to date first (thread names, which
// threads may change at any time, and the instance counts that 'counting' gathered before the
// lock was taken). The caller holds ourLock. 'env' may be null where no JVM runs.
void writeTables(JNIEnv* env, DB* db, AbstractWriter& writer, jint tableMask, jint progressFrom, jint progressTo,
                 jint progressHandle, const jint* stamps, bool writeMarker, InstanceCounting* counting = nullptr);

// All tables of a snapshot file, with markers and without stamps.
void writeAllTables(JNIEnv* env, DB* db, AbstractWriter& writer, jint progressFrom, jint progressTo,
                    jint progressHandle, InstanceCounting* counting = nullptr);

// While tracing with the fast thread clock, the calls in progress have no time in the tables
// yet. These close them as of now, so that a snapshot or an update includes their time so far,
// and reopen them as of now afterwards; no thread loses its place in the tree. They do nothing
// in any other mode. The caller holds ourLock throughout.
void closeOpenCalls();
void reopenOpenCalls();

// The server side of one live update: under ourLock, the requested tables on the socket,
// the end mark -1, and then the database's stamp moves on, so that the client's next request
// with the highest stamp it has seen yields exactly the later changes.
void writeTableUpdate(JNIEnv* env, DB* db, int socketFD, jint tableMask, const jint* stamps,
                      InstanceCounting* counting = nullptr);

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_writeTables(JNIEnv* env, jclass, jint socketFD,
                                                                            jint tableMask, jintArray stamps);

#endif
