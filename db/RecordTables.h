#ifndef KJP_RECORDTABLES_H
#define KJP_RECORDTABLES_H

#include "db/DB.h"

// Every record with a field list, in table id order, with its type, its table in DB, its table
// id and its name in table streams: what the field ids and the layout are made from.
// X(Record, tableMember, tableID, "name", FIELDS)
#define KJP_RECORD_TABLES(X)                                                                             \
  X(StringRecord, myStringTable, STRING_TABLE_ID, "string", KJP_STRING_RECORD_FIELDS)                    \
  X(ThreadRecord, myThreadTable, THREAD_TABLE_ID, "thread", KJP_THREAD_RECORD_FIELDS)                    \
  X(MethodRecord, myMethodTable, METHOD_TABLE_ID, "method", KJP_METHOD_RECORD_FIELDS)                    \
  X(ThreadFrameRecord, myThreadFrameTable, THREADFRAME_TABLE_ID, "threadframe",                         \
    KJP_THREAD_FRAME_RECORD_FIELDS)                                                                      \
  X(J2EERecord, myJ2EETable, J2EE_TABLE_ID, "j2ee", KJP_J2EE_RECORD_FIELDS)                              \
  X(MonitorRecord, myMonitorTable, MONITOR_TABLE_ID, "monitor", KJP_MONITOR_RECORD_FIELDS)               \
  X(CPUProfilingRecord, myCPUProfilingTable, CPUPROFILING_TABLE_ID, "cpuprofiling",                     \
    KJP_CPUPROFILING_RECORD_FIELDS)                                                                      \
  X(InstanceCountsRecord, myInstanceCountsTable, INSTANCECOUNTS_TABLE_ID, "instancecounts",             \
    KJP_INSTANCE_COUNTS_RECORD_FIELDS)                                                                   \
  X(FrameRecord, myFrameTable, FRAME_TABLE_ID, "frame", KJP_FRAME_RECORD_FIELDS)                         \
  X(SnapshotRecord, mySnapshotTable, SNAPSHOT_TABLE_ID, "snapshot", KJP_SNAPSHOT_RECORD_FIELDS)          \
  X(AllocInfoRecord, myAllocInfoTable, ALLOCINFO_TABLE_ID, "allocinfo", KJP_ALLOC_INFO_RECORD_FIELDS)    \
  X(AllocatorRecord, myAllocatorTable, ALLOCATOR_TABLE_ID, "allocator", KJP_ALLOCATOR_RECORD_FIELDS)     \
  X(GenerationRecord, myGenerationTable, GENERATION_TABLE_ID, "generation", KJP_GENERATION_RECORD_FIELDS) \
  X(PropertyRecord, myPropertyTable, PROPERTIES_TABLE_ID, "properties", KJP_PROPERTY_RECORD_FIELDS)      \
  X(ThreadStateRecord, myThreadStateTable, THREADSTATE_TABLE_ID, "threadstate",                         \
    KJP_THREAD_STATE_RECORD_FIELDS)                                                                      \
  X(ExceptionRecord, myExceptionTable, EXCEPTION_TABLE_ID, "exception", KJP_EXCEPTION_RECORD_FIELDS)

#endif
