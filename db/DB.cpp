#include "db/DB.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "agent/KAssert.h"
#include "agent/Options.h"
#include "db/FieldRetriever.h"
#include "db/StringPool.h"
#include "engines/J2EEIndex.h"
#include "engines/ThreadFrameIndex.h"
#include "engines/ThreadInfo.h"

DB* ourDB = nullptr;

namespace {

const jint DEFAULT_TABLE_CAPACITY = 1024;

// Names of the first six property rows, in the order of the TELEC_*_PROP_INDEX constants.
const char* const TELEMETRY_CONSTANT_NAMES[TELEC_FIELD_COUNT] = {
    "telec.heap.memory.max.kb", "telec.non.heap.memory.max.kb", "telec.unloaded.class.count",
    "telec.peak.thread.count",  "telec.created.thread.count",   "telec.deadlock.found",
};

template <class R>
DBTable<R>* makeTable(AbstractTable** tables, jint tableID, const char* name, jint firstIndex, jint capacity) {
  R defaultValue;
  memset(static_cast<void*>(&defaultValue), 0, sizeof(R));
  DBTable<R>* table = new DBTable<R>(name, firstIndex, capacity, defaultValue);
  tables[tableID] = table;
  return table;
}

FrameRecord makeFrameDefault() {
  FrameRecord frame;
  memset(static_cast<void*>(&frame), 0, sizeof(frame));
  // A fresh node links to nothing; 0 would name the root.
  frame.myParent = -1;
  frame.myFirstChild = -1;
  frame.myNextSibling = -1;
  return frame;
}

}  // namespace

DB::DB(jint telemetryLimit)
    : myTelemetryLimit(telemetryLimit), myModificationStamp(1), myStartTime(static_cast<jlong>(time(nullptr))),
      mySessionName() {
  // Tables with first index 1 keep row 0 free, so that index 0 can mean "none" in a field.
  myStringTable = makeTable<StringRecord>(myTables, STRING_TABLE_ID, "string", 1, DEFAULT_TABLE_CAPACITY);
  myThreadTable = makeTable<ThreadRecord>(myTables, THREAD_TABLE_ID, "thread", 1, DEFAULT_TABLE_CAPACITY);
  myThreadFrameTable =
      makeTable<ThreadFrameRecord>(myTables, THREADFRAME_TABLE_ID, "threadframe", 0, DEFAULT_TABLE_CAPACITY);
  myMethodTable = makeTable<MethodRecord>(myTables, METHOD_TABLE_ID, "method", 1, METHOD_TABLE_CAPACITY);
  myJ2EETable = makeTable<J2EERecord>(myTables, J2EE_TABLE_ID, "j2ee", 0, DEFAULT_TABLE_CAPACITY);
  myMonitorTable = makeTable<MonitorRecord>(myTables, MONITOR_TABLE_ID, "monitor", 1, DEFAULT_TABLE_CAPACITY);
  myCPUProfilingTable =
      makeTable<CPUProfilingRecord>(myTables, CPUPROFILING_TABLE_ID, "cpuprofiling", 0, DEFAULT_TABLE_CAPACITY);
  myInstanceCountsTable =
      makeTable<InstanceCountsRecord>(myTables, INSTANCECOUNTS_TABLE_ID, "instancecounts", 1, DEFAULT_TABLE_CAPACITY);
  myFrameTable = new DBTable<FrameRecord>("frame", 1, DEFAULT_TABLE_CAPACITY, makeFrameDefault());
  myTables[FRAME_TABLE_ID] = myFrameTable;
  myTableGenerationTable = makeTable<TableGenerationRecord>(myTables, TABLEGENERATION_TABLE_ID, "tablegeneration", 0,
                                                            DEFAULT_TABLE_CAPACITY);
  mySnapshotTable = makeTable<SnapshotRecord>(myTables, SNAPSHOT_TABLE_ID, "snapshot", 0, DEFAULT_TABLE_CAPACITY);
  myAllocInfoTable = makeTable<AllocInfoRecord>(myTables, ALLOCINFO_TABLE_ID, "allocinfo", 0, DEFAULT_TABLE_CAPACITY);
  myAllocatorTable = makeTable<AllocatorRecord>(myTables, ALLOCATOR_TABLE_ID, "allocator", 1, DEFAULT_TABLE_CAPACITY);
  myGenerationTable =
      makeTable<GenerationRecord>(myTables, GENERATION_TABLE_ID, "generation", 1, DEFAULT_TABLE_CAPACITY);
  myPropertyTable = makeTable<PropertyRecord>(myTables, PROPERTIES_TABLE_ID, "properties", 0, DEFAULT_TABLE_CAPACITY);
  myTelemetryTable = makeTable<TelemetryRecord>(myTables, TELE_TABLE_ID, "tele", 0, DEFAULT_TABLE_CAPACITY);
  myThreadStateTable =
      makeTable<ThreadStateRecord>(myTables, THREADSTATE_TABLE_ID, "threadstate", 0, DEFAULT_TABLE_CAPACITY);
  myExceptionTable = makeTable<ExceptionRecord>(myTables, EXCEPTION_TABLE_ID, "exception", 1, DEFAULT_TABLE_CAPACITY);

  myStrPool = new StringPool(this);
  myThreadFrameIndex = new ThreadFrameIndex(this);
  myJ2EEIndex = new J2EEIndex(this);
}

DB::~DB() {
  for (jint i = 0; i < TABLE_COUNT; i++) {
    delete myTables[i];
    myTables[i] = nullptr;
  }
  myThreadFrameIndex->clearThreadFrameIndex();
  delete myThreadFrameIndex;
  myJ2EEIndex->clear();
  delete myJ2EEIndex;
  // The pool frees the texts; the string rows only borrowed them.
  delete myStrPool;
}

void DB::createAndInitializeDB(jint telemetryLimit) {
  ourDB = new DB(telemetryLimit);
  ourDB->mySessionName = ourOptions.getSessionName();
  ourOldestDeadThreads = new ThreadInfo("<Oldest dead threads>", "", 0);
  ourVMStartThread = new ThreadInfo("VM Start", "", 0);
  // Named now so the runtime can address them by index; they stay unstamped, and so unsent,
  // until telemetry gives them a value.
  for (jint i = 0; i < TELEC_FIELD_COUNT; i++) {
    PropertyRecord* property = ourDB->myPropertyTable->createRecord();
    property->myNameStrID = ourDB->myStrPool->getDBIndex(TELEMETRY_CONSTANT_NAMES[i], true);
  }
}

AbstractTable* DB::getTable(jint tableID) {
  KASSERT(tableID >= 0);
  KASSERT(tableID < TABLE_COUNT);
  return myTables[tableID];
}

jint DB::getIntField(jint fieldID, jint index) {
  KASSERT(fieldID >= 0);
  KASSERT(fieldID < 54);
  return *static_cast<jint*>(ourFieldRetriever[fieldID](this, index));
}

void DB::setIntField(jint fieldID, jint index, jint value) {
  KASSERT(fieldID >= 0);
  KASSERT(fieldID < 54);
  *static_cast<jint*>(ourFieldRetriever[fieldID](this, index)) = value;
}

jlong DB::getLongField(jint fieldID, jint index) {
  KASSERT(fieldID >= 0);
  KASSERT(fieldID < 54);
  jlong value;
  memcpy(&value, ourFieldRetriever[fieldID](this, index), sizeof(value));
  return value;
}

void DB::setLongField(jint fieldID, jint index, jlong value) {
  KASSERT(fieldID >= 0);
  KASSERT(fieldID < 54);
  memcpy(ourFieldRetriever[fieldID](this, index), &value, sizeof(value));
}

void DB::setProperty(const char* name, jint value) {
  jint nameIndex = myStrPool->getDBIndex(name, true);
  PropertyRecord* property = nullptr;
  jint capacity = myPropertyTable->getCapacity();
  for (jint i = 0; i < capacity; i++) {
    PropertyRecord* candidate = myPropertyTable->getRecord(i, true);
    if (candidate->myNameStrID == nameIndex) {
      property = candidate;
      break;
    }
  }
  if (property == nullptr) {
    property = myPropertyTable->createRecord();
    property->myNameStrID = nameIndex;
  }
  property->myValue = value;
  property->myModificationStamp = myModificationStamp;
}

KString DB::getStatistics() {
  jlong totalBytes = 0;
  KString result;
  for (jint i = 0; i < TABLE_COUNT; i++) {
    result += myTables[i]->getStatistics(&totalBytes).get();
    result += "\n";
  }

  char number[32];
  snprintf(number, sizeof(number), "%d", myTelemetryLimit);
  result += "\ntelemetryLimit=";
  result += number;
  result += "\n";

  jlong stringBytes = 0;
  myStringTable->forEachStampedRecord([&](jint, StringRecord* record) {
    if (record->myText != nullptr) {
      stringBytes += static_cast<jlong>(strlen(record->myText));
    }
  });
  totalBytes += stringBytes;
  result += "\nString bodies: ";
  result += getMegaBytesString(stringBytes).get();
  result += " M\n";

  jlong tfiBytes = myThreadFrameIndex->getAllocatedBytes();
  totalBytes += tfiBytes;
  result += "TFI: ";
  result += getMegaBytesString(tfiBytes).get();
  result += " M\n";

  result += "\nTotal size: ";
  result += getMegaBytesString(totalBytes).get();
  result += " M\n";
  return result;
}

void DB::dropOldTelemetry(jint index) {
  // Checking on multiples of 20 only keeps this off most passes; the kept range therefore
  // varies between the limit and a few hundred rows more.
  if (myTelemetryLimit == -1 || index <= myTelemetryLimit || index % 20 != 0) {
    return;
  }
  jint firstKeptChunk = (index - myTelemetryLimit) >> KIntChunkMap<TelemetryRecord>::CHUNK_SHIFT;
  myTelemetryTable->dropLeadingChunks(firstKeptChunk);
  // Thread states follow the oldest sample that survives; one that never sampled any
  // (start 0, or -1) takes no thread-state chunk with it.
  TelemetryRecord* oldest =
      myTelemetryTable->getRecord(firstKeptChunk << KIntChunkMap<TelemetryRecord>::CHUNK_SHIFT, true);
  jint threadStateStart = oldest->myValues[TELE_THREAD_STATE_START_INDEX];
  myThreadStateTable->dropLeadingChunks(threadStateStart >> KIntChunkMap<ThreadStateRecord>::CHUNK_SHIFT);
}

TelemetryRecord* DB::storeTelemetryValues(const jint* constants, jint constantCount, const jint* values,
                                          jint length) {
  // A constant reaches the client only when it changes; one that stays 0 is never sent.
  for (jint i = 0; i < constantCount; i++) {
    PropertyRecord* property = myPropertyTable->getRecord(i, true);
    if (property->myValue != constants[i]) {
      property->myValue = constants[i];
      property->myModificationStamp = myModificationStamp;
    }
  }
  KASSERT_TEXT(length == TELE_FIELD_COUNT, "length == 15");
  jint index = myTelemetryTable->getIndexPool().nextIndex();
  dropOldTelemetry(index);
  TelemetryRecord* record = myTelemetryTable->getRecord(index, true);
  record->myModificationStamp = myModificationStamp;
  memcpy(record->myValues, values, sizeof(record->myValues));
  return record;
}

void DB::noteTableCleared(jint tableID) {
  KASSERT(tableID >= 0);
  KASSERT(tableID < TABLE_COUNT);
  myTableGenerationTable->getRecords().getPtr(tableID, true)->myModificationStamp = myModificationStamp;
}
