#include "snapshot/SnapshotNaming.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "SnapshotTestSupport.h"
#include "agent/Options.h"
#include "agent/JVMTI_Agent.h"
#include "snapshot/OOMESnapshotDetector.h"
#include "snapshot/SnapshotFile.h"

namespace {

void touch(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  close(fd);
}

// Sets a file's modification time, so that tests need not wait for the clock to move.
void setModificationTime(const std::string& path, time_t seconds) {
  struct timespec times[2];
  times[0].tv_sec = seconds;
  times[0].tv_nsec = 0;
  times[1] = times[0];
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

// Runs with TZ=UTC, so that dates of fixed instants are known.
class UTCTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* zone = getenv("TZ");
    mySavedZone = zone == nullptr ? "" : zone;
    myHadZone = zone != nullptr;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    if (myHadZone) {
      setenv("TZ", mySavedZone.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::string mySavedZone;
  bool myHadZone = false;
};

}  // namespace

TEST_F(UTCTest, BaseNameIsSessionDateAndPostfixWithUnsafeCharactersReplaced) {
  const time_t february20th2009 = 1235140000;
  EXPECT_EQ(std::string("my_app_v1.2-2009-02-20-shutdown"),
            makeSnapshotBaseName("my app/v1.2", "shutdown", february20th2009).get());
  EXPECT_EQ(std::string("2009-02-20-periodic"), makeSnapshotBaseName("", "periodic", february20th2009).get());
  EXPECT_EQ(std::string("Demo-2009-02-20"), makeSnapshotBaseName("Demo", nullptr, february20th2009).get());
  EXPECT_EQ(std::string("caf\xC3\xA9_1"), sessionNameToFileNamePart("caf\xC3\xA9:1").get());
}

TEST(SnapshotNamingTest, NumberIsOneAboveTheHighestInUseAndNeverFillsGaps) {
  TempDir dir;
  KString base("App-2009-02-20-shutdown");
  EXPECT_EQ(dir.file("App-2009-02-20-shutdown.snapshot"), chooseSnapshotFile(dir.path().c_str(), base, ".snapshot").get());
  touch(dir.file("App-2009-02-20-shutdown.snapshot"));
  EXPECT_EQ(dir.file("App-2009-02-20-shutdown(1).snapshot"),
            chooseSnapshotFile(dir.path().c_str(), base, ".snapshot").get());
  touch(dir.file("App-2009-02-20-shutdown(7).snapshot"));
  touch(dir.file("App-2009-02-20-shutdown(ab).snapshot"));
  touch(dir.file("App-2009-02-20-shutdown(99).hprof"));
  touch(dir.file("Other-2009-02-20-shutdown(50).snapshot"));
  EXPECT_EQ(dir.file("App-2009-02-20-shutdown(8).snapshot"),
            chooseSnapshotFile(dir.path().c_str(), base, ".snapshot").get());
  EXPECT_EQ(dir.file("App-2009-02-20-shutdown(100).hprof"),
            chooseSnapshotFile(dir.path().c_str(), base, ".hprof").get());
}

TEST(SnapshotNamingTest, DirectoryComesFromTheOptionOrTheHomeAndIsMadeWithItsParents) {
  EXPECT_STREQ("/home/u/Snapshots", getSnapshotDirectory(nullptr, "/home/u").get());
  EXPECT_STREQ("/data/snaps", getSnapshotDirectory("/data/snaps", "/home/u").get());
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  EXPECT_EQ(std::string(cwd) + "/rel/dir", getSnapshotDirectory("rel/dir", "/home/u").get());

  TempDir dir;
  std::string nested = dir.file("a/b/c");
  EXPECT_TRUE(makeDirectories(nested.c_str()));
  struct stat info;
  EXPECT_EQ(0, stat(nested.c_str(), &info));
  EXPECT_TRUE(makeDirectories(nested.c_str()));  // already there
  touch(dir.file("file"));
  EXPECT_FALSE(makeDirectories(dir.file("file").c_str()));
  EXPECT_FALSE(makeDirectories(dir.file("file/below").c_str()));
}

TEST(HeapDumpWatcherTest, TheFileNamedAfterThePidInADirectoryIsTheDump) {
  TempDir dir;
  HeapDumpWatcher watcher(dir.path().c_str(), 4321);
  EXPECT_EQ(dir.file("java_pid4321.hprof"), watcher.getCandidate().get());
  EXPECT_EQ(0, watcher.check().length());
  // A directory's own time never counts, however its content changes.
  touch(dir.file("unrelated.hprof"));
  EXPECT_EQ(0, watcher.check().length());
  touch(dir.file("java_pid4321.hprof"));
  EXPECT_EQ(dir.file("java_pid4321.hprof"), watcher.check().get());
  EXPECT_EQ(-1, HeapDumpWatcher::modificationTime(dir.path().c_str()));
  EXPECT_EQ(-1, HeapDumpWatcher::modificationTime(dir.file("missing").c_str()));
}

TEST(HeapDumpWatcherTest, AFilePathIsTheDumpOnceItChanges) {
  TempDir dir;
  std::string path = dir.file("dump.hprof");
  touch(path);
  setModificationTime(path, 1000000000);
  HeapDumpWatcher watcher(path.c_str(), 4321);
  EXPECT_EQ(0, watcher.check().length());
  setModificationTime(path, 1000000001);
  EXPECT_EQ(path, watcher.check().get());
  EXPECT_EQ(273, OOME_HPROF_SNAPSHOT_FLAGS);
  EXPECT_EQ(SNAPSHOT_WITH_HEAP | SNAPSHOT_HPROF | SNAPSHOT_CAUSE_OOME, OOME_HPROF_SNAPSHOT_FLAGS);
}
