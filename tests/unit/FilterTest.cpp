#include <gtest/gtest.h>
#include <stdio.h>

#include "CPUTestSupport.h"
#include "agent/KHelpers.h"
#include "agent/Options.h"
#include "engines/WallTimeCorrector.h"

namespace {

using FilterTest = CPUEngineTest;

TEST_F(FilterTest, ListsBecomeFlagsWithWallTimeWinningAndJ2EEExempt) {
  jint string = indexOf(myFake.method("Ljava/lang/String;", "length", "()I"));
  jint own = indexOf(myFake.method("Lcom/acme/Shop;", "buy"));
  jint wait = indexOf(myFake.method("Ljava/lang/Object;", "wait", "(J)V"));
  jint park = indexOf(myFake.method("Ljdk/internal/misc/Unsafe;", "park", "(ZJ)V"));
  jint poll = indexOf(myFake.method("Lsun/nio/ch/Net;", "poll", "(I)I"));
  jint j2ee = indexOf(myFake.method("Ljavax/servlet/Servlet;", "service"));
  jint internal = indexOf(myFake.method("Ljdk/internal/Foo;", "bar"));
  EXPECT_EQ(0, flagsOf(string)) << "methods made before any reload carry no list flags";
  ourDB->myMethodTable->getRecord(j2ee, true)->myFlags |= MF_J2EE;

  ourDB->myModificationStamp = 7;
  Filter::reloadFilters(Filter::readFilterSpecFromFile(nullptr),
                        KString("# comment\r\njava.lang.Object wait (J)V\r\n"));
  EXPECT_EQ(MF_FILTERED, flagsOf(string)) << "java.* becomes java.** and still matches";
  EXPECT_EQ(MF_FILTERED, flagsOf(internal));
  EXPECT_EQ(0, flagsOf(own));
  EXPECT_EQ(MF_WALL_TIME, flagsOf(wait)) << "wall time overrides the filter and wait lists";
  EXPECT_EQ(MF_FILTERED | MF_WAIT, flagsOf(park));
  EXPECT_EQ(MF_FILTERED | MF_WAIT, flagsOf(poll));
  EXPECT_EQ(MF_J2EE, flagsOf(j2ee));
  EXPECT_EQ(7, ourDB->myMethodTable->getRecord(string, false)->myModificationStamp);
  EXPECT_NE(7, ourDB->myMethodTable->getRecord(own, false)->myModificationStamp) << "unchanged rows keep stamps";

  // New methods get flags when they are first named.
  EXPECT_EQ(MF_FILTERED, flagsOf(indexOf(myFake.method("Ljavax/swing/JFrame;", "show"))));
}

TEST_F(FilterTest, MalformedLinesWarnAndCarriageReturnsStayInFilterLines) {
  jint own = indexOf(myFake.method("Lcom/acme/Shop;", "buy", "(I)V"));
  jint other = indexOf(myFake.method("Lcom/acme/Cart;", "add", "(I)V"));
  bool savedQuiet = ourOptions.myQuiet;
  ourOptions.myQuiet = false;
  testing::internal::CaptureStderr();
  Filter::reloadFilters(KString("com.acme.Shop\r\ncom.acme.Cart add\ncom.acme.X a b c\n#com\n"), KString(""));
  std::string err = testing::internal::GetCapturedStderr();
  ourOptions.myQuiet = savedQuiet;
  EXPECT_NE(std::string::npos, err.find(KJP_LOG_PREFIX "*** WARNING! *** Invalid filter line: com.acme.Cart add\n"));
  EXPECT_NE(std::string::npos, err.find("Invalid filter line: com.acme.X a b c\n"));
  EXPECT_EQ(0, flagsOf(own)) << "the carriage return is part of the pattern";
  EXPECT_EQ(0, flagsOf(other));
  EXPECT_EQ(16, Filter::ourFilters.size()) << "the one-piece line and the fifteen wait entries";

  Filter::reloadFilters(KString("com.acme.Cart add (I)V"), KString(""));
  EXPECT_EQ(MF_FILTERED, flagsOf(other));
}

TEST_F(FilterTest, APlusLineInvertsAllListsForGood) {
  jint own = indexOf(myFake.method("Lcom/acme/Shop;", "buy"));
  jint lib = indexOf(myFake.method("Lorg/lib/Util;", "run"));
  jint wait = indexOf(myFake.method("Ljava/lang/Object;", "wait", "(J)V"));
  Filter::reloadFilters(KString("+com.acme"), KString(""));
  EXPECT_TRUE(ourInverseFilters);
  EXPECT_EQ(MF_WAIT, flagsOf(own));
  EXPECT_EQ(MF_FILTERED | MF_WAIT, flagsOf(lib));
  EXPECT_EQ(MF_FILTERED | MF_WAIT, flagsOf(wait)) << "the other wait entries, inverted, accept it";
  Filter::reloadFilters(KString("com.acme"), KString(""));
  EXPECT_TRUE(ourInverseFilters);
  EXPECT_EQ(MF_WAIT, flagsOf(own));
}

TEST_F(FilterTest, StartUpListsComeFromTheOptionFilesOnce) {
  char path[] = "/tmp/kjp-filter-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  FILE* file = fdopen(fd, "w");
  fputs("org.mine.*\n", file);
  fclose(file);
  ourOptions.myFilters = k_strdup(path);
  EXPECT_STREQ("org.mine.*\n", Filter::readFilterSpecOnStartup().get());
  EXPECT_EQ(nullptr, ourOptions.myFilters);
  EXPECT_STREQ(DEFAULT_FILTER_SPEC, Filter::readFilterSpecOnStartup().get());
  ourOptions.myFilters = k_strdup("/nonexistent/kjp/filters");
  EXPECT_STREQ(DEFAULT_FILTER_SPEC, Filter::readFilterSpecOnStartup().get());
  ourOptions.myWallTimeSpec = k_strdup(path);
  EXPECT_STREQ("org.mine.*\n", Filter::readWallTimeSpecOnStartup().get());
  unlink(path);
}

TEST_F(FilterTest, WallTimeCorrectionRaisesFramesToTheirChildrensSum) {
  ThreadInfo* info = startThread("w");
  ThreadInfo* other = startThread("o");
  jint a = ourFrameStorage.getChild(0, 1);
  jint b = ourFrameStorage.getChild(a, 2);
  jint c = ourFrameStorage.getChild(a, 3);
  jint d = ourFrameStorage.getChild(b, 4);
  jint big = ourFrameStorage.getChild(0, 5);
  jint bigChild = ourFrameStorage.getChild(big, 6);
  info->getCPUProfilingRecord(a, true)->time = 10;
  info->getCPUProfilingRecord(b, true)->time = 5;
  info->getCPUProfilingRecord(d, true)->time = 30;
  info->getCPUProfilingRecord(c, true)->time = 4;
  info->getCPUProfilingRecord(big, true)->time = 100;
  info->getCPUProfilingRecord(bigChild, true)->time = 60;
  other->getCPUProfilingRecord(b, true)->time = 1;
  other->getCPUProfilingRecord(d, true)->time = 50;

  WallTimeCorrector corrector;
  corrector.scheduleForCorrection(info);  // not marked: nothing to do
  corrector.correctWallTimes();
  EXPECT_EQ(5, info->getCPUProfilingRecord(b, false)->time);

  info->myNeedsWallTimeCorrection = true;
  corrector.scheduleForCorrection(info);
  EXPECT_FALSE(info->myNeedsWallTimeCorrection);
  corrector.correctWallTimes();
  EXPECT_EQ(30, info->getCPUProfilingRecord(b, false)->time);
  EXPECT_EQ(34, info->getCPUProfilingRecord(a, false)->time) << "corrected children count";
  EXPECT_EQ(100, info->getCPUProfilingRecord(big, false)->time) << "a frame above its children stays";
  EXPECT_EQ(134, info->getCPUProfilingRecord(0, false)->time);
  EXPECT_EQ(1, other->getCPUProfilingRecord(b, false)->time) << "unscheduled threads are left alone";
  EXPECT_DEATH(corrector.scheduleForCorrection(nullptr), "threadInfo");
}

}  // namespace
