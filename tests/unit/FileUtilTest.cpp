#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "agent/FileUtil.h"

namespace {

class FileUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kjp-fileutil-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    myDir = pattern;
  }

  void TearDown() override {
    ourAlternateTempDirForBigIntArraysUtf8 = "";
    std::string command = "rm -rf '" + myDir + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  static void writeText(const std::string& path, const std::string& text) {
    FILE* file = fopen(path.c_str(), "w");
    ASSERT_NE(nullptr, file);
    fwrite(text.data(), 1, text.size(), file);
    fclose(file);
  }

  static off_t sizeOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
  }

  std::string myDir;
};

TEST_F(FileUtilTest, ReadFileReturnsWholeStreamAcrossBlockBoundaries) {
  for (size_t length : {0, 1, 1023, 1024, 1025, 5000}) {
    std::string text;
    for (size_t i = 0; i < length; i++) {
      text += static_cast<char>('a' + i % 26);
    }
    std::string path = myDir + "/data" + std::to_string(length);
    writeText(path, text);
    FILE* file = fopen(path.c_str(), "r");
    ASSERT_NE(nullptr, file);
    KString read = readFile(file);
    fclose(file);
    EXPECT_EQ(text, std::string(read.get())) << length;
    EXPECT_EQ(static_cast<int>(length), read.length());
  }
}

TEST_F(FileUtilTest, TempFilePathUsesTheAlternateDirectoryAndTruncates) {
  ourAlternateTempDirForBigIntArraysUtf8 = myDir.c_str();
  std::string expected = myDir + "/pages1.ta";
  writeText(expected, "left over from an earlier run");

  KString path = getTempFilePath("pages");
  EXPECT_EQ(expected, std::string(path.get()));
  // The old file is taken over and emptied, not avoided.
  EXPECT_EQ(0, sizeOf(expected));

  // Where number 1 can't be opened, the next number is used.
  ASSERT_EQ(0, unlink(expected.c_str()));
  ASSERT_EQ(0, mkdir(expected.c_str(), 0755));
  KString next = getTempFilePath("pages");
  EXPECT_EQ(myDir + "/pages2.ta", std::string(next.get()));
  EXPECT_EQ(0, sizeOf(next.get()));

  EXPECT_EQ(0, deleteFile(next.get()));
  EXPECT_EQ(-1, sizeOf(next.get()));
  EXPECT_EQ(-1, deleteFile(next.get()));
}

TEST_F(FileUtilTest, TempFilePathDefaultsToTmpAndGivesUpOnAMissingDirectory) {
  std::string prefix = "kjp-fileutil-" + std::to_string(getpid()) + "-";
  KString path = getTempFilePath(prefix.c_str());
  EXPECT_EQ("/tmp/" + prefix + "1.ta", std::string(path.get()));
  struct stat info;
  ASSERT_EQ(0, stat(path.get(), &info));
  EXPECT_EQ(0644 & ~0022, static_cast<int>(info.st_mode & 0777) & ~0022);
  EXPECT_EQ(0, deleteFile(path.get()));

  ourAlternateTempDirForBigIntArraysUtf8 = (myDir + "/missing").c_str();
  EXPECT_EQ(0, getTempFilePath("x").length());
}

}  // namespace
