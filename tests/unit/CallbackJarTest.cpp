// Putting the callback jar where every JVM with the agent finds it, while other JVMs run from
// the same file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "agent/CallbackJar.h"

namespace {

class CallbackJarTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kjp-jar-test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    myDir = pattern;
    myPath = getCallbackJarPath(myDir.c_str()).get();
  }

  void TearDown() override {
    chmod(myDir.c_str(), 0700);
    std::string command = "rm -rf '" + myDir + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  static void write(const std::string& path, const std::string& bytes, mode_t mode) {
    std::ofstream(path, std::ios::binary) << bytes;
    ASSERT_EQ(0, chmod(path.c_str(), mode));
  }

  static std::string jar() {
    return std::string(reinterpret_cast<const char*>(ourCallbackJarBytes), ourCallbackJarBytes_length);
  }

  static ino_t inode(const std::string& path) {
    struct stat info;
    EXPECT_EQ(0, lstat(path.c_str(), &info));
    return info.st_ino;
  }

  std::string install() { return installCallbackJar(myPath.c_str()).get(); }

  int filesInDir() {
    std::string command = "test $(ls -A '" + myDir + "' | wc -l) -eq ";
    for (int n = 0; n < 8; n++) {
      if (system((command + std::to_string(n)).c_str()) == 0) {
        return n;
      }
    }
    return -1;
  }

  std::string myDir;
  std::string myPath;
};

TEST_F(CallbackJarTest, AFreshJarOrOneWithTheSameBytesIsUsedWhereItIs) {
  ASSERT_EQ(myPath, install());
  EXPECT_EQ(jar(), read(myPath));
  struct stat info;
  ASSERT_EQ(0, stat(myPath.c_str(), &info));
  EXPECT_EQ(0644u, info.st_mode & 0777);
  // A second JVM leaves the first one's jar alone: same file, nothing beside it.
  ino_t first = inode(myPath);
  ASSERT_EQ(myPath, install());
  EXPECT_EQ(first, inode(myPath));
  EXPECT_EQ(1, filesInDir());
}

TEST_F(CallbackJarTest, AnotherJarIsReplacedWithoutTruncatingItUnderTheJvmsThatMappedIt) {
  std::string older(8192, 'x');
  write(myPath, older, 0644);
  int fd = open(myPath.c_str(), O_RDONLY);
  ASSERT_NE(-1, fd);
  void* mapped = mmap(nullptr, older.size(), PROT_READ, MAP_SHARED, fd, 0);
  ASSERT_NE(MAP_FAILED, mapped);
  ino_t before = inode(myPath);

  ASSERT_EQ(myPath, install());
  // A truncated file would end this process with SIGBUS here.
  EXPECT_EQ(older, std::string(static_cast<const char*>(mapped), older.size()));
  EXPECT_EQ(jar(), read(myPath));
  EXPECT_NE(before, inode(myPath));
  EXPECT_EQ(1, filesInDir());
  munmap(mapped, older.size());
  close(fd);
}

TEST_F(CallbackJarTest, LinksAndFilesOthersMayWriteAreNeverTrusted) {
  // A link placed at the jar's name doesn't lead the agent to write its target.
  std::string victim = myDir + "/victim";
  write(victim, "precious", 0644);
  ASSERT_EQ(0, symlink(victim.c_str(), myPath.c_str()));
  ASSERT_EQ(myPath, install());
  EXPECT_EQ("precious", read(victim));
  struct stat info;
  ASSERT_EQ(0, lstat(myPath.c_str(), &info));
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(jar(), read(myPath));

  // The right bytes in a file that anybody may change are written anew.
  ASSERT_EQ(0, unlink(myPath.c_str()));
  write(myPath, jar(), 0666);
  ino_t writable = inode(myPath);
  ASSERT_EQ(myPath, install());
  EXPECT_NE(writable, inode(myPath));
  ASSERT_EQ(0, stat(myPath.c_str(), &info));
  EXPECT_EQ(0644u, info.st_mode & 0777);
}

TEST_F(CallbackJarTest, ADirectoryThatCantBeWrittenServesAnEarlierJarOrNone) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "root writes any directory";
  }
  ASSERT_EQ(0, chmod(myDir.c_str(), 0500));
  EXPECT_EQ("", install());
  ASSERT_EQ(0, chmod(myDir.c_str(), 0700));
  write(myPath, "an older agent's jar", 0644);
  ASSERT_EQ(0, chmod(myDir.c_str(), 0500));
  EXPECT_EQ(myPath, install());
}

}  // namespace
