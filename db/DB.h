#ifndef KJP_DB_H
#define KJP_DB_H

#include <jni.h>

#include "agent/KString.h"
#include "db/AbstractTable.h"
#include "db/DBTable.h"
#include "db/records/AllocInfoRecord.h"
#include "db/records/AllocatorRecord.h"
#include "db/records/CPUProfilingRecord.h"
#include "db/records/ExceptionRecord.h"
#include "db/records/FrameRecord.h"
#include "db/records/GenerationRecord.h"
#include "db/records/InstanceCountsRecord.h"
#include "db/records/J2EERecord.h"
#include "db/records/MethodRecord.h"
#include "db/records/MonitorRecord.h"
#include "db/records/PropertyRecord.h"
#include "db/records/SnapshotRecord.h"
#include "db/records/StringRecord.h"
#include "db/records/TableGenerationRecord.h"
#include "db/records/TelemetryRecord.h"
#include "db/records/ThreadFrameRecord.h"
#include "db/records/ThreadRecord.h"
#include "db/records/ThreadStateRecord.h"

class ThreadFrameIndex;
class J2EEIndex;
class StringPool;

// Table ids: the position in DB::myTables, the bit of a table mask and the number in a table
// stream. The UI addresses tables by these numbers, so they never change.
const jint STRING_TABLE_ID = 0;
const jint THREAD_TABLE_ID = 1;
const jint METHOD_TABLE_ID = 2;
const jint THREADFRAME_TABLE_ID = 3;
const jint J2EE_TABLE_ID = 4;
const jint MONITOR_TABLE_ID = 5;
const jint CPUPROFILING_TABLE_ID = 6;
const jint INSTANCECOUNTS_TABLE_ID = 7;
const jint FRAME_TABLE_ID = 8;
const jint TABLEGENERATION_TABLE_ID = 9;
const jint SNAPSHOT_TABLE_ID = 10;
const jint ALLOCINFO_TABLE_ID = 11;
const jint ALLOCATOR_TABLE_ID = 12;
const jint GENERATION_TABLE_ID = 13;
const jint PROPERTIES_TABLE_ID = 14;
const jint TELE_TABLE_ID = 15;
const jint THREADSTATE_TABLE_ID = 16;
const jint EXCEPTION_TABLE_ID = 17;
const jint TABLE_COUNT = 18;

// The number of generic field ids (see FieldRetriever.h).
const jint FIELD_COUNT = 54;

// The method table is sized up front for this many rows, so that its chunk pointer array is
// allocated once and never replaced while instrumentation adds methods.
const jint METHOD_TABLE_CAPACITY = 10485760;

// The record database: eighteen tables of fixed-size, stamped records tied together by
// indices. The agent holds one in ourDB for its whole life; the UI makes further ones through
// the natives to hold an opened snapshot. It has no lock of its own: in the agent every
// writer holds ourLock.
class DB {
 public:
  explicit DB(jint telemetryLimit);
  ~DB();

  DB(const DB&) = delete;
  DB& operator=(const DB&) = delete;

  // The agent's start-up path: the database in ourDB with its session name, the two
  // pseudo-threads and the six telemetry constant rows.
  static void createAndInitializeDB(jint telemetryLimit);

  // Generic access by field id. The retriever goes through getRecord(index, true), so reading
  // an absent row allocates its chunk and yields the default. No stamp is touched; the width
  // of the field decides which of the four may be used, and nothing checks it.
  jint getIntField(jint fieldID, jint index);
  void setIntField(jint fieldID, jint index, jint value);
  jlong getLongField(jint fieldID, jint index);
  void setLongField(jint fieldID, jint index, jlong value);

  // Sets a named property row, making it when the name is new; stamps it even when the
  // value is unchanged.
  void setProperty(const char* name, jint value);

  KString getStatistics();

  AbstractTable* getTable(jint tableID);

  // Drops the oldest telemetry before row 'index' is written, and the thread states that
  // only the dropped samples referred to. Runs on multiples of 20 beyond the limit only.
  void dropOldTelemetry(jint index);

  // The native part of one telemetry pass, up to the thread-state sampling: stores the
  // slowly changing constants in the property rows that differ, then appends a stamped
  // telemetry row with the 15 values and returns it. The caller fills in the thread-state
  // start and count and the uptime.
  TelemetryRecord* storeTelemetryValues(const jint* constants, jint constantCount, const jint* values, jint length);

  // Publishes a run-time clear of a table: its row in the tablegeneration table carries the
  // stamp of the clear.
  void noteTableCleared(jint tableID);

  AbstractTable* myTables[TABLE_COUNT];
  // Index distance at which old telemetry is dropped; -1 keeps everything.
  jint myTelemetryLimit;
  // The current stamp; starts at 1 and rises once per table update sent to the UI.
  jint myModificationStamp;
  jlong myStartTime;
  KString mySessionName;

  DBTable<StringRecord>* myStringTable;
  DBTable<ThreadRecord>* myThreadTable;
  DBTable<ThreadFrameRecord>* myThreadFrameTable;
  DBTable<MethodRecord>* myMethodTable;
  DBTable<J2EERecord>* myJ2EETable;
  DBTable<MonitorRecord>* myMonitorTable;
  DBTable<CPUProfilingRecord>* myCPUProfilingTable;
  DBTable<InstanceCountsRecord>* myInstanceCountsTable;
  DBTable<FrameRecord>* myFrameTable;
  DBTable<TableGenerationRecord>* myTableGenerationTable;
  DBTable<SnapshotRecord>* mySnapshotTable;
  DBTable<AllocInfoRecord>* myAllocInfoTable;
  DBTable<AllocatorRecord>* myAllocatorTable;
  DBTable<GenerationRecord>* myGenerationTable;
  DBTable<PropertyRecord>* myPropertyTable;
  DBTable<TelemetryRecord>* myTelemetryTable;
  DBTable<ThreadStateRecord>* myThreadStateTable;
  DBTable<ExceptionRecord>* myExceptionTable;

  ThreadFrameIndex* myThreadFrameIndex;
  J2EEIndex* myJ2EEIndex;
  StringPool* myStrPool;
};

// The agent's database, from Agent_OnLoad to process exit.
extern DB* ourDB;

#endif
