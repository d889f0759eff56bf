#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "DBTestSupport.h"
#include "agent/Options.h"
#include "db/DB.h"
#include "db/FieldRetriever.h"
#include "db/StringPool.h"
#include "engines/ThreadFrameIndex.h"

namespace {

TEST(DBTableTest, NewTableAndRowVisibility) {
  DB db(3600);
  DBTable<ThreadRecord>* threads = db.myThreadTable;
  EXPECT_EQ(1280, threads->getCapacity());
  EXPECT_EQ(-1, threads->getMinIndex());

  ThreadRecord* first = threads->createRecord();
  EXPECT_EQ(threads->getRecord(1, true), first);
  EXPECT_EQ(0, threads->getMinIndex());
  // Unstamped: invisible to readers, the stream and the statistics count alike.
  EXPECT_EQ(nullptr, threads->getRecord(1, false));
  EXPECT_EQ(0, threads->getRecordModificationStamp(1));
  MemoryWriter writer;
  threads->writeTable(writer, 0, 0, 0, 0);
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, 0}), writer.bytes());
  jlong bytes = 0;
  EXPECT_NE(std::string::npos, std::string(threads->getStatistics(&bytes).get()).find("records=      0/"));
  EXPECT_EQ(5 * 8 + 256 * static_cast<jlong>(sizeof(ThreadRecord)), bytes);

  threads->setRecordModificationStamp(1, 3);
  EXPECT_EQ(first, threads->getRecord(1, false));
  EXPECT_EQ(3, threads->getRecordModificationStamp(1));
  EXPECT_EQ(0, threads->getRecordModificationStamp(1280));

  // Tables with first index 0 hand out row 0.
  EXPECT_EQ(0, db.myThreadFrameTable->getIndexPool().nextIndex());
  // The frame table's links default to -1, not to the root.
  FrameRecord* frame = db.myFrameTable->getRecord(700, true);
  EXPECT_EQ(-1, frame->myParent);
  EXPECT_EQ(0, frame->myCallee);
  EXPECT_EQ(-1, frame->myFirstChild);
  EXPECT_EQ(-1, frame->myNextSibling);
}

TEST(DBTableTest, ClearTableKeepsCapacityAndRestartsThePool) {
  DB db(3600);
  DBTable<MonitorRecord>* monitors = db.myMonitorTable;
  for (int i = 0; i < 3; i++) {
    monitors->createRecord()->myModificationStamp = 1;
  }
  monitors->getRecord(2000, true)->myModificationStamp = 1;
  ASSERT_EQ(2048, monitors->getCapacity());
  monitors->clearTable();
  EXPECT_EQ(2048, monitors->getCapacity());
  EXPECT_EQ(-1, monitors->getMinIndex());
  EXPECT_EQ(nullptr, monitors->getRecord(1, false));
  EXPECT_EQ(1, monitors->getIndexPool().nextIndex());
}

TEST(DBTableTest, StreamSendsRowsNewerThanTheClientStampIncludingDeletions) {
  DB db(3600);
  DBTable<ThreadRecord>* threads = db.myThreadTable;
  ThreadRecord* a = threads->getRecord(1, true);
  *a = ThreadRecord{3, 11, 12, 13, 14, 0x0102030405060708LL};
  ThreadRecord* deleted = threads->getRecord(2, true);
  *deleted = ThreadRecord{-5, 0, 0, 0, 0, 0};
  threads->getRecord(3, true)->myNameStrID = 99;  // never stamped
  ThreadRecord* late = threads->getRecord(300, true);
  *late = ThreadRecord{7, 21, 22, 23, 24, -2};

  MemoryWriter all;
  threads->writeTable(all, 0, 0, 0, 0);
  ByteReader in(all.bytes());
  EXPECT_EQ(3, in.readInt());
  EXPECT_EQ(1, in.readInt());
  EXPECT_EQ(3, in.readInt());
  EXPECT_EQ(11, in.readInt());
  EXPECT_EQ(12, in.readInt());
  EXPECT_EQ(13, in.readInt());
  EXPECT_EQ(14, in.readInt());
  EXPECT_EQ(0x0102030405060708LL, in.readLong());
  EXPECT_EQ(2, in.readInt());
  EXPECT_EQ(-5, in.readInt());
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(0, in.readInt());
  }
  EXPECT_EQ(0, in.readLong());
  EXPECT_EQ(300, in.readInt());
  EXPECT_EQ(7, in.readInt());
  in.readInt();
  in.readInt();
  in.readInt();
  in.readInt();
  EXPECT_EQ(-2, in.readLong());
  EXPECT_TRUE(in.atEnd());

  // The comparison is strictly greater, on the stamp's magnitude.
  MemoryWriter since4;
  threads->writeTable(since4, 4, 0, 0, 0);
  ByteReader in4(since4.bytes());
  EXPECT_EQ(2, in4.readInt());
  EXPECT_EQ(2, in4.readInt());
  MemoryWriter since5;
  threads->writeTable(since5, 5, 0, 0, 0);
  ByteReader in5(since5.bytes());
  EXPECT_EQ(1, in5.readInt());
  EXPECT_EQ(300, in5.readInt());
}

TEST(DBTableTest, RecordsStreamTheirFieldsInOrder) {
  DB db(3600);
  jint hello = db.myStrPool->getDBIndex("hello", true);
  StringRecord* collected = db.myStringTable->getRecord(5, true);
  collected->myModificationStamp = -1;
  collected->myText = nullptr;
  MemoryWriter strings;
  db.myStringTable->writeTable(strings, 0, 0, 0, 0);
  ByteReader s(strings.bytes());
  EXPECT_EQ(2, s.readInt());
  EXPECT_EQ(hello, s.readInt());
  EXPECT_EQ(1, s.readInt());
  EXPECT_EQ("hello", s.readString());
  EXPECT_EQ(5, s.readInt());
  EXPECT_EQ(-1, s.readInt());
  EXPECT_EQ("<null>", s.readString());
  EXPECT_TRUE(s.atEnd());

  TelemetryRecord* tele = db.myTelemetryTable->getRecord(0, true);
  tele->myModificationStamp = 2;
  for (jint i = 0; i < TELE_FIELD_COUNT; i++) {
    tele->myValues[i] = 100 + i;
  }
  ExceptionRecord* exception = db.myExceptionTable->getRecord(1, true);
  *exception = ExceptionRecord{2, 3, 4, 0, 6, 1LL << 40};
  MemoryWriter rows;
  db.myTelemetryTable->writeTable(rows, 0, 0, 0, 0);
  db.myExceptionTable->writeTable(rows, 0, 0, 0, 0);
  ByteReader r(rows.bytes());
  EXPECT_EQ(1, r.readInt());
  EXPECT_EQ(0, r.readInt());
  EXPECT_EQ(2, r.readInt());
  for (jint i = 0; i < TELE_FIELD_COUNT; i++) {
    EXPECT_EQ(100 + i, r.readInt());
  }
  EXPECT_EQ(1, r.readInt());
  EXPECT_EQ(1, r.readInt());
  EXPECT_EQ(2, r.readInt());
  EXPECT_EQ(3, r.readInt());
  EXPECT_EQ(4, r.readInt());
  EXPECT_EQ(0, r.readInt());
  EXPECT_EQ(6, r.readInt());
  EXPECT_EQ(1LL << 40, r.readLong());
  EXPECT_TRUE(r.atEnd());
}

std::vector<std::pair<jint, jint>> ourProgressCalls;
void recordProgress(jint handle, jint percent) { ourProgressCalls.push_back({handle, percent}); }

TEST(DBTableTest, StreamReportsProgressOnlyWhenItRises) {
  DB db(3600);
  for (jint i = 0; i < 4; i++) {
    db.myCPUProfilingTable->getRecord(i * 100, true)->myModificationStamp = 1;
  }
  ourProgressCalls.clear();
  ourTableProgressReporter = recordProgress;
  MemoryWriter writer;
  db.myCPUProfilingTable->writeTable(writer, 0, 10, 50, 77);
  EXPECT_EQ((std::vector<std::pair<jint, jint>>{{77, 20}, {77, 30}, {77, 40}}), ourProgressCalls);
  ourProgressCalls.clear();
  db.myCPUProfilingTable->writeTable(writer, 0, 30, 30, 77);
  EXPECT_TRUE(ourProgressCalls.empty());
  ourTableProgressReporter = nullptr;
}

TEST(DBTableDeathTest, AllocatorRowsNeverStreamAndNegativeIndicesFail) {
  DB db(3600);
  db.myAllocatorTable->getRecord(1, true)->myModificationStamp = 1;
  MemoryWriter writer;
  EXPECT_DEATH(db.myAllocatorTable->writeTable(writer, 0, 0, 0, 0), "Assertion `0' failed");
  EXPECT_DEATH(db.myThreadTable->getRecord(-1, false), "index >= 0");
  EXPECT_DEATH(db.myThreadTable->setRecordModificationStamp(-2, 1), "index >= 0");
}

TEST(DBTest, StatisticsText) {
  DB db(3600);
  db.myStrPool->getDBIndex("abc", true);
  db.myStrPool->getDBIndex("hello", true);
  db.myThreadTable->getRecord(5, true);  // allocated, never stamped
  db.myMonitorTable->getRecord(9, true)->myModificationStamp = -3;  // deleted rows don't count
  for (jint i = 0; i < 65536; i++) {
    db.myAllocInfoTable->getRecord(i, true)->myModificationStamp = 1;
  }
  const char* expected =
      "              string records=      2/   1280 allocated=   0.0 M\n"
      "              thread records=      0/   1280 allocated=   0.0 M\n"
      "              method records=      0/10486016 allocated=   0.3 M\n"
      "         threadframe records=      0/   1280 allocated=   0.0 M\n"
      "                j2ee records=      0/   1280 allocated=   0.0 M\n"
      "             monitor records=      0/   1280 allocated=   0.0 M\n"
      "        cpuprofiling records=      0/   1280 allocated=   0.0 M\n"
      "      instancecounts records=      0/   1280 allocated=   0.0 M\n"
      "               frame records=      0/   1280 allocated=   0.0 M\n"
      "     tablegeneration records=      0/   1280 allocated=   0.0 M\n"
      "            snapshot records=      0/   1280 allocated=   0.0 M\n"
      "           allocinfo records=  65536/  65536 allocated=   1.5 M\n"
      "           allocator records=      0/   1280 allocated=   0.0 M\n"
      "          generation records=      0/   1280 allocated=   0.0 M\n"
      "          properties records=      0/   1280 allocated=   0.0 M\n"
      "                tele records=      0/   1280 allocated=   0.0 M\n"
      "         threadstate records=      0/   1280 allocated=   0.0 M\n"
      "           exception records=      0/   1280 allocated=   0.0 M\n"
      "\n"
      "telemetryLimit=3600\n"
      "\n"
      "String bodies:    0.0 M\n"
      "TFI:    0.0 M\n"
      "\n"
      "Total size:    1.8 M\n";
  EXPECT_STREQ(expected, db.getStatistics().get());

  DB unlimited(-1);
  EXPECT_NE(std::string::npos, std::string(unlimited.getStatistics().get()).find("\ntelemetryLimit=-1\n"));
  EXPECT_STREQ("  -1.0", getMegaBytesString(-1048576).get());
  EXPECT_STREQ("1024.5", getMegaBytesString(1074266112).get());
}

TEST(DBTest, SetPropertyKeepsOneRowPerNameAndAlwaysStamps) {
  DB db(3600);
  db.setProperty("kjp.monitor.profiling.duration.ns.low", 5);
  db.myModificationStamp = 4;
  db.setProperty("kjp.monitor.profiling.duration.ns.high", 6);
  db.setProperty("kjp.monitor.profiling.duration.ns.low", 5);
  db.setProperty("kjp.monitor.profiling.duration.ns.low", 8);
  PropertyRecord* low = db.myPropertyTable->getRecord(0, false);
  PropertyRecord* high = db.myPropertyTable->getRecord(1, false);
  ASSERT_NE(nullptr, low);
  ASSERT_NE(nullptr, high);
  EXPECT_EQ(nullptr, db.myPropertyTable->getRecord(2, false));
  EXPECT_EQ(db.myStrPool->getDBIndex("kjp.monitor.profiling.duration.ns.low", false), low->myNameStrID);
  EXPECT_EQ(8, low->myValue);
  EXPECT_EQ(4, low->myModificationStamp);
  EXPECT_EQ(6, high->myValue);
}

#define EXPECT_INT_FIELD(id, table, field)                                      \
  do {                                                                          \
    db.setIntField(id, 3, 1000 + (id));                                         \
    EXPECT_EQ(1000 + (id), db.table->getRecord(3, true)->field) << "field " << (id); \
    EXPECT_EQ(1000 + (id), db.getIntField(id, 3));                              \
  } while (0)
#define EXPECT_LONG_FIELD(id, table, field)                                     \
  do {                                                                          \
    jlong value = (static_cast<jlong>(id) << 36) + 5;                           \
    db.setLongField(id, 3, value);                                              \
    EXPECT_EQ(value, db.table->getRecord(3, true)->field) << "field " << (id);  \
    EXPECT_EQ(value, db.getLongField(id, 3));                                   \
  } while (0)

TEST(DBTest, FieldIdsAddressTheirFieldsAndTouchNoStamp) {
  DB db(3600);
  char text[] = "x";
  db.setLongField(FIELD_STRING_TEXT, 3, static_cast<jlong>(reinterpret_cast<intptr_t>(text)));
  EXPECT_EQ(text, db.myStringTable->getRecord(3, true)->myText);
  db.myStringTable->getRecord(3, true)->myText = nullptr;
  EXPECT_INT_FIELD(1, myThreadTable, myNameStrID);
  EXPECT_INT_FIELD(2, myThreadTable, myGroupStrID);
  EXPECT_INT_FIELD(3, myThreadTable, myIndexForTFI);
  EXPECT_INT_FIELD(4, myThreadTable, myRunningNumber);
  EXPECT_LONG_FIELD(5, myThreadTable, myThreadID);
  EXPECT_INT_FIELD(6, myMethodTable, myNameStrID);
  EXPECT_INT_FIELD(7, myMethodTable, mySignatureStrID);
  EXPECT_INT_FIELD(8, myMethodTable, myClassNameStrID);
  EXPECT_INT_FIELD(9, myMethodTable, myFlags);
  EXPECT_INT_FIELD(10, myThreadFrameTable, myThreadIndexForTFI);
  EXPECT_INT_FIELD(11, myThreadFrameTable, myFrameID);
  EXPECT_INT_FIELD(12, myJ2EETable, myThread);
  EXPECT_INT_FIELD(13, myJ2EETable, myFrame);
  EXPECT_INT_FIELD(14, myJ2EETable, myStrID);
  EXPECT_INT_FIELD(15, myJ2EETable, myKind);
  EXPECT_LONG_FIELD(16, myJ2EETable, myTimeNs);
  EXPECT_LONG_FIELD(17, myJ2EETable, myCount);
  EXPECT_INT_FIELD(18, myMonitorTable, myThread);
  EXPECT_INT_FIELD(19, myMonitorTable, myFrame);
  EXPECT_INT_FIELD(20, myMonitorTable, myOwner);
  EXPECT_INT_FIELD(21, myMonitorTable, myClassNameStrID);
  EXPECT_LONG_FIELD(22, myMonitorTable, myTimeNs);
  EXPECT_LONG_FIELD(23, myMonitorTable, myCount);
  EXPECT_LONG_FIELD(24, myCPUProfilingTable, time);
  EXPECT_LONG_FIELD(25, myCPUProfilingTable, count);
  EXPECT_INT_FIELD(26, myInstanceCountsTable, myClassNameStrID);
  EXPECT_INT_FIELD(27, myInstanceCountsTable, myCount);
  EXPECT_LONG_FIELD(28, myInstanceCountsTable, mySize);
  EXPECT_INT_FIELD(29, myFrameTable, myParent);
  EXPECT_INT_FIELD(30, myFrameTable, myCallee);
  EXPECT_INT_FIELD(31, myFrameTable, myFirstChild);
  EXPECT_INT_FIELD(32, myFrameTable, myNextSibling);
  EXPECT_INT_FIELD(33, mySnapshotTable, myPathStrID);
  EXPECT_LONG_FIELD(34, mySnapshotTable, myFlags);
  EXPECT_LONG_FIELD(35, myAllocInfoTable, myCount);
  EXPECT_LONG_FIELD(36, myAllocInfoTable, mySize);
  EXPECT_INT_FIELD(37, myAllocatorTable, myThread);
  EXPECT_INT_FIELD(38, myAllocatorTable, myFrame);
  EXPECT_INT_FIELD(39, myAllocatorTable, myObjectIndex);
  EXPECT_INT_FIELD(40, myGenerationTable, myType);
  EXPECT_INT_FIELD(41, myGenerationTable, myDescriptionStrID);
  EXPECT_LONG_FIELD(42, myGenerationTable, myUptimeMs);
  EXPECT_INT_FIELD(43, myPropertyTable, myNameStrID);
  EXPECT_INT_FIELD(44, myPropertyTable, myValue);
  EXPECT_INT_FIELD(45, myThreadStateTable, myThread);
  EXPECT_INT_FIELD(46, myThreadStateTable, myFrame);
  EXPECT_INT_FIELD(47, myThreadStateTable, myState);
  EXPECT_LONG_FIELD(48, myThreadStateTable, myCPUTimeNs);
  EXPECT_INT_FIELD(49, myExceptionTable, myThread);
  EXPECT_INT_FIELD(50, myExceptionTable, myThrowFrame);
  EXPECT_INT_FIELD(51, myExceptionTable, myCatchFrame);
  EXPECT_INT_FIELD(52, myExceptionTable, myClassNameStrID);
  EXPECT_LONG_FIELD(53, myExceptionTable, myCount);

  for (jint table = 0; table < TABLE_COUNT; table++) {
    EXPECT_EQ(0, db.getTable(table)->getRecordModificationStamp(3)) << "table " << table;
  }

  // An int write to a 64-bit field changes its low half only.
  db.setLongField(FIELD_THREAD_THREAD_ID, 1, 0x1111111122222222LL);
  db.setIntField(FIELD_THREAD_THREAD_ID, 1, 0x33333333);
  EXPECT_EQ(0x1111111133333333LL, db.myThreadTable->getRecord(1, true)->myThreadID);
}

TEST(DBDeathTest, FieldIdsOutOfRangeFail) {
  DB db(3600);
  EXPECT_DEATH(db.getIntField(-1, 1), "fieldID >= 0");
  EXPECT_DEATH(db.setLongField(54, 1, 0), "fieldID < 54");
}

TEST(DBTest, TelemetryDropsWholeChunksPastTheLimitAndThreadStatesFollow) {
  DB db(3600);
  jint values[TELE_FIELD_COUNT] = {0};
  for (jint i = 0; i < 8000; i++) {
    db.myThreadStateTable->getRecord(i, true)->myModificationStamp = 1;
  }
  for (jint i = 0; i <= 3859; i++) {
    values[TELE_THREAD_STATE_START_INDEX] = 2 * i;
    db.storeTelemetryValues(nullptr, 0, values, TELE_FIELD_COUNT);
  }
  // Row 3620 lies 20 beyond the limit, which is less than a chunk: nothing went.
  EXPECT_EQ(0, db.myTelemetryTable->getMinIndex());
  EXPECT_NE(nullptr, db.myTelemetryTable->getRecord(0, false));

  values[TELE_THREAD_STATE_START_INDEX] = 2 * 3860;
  db.storeTelemetryValues(nullptr, 0, values, TELE_FIELD_COUNT);
  EXPECT_EQ(256, db.myTelemetryTable->getMinIndex());
  EXPECT_EQ(nullptr, db.myTelemetryTable->getRecord(255, false));
  EXPECT_NE(nullptr, db.myTelemetryTable->getRecord(256, false));
  // The oldest kept sample, row 256, refers to thread states from 512 on.
  EXPECT_EQ(512, db.myThreadStateTable->getMinIndex());
  // Indices keep counting up; the dropped rows are never handed out again.
  EXPECT_EQ(3861, db.myTelemetryTable->getIndexPool().nextIndex());

  // Off multiples of 20 nothing is checked, even far beyond the limit.
  db.dropOldTelemetry(7001);
  EXPECT_EQ(256, db.myTelemetryTable->getMinIndex());
  db.dropOldTelemetry(7000);
  EXPECT_EQ(13 * 256, db.myTelemetryTable->getMinIndex());

  DB unlimited(-1);
  for (jint i = 0; i < 5000; i++) {
    unlimited.storeTelemetryValues(nullptr, 0, values, TELE_FIELD_COUNT);
  }
  EXPECT_EQ(0, unlimited.myTelemetryTable->getMinIndex());
}

TEST(DBTest, TelemetryConstantsAreStampedOnlyWhenTheyChange) {
  DB db(3600);
  jint constants[TELEC_FIELD_COUNT] = {512, 0, 3, 0, 0, 0};
  jint values[TELE_FIELD_COUNT];
  for (jint i = 0; i < TELE_FIELD_COUNT; i++) {
    values[i] = i * 3;
  }
  TelemetryRecord* first = db.storeTelemetryValues(constants, TELEC_FIELD_COUNT, values, TELE_FIELD_COUNT);
  EXPECT_EQ(1, first->myModificationStamp);
  EXPECT_EQ(42, first->myValues[14]);
  EXPECT_EQ(1, db.myPropertyTable->getRecordModificationStamp(0));
  EXPECT_EQ(0, db.myPropertyTable->getRecordModificationStamp(1));

  db.myModificationStamp = 9;
  constants[2] = 4;
  TelemetryRecord* second = db.storeTelemetryValues(constants, TELEC_FIELD_COUNT, values, TELE_FIELD_COUNT);
  EXPECT_EQ(db.myTelemetryTable->getRecord(1, false), second);
  EXPECT_EQ(1, db.myPropertyTable->getRecordModificationStamp(0));
  EXPECT_EQ(9, db.myPropertyTable->getRecordModificationStamp(2));
  EXPECT_EQ(4, db.myPropertyTable->getRecord(2, false)->myValue);
  EXPECT_DEATH(db.storeTelemetryValues(constants, TELEC_FIELD_COUNT, values, 14), "length == 15");
}

TEST(DBTest, TableClearIsPublishedThroughTheGenerationTable) {
  DB db(3600);
  db.myModificationStamp = 6;
  db.noteTableCleared(CPUPROFILING_TABLE_ID);
  EXPECT_EQ(6, db.myTableGenerationTable->getRecordModificationStamp(CPUPROFILING_TABLE_ID));
  EXPECT_EQ(0, db.myTableGenerationTable->getRecordModificationStamp(J2EE_TABLE_ID));
}

using CreateAndInitializeDBTest = AgentDBTest;

TEST_F(CreateAndInitializeDBTest, MakesPseudoThreadsAndNamesTheTelemetryConstantRows) {
  ASSERT_NE(nullptr, ourDB);
  EXPECT_STREQ(ourOptions.getSessionName().get(), ourDB->mySessionName.get());
  EXPECT_EQ(1, ourOldestDeadThreads->myRunningNumber);
  EXPECT_EQ(2, ourVMStartThread->myRunningNumber);
  ThreadRecord* oldest = ourDB->myThreadTable->getRecord(ourOldestDeadThreads->myThreadTableIndex, false);
  ASSERT_NE(nullptr, oldest);
  EXPECT_EQ("<Oldest dead threads>", stringAt(oldest->myNameStrID));
  EXPECT_EQ("", stringAt(oldest->myGroupStrID));
  EXPECT_EQ(0, oldest->myThreadID);
  EXPECT_EQ("VM Start", stringAt(ourDB->myThreadTable->getRecord(ourVMStartThread->myThreadTableIndex, false)->myNameStrID));

  const char* names[] = {"telec.heap.memory.max.kb", "telec.non.heap.memory.max.kb", "telec.unloaded.class.count",
                         "telec.peak.thread.count",  "telec.created.thread.count",   "telec.deadlock.found"};
  for (jint i = 0; i < TELEC_FIELD_COUNT; i++) {
    PropertyRecord* property = ourDB->myPropertyTable->getRecord(i, true);
    EXPECT_EQ(names[i], stringAt(property->myNameStrID));
    EXPECT_EQ(0, property->myModificationStamp);
  }
  EXPECT_EQ(TELEC_FIELD_COUNT, ourDB->myPropertyTable->getIndexPool().nextIndex());
  EXPECT_EQ(3, startThread("main")->myRunningNumber);
}

}  // namespace
