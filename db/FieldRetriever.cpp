#include "db/FieldRetriever.h"

#include "db/DB.h"

// Each entry goes through getRecord(index, true): the UI fills rows field by field before it
// stamps them, so the row must be reachable while still unstamped.
#define KJP_FIELD(table, field) \
  [](DB* db, jint index) -> void* { return static_cast<void*>(&db->table->getRecord(index, true)->field); }

const FieldRetriever ourFieldRetriever[] = {
    KJP_FIELD(myStringTable, myText),
    KJP_FIELD(myThreadTable, myNameStrID),
    KJP_FIELD(myThreadTable, myGroupStrID),
    KJP_FIELD(myThreadTable, myIndexForTFI),
    KJP_FIELD(myThreadTable, myRunningNumber),
    KJP_FIELD(myThreadTable, myThreadID),
    KJP_FIELD(myMethodTable, myNameStrID),
    KJP_FIELD(myMethodTable, mySignatureStrID),
    KJP_FIELD(myMethodTable, myClassNameStrID),
    KJP_FIELD(myMethodTable, myFlags),
    KJP_FIELD(myThreadFrameTable, myThreadIndexForTFI),
    KJP_FIELD(myThreadFrameTable, myFrameID),
    KJP_FIELD(myJ2EETable, myThread),
    KJP_FIELD(myJ2EETable, myFrame),
    KJP_FIELD(myJ2EETable, myStrID),
    KJP_FIELD(myJ2EETable, myKind),
    KJP_FIELD(myJ2EETable, myTimeNs),
    KJP_FIELD(myJ2EETable, myCount),
    KJP_FIELD(myMonitorTable, myThread),
    KJP_FIELD(myMonitorTable, myFrame),
    KJP_FIELD(myMonitorTable, myOwner),
    KJP_FIELD(myMonitorTable, myClassNameStrID),
    KJP_FIELD(myMonitorTable, myTimeNs),
    KJP_FIELD(myMonitorTable, myCount),
    KJP_FIELD(myCPUProfilingTable, time),
    KJP_FIELD(myCPUProfilingTable, count),
    KJP_FIELD(myInstanceCountsTable, myClassNameStrID),
    KJP_FIELD(myInstanceCountsTable, myCount),
    KJP_FIELD(myInstanceCountsTable, mySize),
    KJP_FIELD(myFrameTable, myParent),
    KJP_FIELD(myFrameTable, myCallee),
    KJP_FIELD(myFrameTable, myFirstChild),
    KJP_FIELD(myFrameTable, myNextSibling),
    KJP_FIELD(mySnapshotTable, myPathStrID),
    KJP_FIELD(mySnapshotTable, myFlags),
    KJP_FIELD(myAllocInfoTable, myCount),
    KJP_FIELD(myAllocInfoTable, mySize),
    KJP_FIELD(myAllocatorTable, myThread),
    KJP_FIELD(myAllocatorTable, myFrame),
    KJP_FIELD(myAllocatorTable, myObjectIndex),
    KJP_FIELD(myGenerationTable, myType),
    KJP_FIELD(myGenerationTable, myDescriptionStrID),
    KJP_FIELD(myGenerationTable, myUptimeMs),
    KJP_FIELD(myPropertyTable, myNameStrID),
    KJP_FIELD(myPropertyTable, myValue),
    KJP_FIELD(myThreadStateTable, myThread),
    KJP_FIELD(myThreadStateTable, myFrame),
    KJP_FIELD(myThreadStateTable, myState),
    KJP_FIELD(myThreadStateTable, myCPUTimeNs),
    KJP_FIELD(myExceptionTable, myThread),
    KJP_FIELD(myExceptionTable, myThrowFrame),
    KJP_FIELD(myExceptionTable, myCatchFrame),
    KJP_FIELD(myExceptionTable, myClassNameStrID),
    KJP_FIELD(myExceptionTable, myCount),
};

static_assert(sizeof(ourFieldRetriever) / sizeof(ourFieldRetriever[0]) == FIELD_COUNT, "one retriever per field id");

#undef KJP_FIELD
