#include "snapshot/SnapshotFile.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "DBTestSupport.h"
#include "SnapshotTestSupport.h"
#include "agent/KLock.h"
#include "db/StringPool.h"
#include "snapshot/SnapshotCapture.h"
#include "snapshot/TableStream.h"

namespace {

const char MAGIC[] = "Kestrix Java Profiler snapshot, https://github.com/kestrix/kjpagent\x1A";

class SnapshotFileTest : public AgentDBTest {
 protected:
  void SetUp() override {
    AgentDBTest::SetUp();
    ourContainsInvocations = false;
  }
  void TearDown() override {
    ourContainsInvocations = false;
    AgentDBTest::TearDown();
  }

  static jint intern(const char* text) { return ourDB->myStrPool->getDBIndex(text, true); }

  static jint method(const char* className, const char* name, const char* signature) {
    jint index = ourDB->myMethodTable->getIndexPool().nextIndex();
    MethodRecord* record = ourDB->myMethodTable->getRecord(index, true);
    record->myNameStrID = intern(name);
    record->mySignatureStrID = intern(signature);
    record->myClassNameStrID = intern(className);
    record->myModificationStamp = ourDB->myModificationStamp;
    return index;
  }

  // A call-tree node below 'parent', linked in behind its last sibling.
  static jint frame(jint parent, jint methodIndex) {
    jint stamp = ourDB->myModificationStamp;
    jint index = ourDB->myFrameTable->getIndexPool().nextIndex();
    FrameRecord* record = ourDB->myFrameTable->getRecord(index, true);
    record->myParent = parent;
    record->myCallee = methodIndex;
    record->myModificationStamp = stamp;
    FrameRecord* parentRecord = ourDB->myFrameTable->getRecord(parent, true);
    parentRecord->myModificationStamp = stamp;
    if (parentRecord->myFirstChild == -1) {
      parentRecord->myFirstChild = index;
      return index;
    }
    FrameRecord* sibling = ourDB->myFrameTable->getRecord(parentRecord->myFirstChild, true);
    while (sibling->myNextSibling != -1) {
      sibling = ourDB->myFrameTable->getRecord(sibling->myNextSibling, true);
    }
    sibling->myNextSibling = index;
    sibling->myModificationStamp = stamp;
    return index;
  }

  static void cpu(ThreadInfo* thread, jint frameIndex, jlong timeMs, jlong count) {
    CPUProfilingRecord* record = thread->getCPUProfilingRecord(frameIndex, true);
    record->time = timeMs * 1000000;
    record->count = count;
    record->myModificationStamp = ourDB->myModificationStamp;
  }

  // Two threads of a small application whose times and counts are known exactly. The kjp
  // tool's tests read the same profile, so its figures stand in their expectations too.
  static void fillKnownProfile() {
    ourDB->mySessionName = "FixtureApp";
    ourDB->myStartTime = 1234567890;
    ourContainsInvocations = true;
    ourDB->setProperty("java.vm.name", intern("OpenJDK 64-Bit Server VM"));
    ourDB->setProperty("java.vm.version", intern("17.0.99+1-Debian"));
    ourDB->setProperty("java.version", intern("17.0.99"));
    ThreadInfo* mainThread = startThread("main");
    ThreadInfo* worker = startThread("worker-1");
    startThread("idle");
    jint mainMethod = method("com.example.App", "main", "([Ljava/lang/String;)V");
    jint compute = method("com.example.App", "compute", "(I[J)J");
    jint helper = method("com.example.App", "helper", "()V");
    jint sqrt = method("java.lang.Math", "sqrt", "(D)D");
    jint run = method("com.example.Worker", "run", "()V");

    jint fMain = frame(0, mainMethod);
    jint fCompute = frame(fMain, compute);
    jint fSqrt = frame(fCompute, sqrt);
    jint fHelper = frame(fMain, helper);
    jint fComputeHelper = frame(fCompute, helper);
    jint fRun = frame(0, run);
    jint fRunCompute = frame(fRun, compute);
    jint fRunSqrt = frame(fRunCompute, sqrt);

    cpu(mainThread, fMain, 1000, 1);
    cpu(mainThread, fCompute, 700, 10);
    cpu(mainThread, fSqrt, 300, 1000);
    cpu(mainThread, fHelper, 200, 5);
    cpu(mainThread, fComputeHelper, 100, 20);
    cpu(worker, fRun, 500, 1);
    cpu(worker, fRunCompute, 450, 4);
    cpu(worker, fRunSqrt, 150, 200);
  }

  // Rows a stream of the table would hold now.
  static jint stampedRows(jint tableID) {
    AbstractTable* table = ourDB->myTables[tableID];
    jint count = 0;
    for (jint i = 0; i < table->getCapacity(); i++) {
      if (table->getRecordModificationStamp(i) != 0) {
        count++;
      }
    }
    return count;
  }

  static KString capture(const std::string& path, jlong flags) {
    KString error;
    bool ok = captureSnapshotToFile(nullptr, path.c_str(), 0, flags, false, &error);
    EXPECT_EQ(ok, error.length() == 0);
    return error;
  }

  struct Header {
    std::string magic;
    int version;
    std::string creator;
    jlong startTime;
    jint number;
    jint oidWidth;
    jlong reserved;
    jlong flags;
    jlong captureTime;
    std::string session;
  };

  static Header readHeader(StreamReader& reader) {
    Header header;
    header.magic = reader.readBytes(sizeof(MAGIC) - 1);
    header.version = reader.readByte();
    header.creator = reader.readString();
    header.startTime = reader.readLong();
    header.number = reader.readInt();
    header.oidWidth = reader.readInt();
    header.reserved = reader.readLong();
    header.flags = reader.readLong();
    header.captureTime = reader.readLong();
    header.session = reader.readString();
    return header;
  }
};

}  // namespace

TEST_F(SnapshotFileTest, FileIsTheHeaderThenEveryTableButTheAllocatorsWithMarkers) {
  fillKnownProfile();
  // The capture collects strings that no stamped row names, after writing them.
  std::map<jint, std::string> textsBefore;
  ourDB->myStringTable->forEachStampedRecord(
      [&](jint index, StringRecord* record) { textsBefore[index] = record->myText; });
  jint expectedCounts[TABLE_COUNT];
  for (jint i = 0; i < TABLE_COUNT; i++) {
    expectedCounts[i] = stampedRows(i);
  }
  jint numberBefore = ourSnapshotCount;
  TempDir dir;
  std::string path = dir.file("known.snapshot");
  jlong before = static_cast<jlong>(time(nullptr)) * 1000;
  EXPECT_EQ(0, capture(path, SNAPSHOT_CAUSE_SHUTDOWN).length());
  jlong after = static_cast<jlong>(time(nullptr)) * 1000;

  const char* exportPath = getenv("KJP_WRITE_KNOWN_PROFILE_TO");
  if (exportPath != nullptr) {
    std::string command = "cp '" + path + "' '" + exportPath + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  StreamReader reader(readAll(path));
  Header header = readHeader(reader);
  EXPECT_EQ(std::string(MAGIC), header.magic);
  EXPECT_EQ('9', header.version);
  EXPECT_EQ("Created by Kestrix Java Profiler 8.0.1", header.creator);
  EXPECT_EQ(1234567890, header.startTime);
  EXPECT_EQ(numberBefore + 1, header.number);
  EXPECT_EQ(4, header.oidWidth);
  EXPECT_EQ(-1, header.reserved);
  EXPECT_EQ(SNAPSHOT_CAUSE_SHUTDOWN | SNAPSHOT_WITH_COUNTS | SNAPSHOT_OIDS_ARE_INDICES, header.flags);
  EXPECT_GE(header.captureTime, before);
  EXPECT_LE(header.captureTime, after);
  EXPECT_EQ("FixtureApp", header.session);

  std::vector<std::vector<StreamRow>> tables(TABLE_COUNT);
  for (jint id = 0; id < TABLE_COUNT; id++) {
    if (id == ALLOCATOR_TABLE_ID) {
      continue;
    }
    ASSERT_EQ(42, reader.readByte()) << "before table " << id;
    ASSERT_EQ(id, reader.readInt());
    tables[id] = readTableRows(reader, id);
    EXPECT_EQ(expectedCounts[id], static_cast<jint>(tables[id].size())) << "table " << id;
  }
  EXPECT_TRUE(reader.atEnd());

  // Row forms, checked against the records they came from.
  for (const StreamRow& row : tables[STRING_TABLE_ID]) {
    EXPECT_EQ(textsBefore[row.index], row.text);
  }
  for (const StreamRow& row : tables[THREAD_TABLE_ID]) {
    ThreadRecord* record = ourDB->myThreadTable->getRecord(row.index, false);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ((std::vector<jlong>{record->myNameStrID, record->myGroupStrID, record->myIndexForTFI,
                                  record->myRunningNumber, record->myThreadID}),
              row.fields);
  }
  jlong cpuTotal = 0;
  for (const StreamRow& row : tables[CPUPROFILING_TABLE_ID]) {
    ThreadFrameRecord* pair = ourDB->myThreadFrameTable->getRecord(row.index, false);
    ASSERT_NE(nullptr, pair);
    cpuTotal += row.fields[0];
  }
  EXPECT_EQ((1000 + 700 + 300 + 200 + 100 + 500 + 450 + 150) * 1000000LL, cpuTotal);
  const StreamRow& root = tables[FRAME_TABLE_ID][0];
  EXPECT_EQ(0, root.index);
  // The root links to main's frame, main's frame to the worker's run as its sibling.
  EXPECT_EQ((std::vector<jlong>{-1, 0, 1, -1}), root.fields);
  EXPECT_EQ(1, tables[FRAME_TABLE_ID][1].index);
  EXPECT_EQ(6, tables[FRAME_TABLE_ID][1].fields[3]);
}

TEST_F(SnapshotFileTest, SuccessiveCapturesAreNumberedTwoApartAndNeverAnnounceAHeap) {
  TempDir dir;
  EXPECT_EQ(0, capture(dir.file("a.snapshot"), SNAPSHOT_WITH_HEAP | SNAPSHOT_CAUSE_SHUTDOWN).length());
  EXPECT_EQ(0, capture(dir.file("b.snapshot"), 0).length());
  StreamReader first(readAll(dir.file("a.snapshot")));
  StreamReader second(readAll(dir.file("b.snapshot")));
  Header a = readHeader(first);
  Header b = readHeader(second);
  EXPECT_EQ(a.number + 2, b.number);
  // This build has no heap dump, so the flag goes and the tables follow the header at once,
  // where a heap section would open with tag 25.
  EXPECT_EQ(SNAPSHOT_CAUSE_SHUTDOWN | SNAPSHOT_OIDS_ARE_INDICES, a.flags);
  EXPECT_EQ(SNAPSHOT_OIDS_ARE_INDICES, b.flags);
  EXPECT_EQ(42, first.readByte());
  EXPECT_EQ(42, second.readByte());
}

TEST_F(SnapshotFileTest, UnwritablePathIsReportedAndCostsNoSnapshotNumber) {
  jint numberBefore = ourSnapshotCount;
  EXPECT_STREQ("Cannot open file to write snapshot", capture("/nonexistent-dir/x.snapshot", 0).get());
  EXPECT_EQ(numberBefore, ourSnapshotCount);
}

TEST_F(SnapshotFileTest, StringsNothingRefersToAreWrittenThenCollected) {
  jint orphan = intern("orphan text");
  TempDir dir;
  EXPECT_EQ(0, capture(dir.file("s.snapshot"), 0).length());
  StreamReader reader(readAll(dir.file("s.snapshot")));
  readHeader(reader);
  EXPECT_EQ(42, reader.readByte());
  EXPECT_EQ(STRING_TABLE_ID, reader.readInt());
  bool written = false;
  for (const StreamRow& row : readTableRows(reader, STRING_TABLE_ID)) {
    written |= row.index == orphan && row.text == "orphan text" && row.stamp > 0;
  }
  EXPECT_TRUE(written);
  EXPECT_LT(ourDB->myStringTable->getRecordModificationStamp(orphan), 0);
}

TEST_F(SnapshotFileTest, SnapshotsAreFoundOnceRegisteredWhetherOrNotTheFileExists) {
  KString path("/no/such/dir/Demo-2024-01-01-shutdown.snapshot");
  EXPECT_FALSE(findSnapshot(path));
  addSnapshotInfo(path.get(), SNAPSHOT_CAUSE_SHUTDOWN);
  EXPECT_TRUE(findSnapshot(path));
  EXPECT_FALSE(findSnapshot(KString("/no/such/dir/other.snapshot")));
  SnapshotRecord* record = ourDB->mySnapshotTable->getRecord(0, false);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(SNAPSHOT_CAUSE_SHUTDOWN, record->myFlags);
  EXPECT_EQ(ourDB->myModificationStamp, record->myModificationStamp);
}

TEST_F(SnapshotFileTest, FullDiskEndsInATruncatedFileAndTheEnglishErrorWhileTheAgentGoesOn) {
  SmallFileSystem disk("64k");
  if (!disk.available()) {
    GTEST_SKIP() << "cannot mount a tmpfs here (needs root)";
  }
  char text[64];
  for (int i = 0; i < 20000; i++) {
    snprintf(text, sizeof(text), "com.example.generated.Class%05d", i);
    intern(text);
  }
  std::string path = disk.file("full.snapshot");
  EXPECT_STREQ("No space left on device", capture(path, 0).get());
  std::vector<unsigned char> bytes = readAll(path);
  EXPECT_GT(bytes.size(), sizeof(MAGIC));
  EXPECT_LE(bytes.size(), 64u * 1024);
  EXPECT_EQ(std::string(MAGIC), std::string(bytes.begin(), bytes.begin() + sizeof(MAGIC) - 1));
  // The capture let go of the agent lock: another thread gets it.
  bool locked = false;
  std::thread other([&] {
    LockHolder holder(&ourLock, "SnapshotFileTest");
    locked = true;
  });
  other.join();
  EXPECT_TRUE(locked);
}
