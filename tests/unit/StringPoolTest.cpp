#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "DBTestSupport.h"
#include "agent/Clock.h"
#include "agent/Options.h"
#include "db/DB.h"
#include "db/StringPool.h"

namespace {

TEST(StringPoolTest, InterningGivesOneIndexPerTextAndStampsItsRowOnce) {
  DB db(3600);
  StringPool* pool = db.myStrPool;
  EXPECT_EQ(0, pool->getDBIndex(nullptr, true));
  EXPECT_EQ(0, pool->getDBIndex("unknown", false));
  EXPECT_EQ(nullptr, db.myStringTable->getRecord(1, false));

  jint index = pool->getDBIndex("java/lang/String", true);
  EXPECT_EQ(1, index);
  db.myModificationStamp = 5;
  // The copy is the pool's: a text equal by content finds the same row.
  std::string sameText = "java/lang/String";
  EXPECT_EQ(index, pool->getDBIndex(sameText.c_str(), true));
  EXPECT_EQ(index, pool->getDBIndex(sameText.c_str(), false));
  StringRecord* row = db.myStringTable->getRecord(index, false);
  EXPECT_EQ(1, row->myModificationStamp);
  EXPECT_STREQ("java/lang/String", row->myText);
  EXPECT_NE(sameText.c_str(), row->myText);

  jint empty = pool->getDBIndex("", true);
  EXPECT_EQ(2, empty);
  EXPECT_STREQ("", db.myStringTable->getRecord(empty, false)->myText);
  EXPECT_EQ(5, db.myStringTable->getRecordModificationStamp(empty));
  EXPECT_EQ(2, pool->size());
}

TEST(StringPoolTest, SetDBIndexReplacesTheRowsTextAndItsMapEntry) {
  DB db(3600);
  StringPool* pool = db.myStrPool;
  pool->setDBIndex("first", 7);
  EXPECT_EQ(7, pool->getDBIndex("first", false));
  pool->setDBIndex("second", 7);
  EXPECT_EQ(0, pool->getDBIndex("first", false));
  EXPECT_EQ(7, pool->getDBIndex("second", false));
  EXPECT_STREQ("second", db.myStringTable->getRecord(7, false)->myText);
  EXPECT_EQ(1, pool->size());
  pool->setDBIndex(nullptr, 7);
  EXPECT_STREQ("second", db.myStringTable->getRecord(7, false)->myText);
}

TEST(StringPoolTest, CollectionFreesUnreferencedStringsAndPublishesTheirDeletion) {
  DB db(3600);
  StringPool* pool = db.myStrPool;
  // One string field of each marked table, a string used nowhere, and a plain number.
  jint threadName = pool->getDBIndex("main", true);
  jint group = pool->getDBIndex("system", true);
  jint methodName = pool->getDBIndex("run", true);
  jint signature = pool->getDBIndex("()V", true);
  jint className = pool->getDBIndex("Worker", true);
  jint sql = pool->getDBIndex("select 1", true);
  jint monitorClass = pool->getDBIndex("Lock", true);
  jint countedClass = pool->getDBIndex("Counted", true);
  jint path = pool->getDBIndex("/tmp/a.snapshot", true);
  jint description = pool->getDBIndex("mark", true);
  jint propertyName = pool->getDBIndex("prop", true);
  jint propertyValue = pool->getDBIndex("value text", true);
  jint exceptionClass = pool->getDBIndex("IOException", true);
  jint unused = pool->getDBIndex("unused", true);
  jint onlyInDeletedRow = pool->getDBIndex("deleted row", true);
  jint onlyInUnstampedRow = pool->getDBIndex("unstamped row", true);

  *db.myThreadTable->getRecord(1, true) = ThreadRecord{1, threadName, group, 1, 3, 0};
  *db.myMethodTable->getRecord(1, true) = MethodRecord{1, methodName, signature, className, 0};
  *db.myJ2EETable->getRecord(0, true) = J2EERecord{1, 3, 1, sql, 2, 0, 0};
  *db.myMonitorTable->getRecord(1, true) = MonitorRecord{1, 3, 1, 3, monitorClass, 0, 0};
  *db.myInstanceCountsTable->getRecord(1, true) = InstanceCountsRecord{1, countedClass, 1, 8};
  *db.mySnapshotTable->getRecord(0, true) = SnapshotRecord{1, path, 0};
  *db.myGenerationTable->getRecord(1, true) = GenerationRecord{1, 0, description, 0};
  *db.myPropertyTable->getRecord(0, true) = PropertyRecord{1, propertyName, propertyValue};
  *db.myExceptionTable->getRecord(1, true) = ExceptionRecord{-2, 3, 1, 0, exceptionClass, 1};
  *db.myMethodTable->getRecord(2, true) = MethodRecord{-1, onlyInDeletedRow, 0, 0, 0};
  *db.myMethodTable->getRecord(3, true) = MethodRecord{0, onlyInUnstampedRow, 0, 0, 0};

  db.myModificationStamp = 4;
  EXPECT_EQ(2, pool->collectGarbageStrings());
  for (jint kept : {threadName, group, methodName, signature, className, sql, monitorClass, countedClass, path,
                    description, propertyName, propertyValue, exceptionClass, onlyInDeletedRow}) {
    StringRecord* row = db.myStringTable->getRecord(kept, false);
    EXPECT_NE(nullptr, row->myText) << kept;
    EXPECT_EQ(1, row->myModificationStamp) << kept;
  }
  for (jint gone : {unused, onlyInUnstampedRow}) {
    StringRecord* row = db.myStringTable->getRecord(gone, false);
    ASSERT_NE(nullptr, row);
    EXPECT_EQ(nullptr, row->myText);
    EXPECT_EQ(-4, row->myModificationStamp);
  }
  EXPECT_EQ(0, pool->getDBIndex("unused", false));
  EXPECT_EQ(14, pool->size());

  // The deletion goes out with the next update, as a row whose text has length -1.
  MemoryWriter writer;
  db.myStringTable->writeTable(writer, 1, 0, 0, 0);
  ByteReader in(writer.bytes());
  EXPECT_EQ(2, in.readInt());
  EXPECT_EQ(unused, in.readInt());
  EXPECT_EQ(-4, in.readInt());
  EXPECT_EQ("<null>", in.readString());

  // Deleted rows are not collected or counted again; freed indices come back, last first.
  EXPECT_EQ(0, pool->collectGarbageStrings());
  db.myModificationStamp = 6;
  EXPECT_EQ(onlyInUnstampedRow, pool->getDBIndex("new text", true));
  EXPECT_EQ(6, db.myStringTable->getRecordModificationStamp(onlyInUnstampedRow));
  EXPECT_EQ(unused, pool->getDBIndex("another", true));
  EXPECT_EQ(onlyInUnstampedRow + 1, pool->getDBIndex("third", true));
}

TEST(StringPoolTest, CollectionReportsItsTimeWhenAsked) {
  DB db(3600);
  db.myStrPool->getDBIndex("a", true);
  db.myStrPool->getDBIndex("b", true);
  bool saved = ourOptions.myPrintStringGCTimes;
  ourOptions.myPrintStringGCTimes = true;
  jlong before = getTimeNs();
  testing::internal::CaptureStderr();
  db.myStrPool->collectGarbageStrings();
  std::string printed = testing::internal::GetCapturedStderr();
  jlong elapsedMs = (getTimeNs() - before) / 1000000;
  ourOptions.myPrintStringGCTimes = saved;
  // The time is the collection's own, in whole milliseconds: no more than the call took as
  // measured around it, however long a loaded machine made that.
  int collected = -1;
  int time = -1;
  ASSERT_EQ(2, sscanf(printed.c_str(), "strings collected: %d time=%d\n", &collected, &time)) << printed;
  EXPECT_EQ(2, collected);
  EXPECT_GE(time, 0);
  EXPECT_LE(time, elapsedMs);
  EXPECT_EQ('\n', printed.back());
}

}  // namespace

namespace {

// Telemetry constants are named at start-up and only stamped with their first value; the
// first collection runs long before that, at the first thread end.
TEST(StringPoolTest, CollectionKeepsTheNamesOfPropertiesNotYetStamped) {
  DB db(3600);
  StringPool* pool = db.myStrPool;
  PropertyRecord* property = db.myPropertyTable->createRecord();
  jint name = pool->getDBIndex("telemetry.constant", true);
  property->myNameStrID = name;
  ASSERT_EQ(0, property->myModificationStamp);
  jint unused = pool->getDBIndex("unused", true);

  EXPECT_EQ(1, pool->collectGarbageStrings());
  EXPECT_EQ(name, pool->getDBIndex("telemetry.constant", false));
  EXPECT_EQ(0, pool->getDBIndex("unused", false));
  EXPECT_GT(0, db.myStringTable->getRecordModificationStamp(unused));
}

}  // namespace
