#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "agent/HostID.h"

namespace {

class HostIDTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kjp-hostid-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    myDir = pattern;
  }

  void TearDown() override {
    std::string command = "rm -rf '" + myDir + "'";
    ASSERT_EQ(0, system(command.c_str()));
  }

  void write(const std::string& relative, const std::string& text) {
    FILE* file = fopen((myDir + "/" + relative).c_str(), "w");
    ASSERT_NE(nullptr, file);
    fputs(text.c_str(), file);
    fclose(file);
  }

  // An interface directory as /sys/class/net has it; with a device link for real hardware.
  void addInterface(const char* name, const char* mac, bool hasDevice) {
    ASSERT_EQ(0, mkdir((myDir + "/" + name).c_str(), 0755));
    write(std::string(name) + "/address", std::string(mac) + "\n");
    if (hasDevice) {
      ASSERT_EQ(0, mkdir((myDir + "/" + name + "/device").c_str(), 0755));
    }
  }

  std::string myDir;
};

TEST_F(HostIDTest, MacOfThePreferredInterfaceIsChosen) {
  char mac[18];
  EXPECT_FALSE(readMacAddress(myDir.c_str(), mac, sizeof(mac)));

  addInterface("lo", "00:00:00:00:00:00", false);
  addInterface("aa0", "00:00:00:00:00:00", true);  // no address: skipped
  addInterface("bb0", "not a mac", true);
  EXPECT_FALSE(readMacAddress(myDir.c_str(), mac, sizeof(mac)));

  addInterface("veth9", "66:55:44:33:22:11", false);
  ASSERT_TRUE(readMacAddress(myDir.c_str(), mac, sizeof(mac)));
  EXPECT_STREQ("66:55:44:33:22:11", mac);
  addInterface("docker0", "77:55:44:33:22:11", false);
  ASSERT_TRUE(readMacAddress(myDir.c_str(), mac, sizeof(mac)));
  EXPECT_STREQ("77:55:44:33:22:11", mac);

  // Hardware wins over virtual interfaces, whatever their names; the name breaks ties.
  addInterface("wlan0", "0A:0B:0C:0D:0E:0F", true);
  addInterface("eth1", "01:02:03:04:05:06", true);
  ASSERT_TRUE(readMacAddress(myDir.c_str(), mac, sizeof(mac)));
  EXPECT_STREQ("01:02:03:04:05:06", mac);

  EXPECT_FALSE(readMacAddress(myDir.c_str(), mac, 10));
  EXPECT_FALSE(readMacAddress((myDir + "/missing").c_str(), mac, sizeof(mac)));
}

TEST_F(HostIDTest, MachineIDIsTrimmedAndBlankFilesDontCount) {
  char id[64];
  write("id", "  3d1219c7c4c5404aaa1f6d2a48adfda4 \n");
  ASSERT_TRUE(readMachineID((myDir + "/id").c_str(), id, sizeof(id)));
  EXPECT_STREQ("3d1219c7c4c5404aaa1f6d2a48adfda4", id);
  EXPECT_FALSE(readMachineID((myDir + "/id").c_str(), id, 10));
  write("blank", " \n");
  EXPECT_FALSE(readMachineID((myDir + "/blank").c_str(), id, sizeof(id)));
  write("empty", "");
  EXPECT_FALSE(readMachineID((myDir + "/empty").c_str(), id, sizeof(id)));
  EXPECT_FALSE(readMachineID((myDir + "/missing").c_str(), id, sizeof(id)));
}

TEST_F(HostIDTest, HostIDsAreStableAcrossCallsAndProcesses) {
  KString id = getHostID();
  KString id2 = getHostID2();
  ASSERT_GT(id.length(), 0);
  ASSERT_GT(id2.length(), 0);
  EXPECT_TRUE(getHostID() == id);
  EXPECT_TRUE(getHostID2() == id2);
  for (const char* c = id.get(); *c != 0; c++) {
    EXPECT_TRUE(*c > ' ' && *c < 127) << id.get();
  }
  char hostName[256] = "";
  gethostname(hostName, sizeof(hostName));
  EXPECT_TRUE(id2.startsWith(hostName)) << id2.get();

  // A separate process works everything out afresh and must reach the same texts.
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    KString childText = KString(getHostID().get(), "|") + getHostID2().get();
    ssize_t ignored = ::write(fds[1], childText.get(), static_cast<size_t>(childText.length()));
    (void)ignored;
    _exit(0);
  }
  close(fds[1]);
  std::string fromChild;
  char buffer[256];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof(buffer))) > 0) {
    fromChild.append(buffer, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status;
  waitpid(child, &status, 0);
  EXPECT_EQ(std::string(id.get()) + "|" + id2.get(), fromChild);
}

}  // namespace
