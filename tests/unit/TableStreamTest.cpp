#include "snapshot/TableStream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "DBTestSupport.h"
#include "SnapshotTestSupport.h"
#include "agent/Options.h"
#include "db/StringPool.h"
#include "snapshot/SnapshotProgress.h"

namespace {

// Both ends of a local stream socket; the agent writes on one, the test reads the other.
class SocketPair {
 public:
  SocketPair() {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    myAgentEnd = fds[0];
    myClientEnd = fds[1];
  }
  ~SocketPair() {
    close(myAgentEnd);
    close(myClientEnd);
  }

  // Whatever has arrived so far, without waiting for more.
  std::vector<unsigned char> receive() {
    std::vector<unsigned char> bytes;
    unsigned char buffer[65536];
    for (;;) {
      ssize_t n = recv(myClientEnd, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (n <= 0) {
        return bytes;
      }
      bytes.insert(bytes.end(), buffer, buffer + n);
    }
  }

  int myAgentEnd;
  int myClientEnd;
};

// One update as the client sees it: rows by table id, in stream order.
std::map<jint, std::vector<StreamRow>> parseUpdate(const std::vector<unsigned char>& bytes) {
  StreamReader reader(bytes);
  std::map<jint, std::vector<StreamRow>> tables;
  for (;;) {
    jint id = reader.readInt();
    if (id == -1 || reader.atEnd()) {
      break;
    }
    tables[id] = readTableRows(reader, id);
  }
  EXPECT_TRUE(reader.atEnd());
  return tables;
}

const jint STRINGS_THREADS_SNAPSHOTS = (1 << STRING_TABLE_ID) | (1 << THREAD_TABLE_ID) | (1 << SNAPSHOT_TABLE_ID);

std::vector<std::string> texts(const std::vector<StreamRow>& rows) {
  std::vector<std::string> result;
  for (const StreamRow& row : rows) {
    result.push_back(std::to_string(row.index) + ":" + std::to_string(row.stamp) + ":" + row.text);
  }
  return result;
}

class TableStreamTest : public AgentDBTest {};

}  // namespace

TEST_F(TableStreamTest, MaskPicksTablesInAscendingIdWithMarkersOnlyForFiles) {
  startThread("worker");
  MemoryWriter marked;
  writeTables(nullptr, ourDB, marked, (1 << SNAPSHOT_TABLE_ID) | (1 << THREAD_TABLE_ID), 0, 0, 0, nullptr, true);
  StreamReader reader(marked.bytes());
  EXPECT_EQ(42, reader.readByte());
  EXPECT_EQ(THREAD_TABLE_ID, reader.readInt());
  std::vector<StreamRow> threads = readTableRows(reader, THREAD_TABLE_ID);
  // The two pseudo-threads of the agent's database, then the worker.
  ASSERT_EQ(3u, threads.size());
  EXPECT_EQ("worker", stringAt(static_cast<jint>(threads[2].fields[0])));
  EXPECT_EQ(42, reader.readByte());
  EXPECT_EQ(SNAPSHOT_TABLE_ID, reader.readInt());
  EXPECT_EQ(0, reader.readInt());  // an empty table is its id and a count of 0
  EXPECT_TRUE(reader.atEnd());

  MemoryWriter unmarked;
  writeTables(nullptr, ourDB, unmarked, 1 << SNAPSHOT_TABLE_ID, 0, 0, 0, nullptr, false);
  EXPECT_EQ((std::vector<unsigned char>{SNAPSHOT_TABLE_ID, 0, 0, 0, 0, 0, 0, 0}), unmarked.bytes());
}

TEST_F(TableStreamTest, UpdateWithMaskZeroIsJustTheEndMarkAndMovesTheStamp) {
  SocketPair socket;
  jint stamp = ourDB->myModificationStamp;
  jint stamps[TABLE_STAMP_COUNT] = {0};
  writeTableUpdate(nullptr, ourDB, socket.myAgentEnd, 0, stamps);
  EXPECT_EQ((std::vector<unsigned char>{0xFF, 0xFF, 0xFF, 0xFF}), socket.receive());
  EXPECT_EQ(stamp + 1, ourDB->myModificationStamp);
}

TEST_F(TableStreamTest, LiveUpdatesCarryEveryRowFirstThenOnlyLaterChangesAndDeletions) {
  SocketPair socket;
  startThread("worker");
  jint stamps[TABLE_STAMP_COUNT] = {0};

  writeTableUpdate(nullptr, ourDB, socket.myAgentEnd, STRINGS_THREADS_SNAPSHOTS, stamps);
  std::map<jint, std::vector<StreamRow>> first = parseUpdate(socket.receive());
  ASSERT_EQ(3u, first.size());
  jint highest = 0;
  for (auto& table : first) {
    for (StreamRow& row : table.second) {
      highest = std::max(highest, row.stamp < 0 ? -row.stamp : row.stamp);
    }
  }
  EXPECT_EQ(1, highest);
  // Everything that exists: the six telemetry names, the thread names and groups.
  std::vector<std::string> strings = texts(first[STRING_TABLE_ID]);
  EXPECT_EQ("1:1:<Oldest dead threads>", strings.front());
  EXPECT_EQ(1, std::count_if(first[STRING_TABLE_ID].begin(), first[STRING_TABLE_ID].end(),
                             [](const StreamRow& row) { return row.text == "worker" && row.stamp == 1; }));
  EXPECT_EQ(3u, first[THREAD_TABLE_ID].size());
  EXPECT_TRUE(first[SNAPSHOT_TABLE_ID].empty());

  // Changes after the update carry the new stamp, 2; a collected string is deleted at it.
  ourDB->mySnapshotTable->createRecord()->myModificationStamp = ourDB->myModificationStamp;
  jint unused = ourDB->myStrPool->getDBIndex("nobody refers to me", true);
  ourDB->myStrPool->collectGarbageStrings();
  for (jint i = 0; i < TABLE_COUNT; i++) {
    stamps[i] = highest;
  }
  writeTableUpdate(nullptr, ourDB, socket.myAgentEnd, STRINGS_THREADS_SNAPSHOTS, stamps);
  std::map<jint, std::vector<StreamRow>> second = parseUpdate(socket.receive());
  // Only rows stamped 2 or deleted at 2; among them the collected string, without its text.
  std::vector<std::string> changedStrings = texts(second[STRING_TABLE_ID]);
  EXPECT_NE(changedStrings.end(),
            std::find(changedStrings.begin(), changedStrings.end(), std::to_string(unused) + ":-2:<null>"));
  for (auto& table : second) {
    for (StreamRow& row : table.second) {
      EXPECT_EQ(2, row.stamp < 0 ? -row.stamp : row.stamp) << "table " << table.first << " row " << row.index;
    }
  }
  EXPECT_TRUE(second[THREAD_TABLE_ID].empty());
  ASSERT_EQ(1u, second[SNAPSHOT_TABLE_ID].size());
  EXPECT_EQ(2, second[SNAPSHOT_TABLE_ID][0].stamp);

  // Nothing changed since: a third update with the last stamp has empty tables only.
  for (jint i = 0; i < TABLE_COUNT; i++) {
    stamps[i] = 2;
  }
  writeTableUpdate(nullptr, ourDB, socket.myAgentEnd, STRINGS_THREADS_SNAPSHOTS, stamps);
  std::vector<unsigned char> third = socket.receive();
  EXPECT_EQ(3u * 8 + 4, third.size());
}

TEST_F(TableStreamTest, DeletedRowIsSentWhileItsStampExceedsTheClientsStamp) {
  ourDB->myMonitorTable->getRecord(3, true)->myModificationStamp = -5;
  jint stamps[TABLE_STAMP_COUNT] = {0};
  for (jint minStamp : {4, 5}) {
    stamps[MONITOR_TABLE_ID] = minStamp;
    MemoryWriter writer;
    writeTables(nullptr, ourDB, writer, 1 << MONITOR_TABLE_ID, 0, 0, 0, stamps, false);
    StreamReader reader(writer.bytes());
    EXPECT_EQ(MONITOR_TABLE_ID, reader.readInt());
    std::vector<StreamRow> rows = readTableRows(reader, MONITOR_TABLE_ID);
    if (minStamp == 4) {
      ASSERT_EQ(1u, rows.size());
      EXPECT_EQ(3, rows[0].index);
      EXPECT_EQ(-5, rows[0].stamp);
    } else {
      EXPECT_TRUE(rows.empty());
    }
  }
}

TEST_F(TableStreamTest, ProgressPacketsFollowEachTablesShareOfTheRange) {
  SocketPair socket;
  for (jint i = 0; i < 4; i++) {
    ourDB->myCPUProfilingTable->getRecord(i, true)->myModificationStamp = 1;
  }
  MemoryWriter writer;
  // 80 points over 18 tables is 4 each; the CPU table, id 6, owns 34 to 38.
  writeTables(nullptr, ourDB, writer, 1 << CPUPROFILING_TABLE_ID, 10, 90, socket.myAgentEnd, nullptr, true);
  std::vector<unsigned char> packets = socket.receive();
  std::vector<unsigned char> expected;
  for (int percent : {35, 36, 37}) {
    std::vector<unsigned char> packet = {0, 0, 0, 0, 0x07, 0x5B, 0xCD, 0x15, 0x00, 0x01, 0x88, 0xF8, 0, 0, 0};
    packet.push_back(static_cast<unsigned char>(percent));
    expected.insert(expected.end(), packet.begin(), packet.end());
  }
  EXPECT_EQ(expected, packets);

  // A range of width 0 reports nothing at all.
  writeTables(nullptr, ourDB, writer, ALL_TABLES_MASK, 40, 40, socket.myAgentEnd, nullptr, true);
  EXPECT_TRUE(socket.receive().empty());
}

TEST(SnapshotProgressTest, PrintPercentsPrintsEvenWithoutAListener) {
  ourOptions.myPrintPercents = true;
  testing::internal::CaptureStderr();
  updateProgress(0, 42);
  std::string printed = testing::internal::GetCapturedStderr();
  ourOptions.myPrintPercents = false;
  EXPECT_EQ(0u, printed.find("snapshot progress: 42 uptime "));
  EXPECT_EQ('\n', printed.back());
}

TEST(SnapshotProgressDeathTest, PercentMustLieStrictlyBetween0And100) {
  EXPECT_DEATH(updateProgress(0, 0), "percent > 0");
  EXPECT_DEATH(updateProgress(0, 100), "percent < 100");
}
