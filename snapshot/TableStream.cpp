#include "snapshot/TableStream.h"

#include <jvmti.h>

#include "agent/CPUTime.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "db/AbstractTable.h"
#include "db/DB.h"
#include "engines/Engine.h"
#include "engines/InstanceCounting.h"
#include "engines/ThreadInfo.h"
#include "engines/Tracing.h"
#include "engines/TracingGate.h"
#include "snapshot/SnapshotProgress.h"
#include "snapshot/SocketWriter.h"

namespace {

const jint SOCKET_BUFFER_SIZE = 8192;

// Threads may rename themselves at any time after they started, and no event tells: read the
// names again before the thread table leaves. A failing GetAllThreads just leaves the names.
void refreshThreadNames(JNIEnv* env) {
  jint count = 0;
  jthread* threads = nullptr;
  if (ourJVMTI->GetAllThreads(&count, &threads) != JVMTI_ERROR_NONE) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    ThreadInfo* info = getThreadInfoJVMTI(threads[i]);
    if (info != nullptr) {
      info->makeSureThreadHasName(env, threads[i]);
    }
    env->DeleteLocalRef(threads[i]);
  }
  deallocate(threads);
}

void updateDerivedData(JNIEnv* env, jint tableMask, InstanceCounting* counting) {
  if (env != nullptr && ourJVMTI != nullptr && !ourIsJRockit && (tableMask & (1 << THREAD_TABLE_ID)) != 0) {
    refreshThreadNames(env);
  }
  if (counting != nullptr) {
    counting->updateDatabase();
  }
  forEachEngine([&](const Engine& engine) {
    if (engine.beforeTablesWritten != nullptr) {
      engine.beforeTablesWritten(env, tableMask);
    }
  });
}

bool hasOpenTimedCalls() { return (ourStatus & CPU_COUNTS_BIT) != 0 && tracingReadsThreadClock(); }

}  // namespace

void closeOpenCalls() {
  if (hasOpenTimedCalls()) {
    forEachLiveThread([](ThreadInfo* info) { resetStackTrace(info, false); });
  }
}

void reopenOpenCalls() {
  if (hasOpenTimedCalls()) {
    forEachLiveThread([](ThreadInfo* info) { restoreStackTrace(info, false); });
  }
}

void writeTables(JNIEnv* env, DB* db, AbstractWriter& writer, jint tableMask, jint progressFrom, jint progressTo,
                 jint progressHandle, const jint* stamps, bool writeMarker, InstanceCounting* counting) {
  if (db == ourDB) {
    updateDerivedData(env, tableMask, counting);
  }
  installTableProgressReporter();
  jint step = (progressTo - progressFrom) / TABLE_COUNT;
  jint from = progressFrom;
  for (jint i = 0; i < TABLE_COUNT; i++, from += step) {
    if ((tableMask & (1 << i)) == 0) {
      continue;
    }
    if (writeMarker) {
      writer.writeByte(42);
    }
    writer.writeInt(i);
    db->myTables[i]->writeTable(writer, stamps == nullptr ? 0 : stamps[i], from, from + step, progressHandle);
  }
}

void writeAllTables(JNIEnv* env, DB* db, AbstractWriter& writer, jint progressFrom, jint progressTo,
                    jint progressHandle, InstanceCounting* counting) {
  writeTables(env, db, writer, ALL_TABLES_MASK, progressFrom, progressTo, progressHandle, nullptr, true, counting);
}

void writeTableUpdate(JNIEnv* env, DB* db, int socketFD, jint tableMask, const jint* stamps,
                      InstanceCounting* counting) {
  LockHolder holder(&ourLock, "TableStream(71)");
  // The stamp moves on below: no probe may stamp a row with the old one after it was sent.
  TracingGate::Closure stillTracing;
  SocketWriter writer(socketFD, SOCKET_BUFFER_SIZE, true);
  bool withCPU = db == ourDB && (tableMask & (1 << CPUPROFILING_TABLE_ID)) != 0;
  if (withCPU) {
    closeOpenCalls();
  }
  writeTables(env, db, writer, tableMask, 0, 0, 0, stamps, false, counting);
  writer.writeInt(-1);
  // Rows changed from now on carry a greater stamp than anything this update sent.
  db->myModificationStamp++;
  if (withCPU) {
    reopenOpenCalls();
  }
  writer.flush();
}

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_writeTables(JNIEnv* env, jclass, jint socketFD,
                                                                            jint tableMask, jintArray stamps) {
  jint copy[TABLE_STAMP_COUNT] = {0};
  if (stamps != nullptr) {
    jint length = env->GetArrayLength(stamps);
    env->GetIntArrayRegion(stamps, 0, length < TABLE_STAMP_COUNT ? length : TABLE_STAMP_COUNT, copy);
  }
  // The mask comes from the network: only tables that stream are written, whatever else it asks.
  tableMask &= ALL_TABLES_MASK;
  // The heap walk of the counting runs before ourLock, so that probes wait only for the writing.
  InstanceCounting counting(env, ourDB, tableMask);
  counting.gatherClassInstanceStatistics(env);
  writeTableUpdate(env, ourDB, socketFD, tableMask, copy, &counting);
}
