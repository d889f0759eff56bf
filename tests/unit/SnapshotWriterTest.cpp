#include "snapshot/SnapshotWriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "SnapshotTestSupport.h"

namespace {

int openForWrite(const std::string& path) { return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644); }

}  // namespace

TEST(SnapshotWriterTest, BufferIsFlushedOnlyWhenTheNextByteComesAndOnSeekAndPosition) {
  TempDir dir;
  std::string path = dir.file("out");
  int fd = openForWrite(path);
  ASSERT_GE(fd, 0);
  {
    SnapshotWriter writer(fd, 4, true);
    writer.writeInt(0x04030201);
    // Exactly full: nothing has reached the file yet.
    EXPECT_EQ(4, writer.getBufferedCount());
    EXPECT_EQ(0u, readAll(path).size());
    writer.writeByte(5);
    EXPECT_EQ(1, writer.getBufferedCount());
    EXPECT_EQ(4u, readAll(path).size());
    EXPECT_EQ(5, writer.position());
    EXPECT_EQ(0, writer.getBufferedCount());
    EXPECT_EQ(1, writer.seek(1, SEEK_SET));
    writer.writeByte(0x11);
    EXPECT_EQ(5, writer.seek(0, SEEK_END));
    writer.writeShort(0x0706);
    EXPECT_EQ(nullptr, writer.getError());
  }
  // The destructor flushed the last short.
  close(fd);
  EXPECT_EQ((std::vector<unsigned char>{1, 0x11, 3, 4, 5, 6, 7}), readAll(path));
}

TEST(SnapshotWriterTest, CountersPatchTheirPlaceholdersAndLeaveThePositionAtTheEnd) {
  TempDir dir;
  std::string path = dir.file("out");
  int fd = openForWrite(path);
  ASSERT_GE(fd, 0);
  {
    SnapshotWriter writer(fd, 3, true);
    writer.writeByte(0xAA);
    SnapshotWriter::Counter count(writer);
    SnapshotWriter::LongCounter total(writer);
    for (int i = 0; i < 10; i++) {
      writer.writeByte(i);
      count.myValue++;
      total.myValue += 1LL << 40;
    }
    count.commit();
    // The next byte lands behind everything, not behind the placeholder.
    writer.writeByte(0xBB);
    total.commit();
    writer.writeByte(0xCC);
    EXPECT_EQ(1 + 4 + 8 + 10 + 2, writer.position());
  }
  close(fd);
  StreamReader reader(readAll(path));
  EXPECT_EQ(0xAA, reader.readByte());
  EXPECT_EQ(10, reader.readInt());
  EXPECT_EQ(10LL << 40, reader.readLong());
  for (int i = 0; i < 10; i++) {
    EXPECT_EQ(i, reader.readByte());
  }
  EXPECT_EQ(0xBB, reader.readByte());
  EXPECT_EQ(0xCC, reader.readByte());
  EXPECT_TRUE(reader.atEnd());
}

TEST(SnapshotWriterDeathTest, CounterMustBeCommittedExactlyOnce) {
  TempDir dir;
  int fd = openForWrite(dir.file("out"));
  ASSERT_GE(fd, 0);
  EXPECT_DEATH(
      {
        SnapshotWriter writer(fd, 16, true);
        SnapshotWriter::Counter forgotten(writer);
      },
      "myCommited");
  EXPECT_DEATH(
      {
        SnapshotWriter writer(fd, 16, true);
        SnapshotWriter::LongCounter twice(writer);
        twice.commit();
        twice.commit();
      },
      "!myCommited");
  close(fd);
}

TEST(SnapshotWriterTest, FirstWriteErrorIsKeptInEnglishAndWritingGoesOn) {
  TempDir dir;
  int fd = openForWrite(dir.file("out"));
  ASSERT_GE(fd, 0);
  close(fd);  // every write now fails with EBADF
  SnapshotWriter writer(fd, 2, true);
  for (int i = 0; i < 10; i++) {
    writer.writeByte(i);
  }
  writer.flush();
  ASSERT_NE(nullptr, writer.getError());
  // The agent's own text, not the C library's "Bad file descriptor".
  EXPECT_STREQ("Bad file number", writer.getError());
  EXPECT_EQ(0, writer.getBufferedCount());
}

TEST(SnapshotWriterTest, FullDiskGivesTheEnglishTextAndATruncatedFile) {
  SmallFileSystem disk("64k");
  if (!disk.available()) {
    GTEST_SKIP() << "cannot mount a tmpfs here (needs root)";
  }
  std::string path = disk.file("big");
  int fd = openForWrite(path);
  ASSERT_GE(fd, 0);
  const int total = 256 * 1024;
  {
    SnapshotWriter writer(fd, 4096, true);
    for (int i = 0; i < total; i++) {
      writer.writeByte(i % 251);
    }
    writer.flush();
    ASSERT_NE(nullptr, writer.getError());
    EXPECT_STREQ("No space left on device", writer.getError());
  }
  close(fd);
  std::vector<unsigned char> bytes = readAll(path);
  EXPECT_GT(bytes.size(), 0u);
  EXPECT_LE(bytes.size(), 64u * 1024);
  // What did reach the disk is the start of what was written.
  for (size_t i = 0; i < bytes.size(); i++) {
    ASSERT_EQ(i % 251, bytes[i]) << "at " << i;
  }
}
