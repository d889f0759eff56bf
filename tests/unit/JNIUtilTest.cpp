// The JNI helpers against a hand-made JNI function table: each fake records what the helper
// asked of the JVM, so the tests can check the calls and the degraded paths without a JVM.
// What only a real JVM can show (real strings, real exceptions) belongs to the Java tests.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "agent/FileUtil.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/Options.h"

namespace {

// What a jstring handle points to in these tests.
struct FakeString {
  std::string utf;
  std::u16string chars;
};

struct FakeJVM {
  bool pendingException = false;
  bool failNewString = false;
  int findClassCalls = 0;
  int newGlobalRefCalls = 0;
  int releasedUTF = 0;
  int releasedChars = 0;
  std::string lastFoundClass;
  std::string lastThrownMessage;
  jclass lastThrownClass = nullptr;
  std::vector<FakeString*> made;
  std::vector<jint> heapFilters;
  std::vector<void*> deallocated;
  jvmtiError allocateResult = JVMTI_ERROR_NONE;
};

FakeJVM* ourFake = nullptr;
int ourClassToken;
int ourGlobalClassToken;

jstring toJString(FakeString* s) { return reinterpret_cast<jstring>(s); }
FakeString* fromJString(jstring s) { return reinterpret_cast<FakeString*>(s); }

JNINativeInterface_ makeJNITable() {
  JNINativeInterface_ table = {};
  table.ExceptionCheck = [](JNIEnv*) -> jboolean { return ourFake->pendingException ? JNI_TRUE : JNI_FALSE; };
  table.ExceptionOccurred = [](JNIEnv*) -> jthrowable {
    return ourFake->pendingException ? reinterpret_cast<jthrowable>(&ourClassToken) : nullptr;
  };
  table.ExceptionClear = [](JNIEnv*) { ourFake->pendingException = false; };
  table.ExceptionDescribe = [](JNIEnv*) { fprintf(stderr, "described\n"); };
  table.FindClass = [](JNIEnv*, const char* name) -> jclass {
    ourFake->findClassCalls++;
    ourFake->lastFoundClass = name;
    return reinterpret_cast<jclass>(&ourClassToken);
  };
  table.NewGlobalRef = [](JNIEnv*, jobject) -> jobject {
    ourFake->newGlobalRefCalls++;
    return reinterpret_cast<jobject>(&ourGlobalClassToken);
  };
  table.DeleteLocalRef = [](JNIEnv*, jobject) {};
  table.ThrowNew = [](JNIEnv*, jclass cls, const char* message) -> jint {
    ourFake->lastThrownClass = cls;
    ourFake->lastThrownMessage = message;
    ourFake->pendingException = true;
    return 0;
  };
  table.NewStringUTF = [](JNIEnv*, const char* utf) -> jstring {
    if (ourFake->failNewString) {
      ourFake->pendingException = true;
      return nullptr;
    }
    FakeString* s = new FakeString{utf, u""};
    ourFake->made.push_back(s);
    return toJString(s);
  };
  table.NewString = [](JNIEnv*, const jchar* chars, jsize length) -> jstring {
    if (ourFake->failNewString) {
      ourFake->pendingException = true;
      return nullptr;
    }
    FakeString* s = new FakeString{"", std::u16string(reinterpret_cast<const char16_t*>(chars), length)};
    ourFake->made.push_back(s);
    return toJString(s);
  };
  table.GetStringUTFChars = [](JNIEnv*, jstring s, jboolean*) -> const char* { return fromJString(s)->utf.c_str(); };
  table.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char*) { ourFake->releasedUTF++; };
  table.GetStringLength = [](JNIEnv*, jstring s) -> jsize { return static_cast<jsize>(fromJString(s)->chars.size()); };
  table.GetStringChars = [](JNIEnv*, jstring s, jboolean*) -> const jchar* {
    return reinterpret_cast<const jchar*>(fromJString(s)->chars.data());
  };
  table.ReleaseStringChars = [](JNIEnv*, jstring, const jchar*) { ourFake->releasedChars++; };
  return table;
}

jvmtiInterface_1_ makeJVMTITable() {
  jvmtiInterface_1_ table = {};
  table.GetErrorName = [](jvmtiEnv*, jvmtiError, char** name) -> jvmtiError {
    static char text[] = "JVMTI_ERROR_OUT_OF_MEMORY";
    *name = text;
    return JVMTI_ERROR_NONE;
  };
  table.Allocate = [](jvmtiEnv*, jlong size, unsigned char** memory) -> jvmtiError {
    if (ourFake->allocateResult != JVMTI_ERROR_NONE) {
      return ourFake->allocateResult;
    }
    *memory = static_cast<unsigned char*>(malloc(static_cast<size_t>(size)));
    return JVMTI_ERROR_NONE;
  };
  table.Deallocate = [](jvmtiEnv*, unsigned char* memory) -> jvmtiError {
    ourFake->deallocated.push_back(memory);
    free(memory);
    return JVMTI_ERROR_NONE;
  };
  table.IterateOverHeap = [](jvmtiEnv*, jvmtiHeapObjectFilter filter, jvmtiHeapObjectCallback, const void*) -> jvmtiError {
    ourFake->heapFilters.push_back(filter);
    return JVMTI_ERROR_NONE;
  };
  return table;
}

class JNIUtilTest : public ::testing::Test {
 protected:
  JNIUtilTest() : myJNITable(makeJNITable()), myJVMTITable(makeJVMTITable()) {
    myEnv.functions = &myJNITable;
    myJVMTI.functions = &myJVMTITable;
  }

  void SetUp() override {
    ourFake = &myFake;
    mySavedJVMTI = ourJVMTI;
    mySavedJRockit = ourIsJRockit;
    mySavedDebugJNI = ourOptions.myDebugJNI;
    ourJVMTI = &myJVMTI;
  }

  void TearDown() override {
    for (FakeString* s : myFake.made) {
      delete s;
    }
    ourJVMTI = mySavedJVMTI;
    ourIsJRockit = mySavedJRockit;
    ourOptions.myDebugJNI = mySavedDebugJNI;
    ourFake = nullptr;
  }

  jstring javaString(const char* utf, const std::u16string& chars = u"") {
    FakeString* s = new FakeString{utf, chars};
    myFake.made.push_back(s);
    return toJString(s);
  }

  FakeJVM myFake;
  JNINativeInterface_ myJNITable;
  jvmtiInterface_1_ myJVMTITable;
  JNIEnv myEnv;
  _jvmtiEnv myJVMTI;
  jvmtiEnv* mySavedJVMTI;
  bool mySavedJRockit;
  bool mySavedDebugJNI;
};

TEST_F(JNIUtilTest, NewStringsPassNullAndSwallowFailures) {
  EXPECT_EQ(nullptr, newStringUTF(&myEnv, static_cast<const char*>(nullptr)));
  EXPECT_EQ(nullptr, newString(&myEnv, nullptr, 0));
  EXPECT_TRUE(myFake.made.empty()) << "null must not reach the JVM";

  jstring s = newStringUTF(&myEnv, KString("caf\xc3\xa9"));
  ASSERT_NE(nullptr, s);
  EXPECT_EQ("caf\xc3\xa9", fromJString(s)->utf);
  const unsigned short wide[] = {'h', 0x4e16, 'i'};
  jstring w = newString(&myEnv, wide, 2);
  ASSERT_NE(nullptr, w);
  EXPECT_EQ(std::u16string(u"h\u4e16"), fromJString(w)->chars);

  // The JVM can't make the string (out of memory): null, and no exception left behind.
  myFake.failNewString = true;
  EXPECT_EQ(nullptr, newStringUTF(&myEnv, "x"));
  EXPECT_FALSE(myFake.pendingException);
  EXPECT_EQ(nullptr, newString(&myEnv, wide, 3));
  EXPECT_FALSE(myFake.pendingException);
}

TEST_F(JNIUtilTest, JavaStringsConvertAndNullGivesEmpty) {
  EXPECT_EQ(0, createUTFKStringFromJString(&myEnv, nullptr).length());
  EXPECT_EQ(0, createKWStringFromJString(&myEnv, nullptr).length());
  EXPECT_STREQ("a/b\xc3\xa9", createUTFKStringFromJString(&myEnv, javaString("a/b\xc3\xa9")).get());
  KWString wide = createKWStringFromJString(&myEnv, javaString("", u"x\u4e16y"));
  ASSERT_EQ(3, wide.length());
  EXPECT_EQ(0x4e16, wide.get()[1]);
  EXPECT_EQ(u'y', wide.get()[2]);
  EXPECT_EQ(1, myFake.releasedUTF);
  EXPECT_EQ(1, myFake.releasedChars);
}

TEST_F(JNIUtilTest, ThrowExceptionFormatsNumbersAndFindsTheClassOnce) {
  throwException(&myEnv, "Cannot start");
  EXPECT_EQ("Cannot start", myFake.lastThrownMessage);
  // The class is looked up once per process: another test's environment may have made it.
  jclass thrownClass = myFake.lastThrownClass;
  if (myFake.findClassCalls == 1) {
    EXPECT_EQ(reinterpret_cast<jclass>(&ourGlobalClassToken), thrownClass);
  }
  myFake.pendingException = false;

  throwException(&myEnv, "Bad index", 7, -12);
  EXPECT_EQ("Bad index (7, -12)", myFake.lastThrownMessage);
  myFake.pendingException = false;
  throwException(&myEnv, "", INT_MIN, INT_MAX);
  EXPECT_EQ(" (-2147483648, 2147483647)", myFake.lastThrownMessage);
  EXPECT_EQ(thrownClass, myFake.lastThrownClass);

  // Earlier tests in this process may already have made the global reference; after that no
  // further lookup may happen.
  EXPECT_LE(myFake.findClassCalls, 1);
  EXPECT_LE(myFake.newGlobalRefCalls, 1);
  if (myFake.findClassCalls == 1) {
    EXPECT_EQ("java/lang/RuntimeException", myFake.lastFoundClass);
  }
}

TEST_F(JNIUtilTest, FindClassNamesTheClassOnlyWhenDebuggingJNI) {
  ourOptions.myDebugJNI = false;
  testing::internal::CaptureStdout();
  EXPECT_EQ(reinterpret_cast<jclass>(&ourClassToken), findClass(&myEnv, "com/kestrix/runtime/Core"));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());

  ourOptions.myDebugJNI = true;
  testing::internal::CaptureStdout();
  findClass(&myEnv, "com/kestrix/runtime/Callback");
  EXPECT_EQ("findClass: com/kestrix/runtime/Callback\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ("com/kestrix/runtime/Callback", myFake.lastFoundClass);
}

TEST_F(JNIUtilTest, PendingExceptionAfterAJNICallEndsTheProcess) {
  assertJNI(&myEnv);  // nothing pending: returns
  myFake.pendingException = true;
  EXPECT_EXIT(assertJNI(&myEnv), testing::ExitedWithCode(255),
              "assertJNI failed .*JNIUtilTest.cpp [0-9]+\ndescribed");
}

TEST_F(JNIUtilTest, JVMTIErrorEndsTheProcessWithItsName) {
  check_JVMTI_error_impl(JVMTI_ERROR_NONE, "Here.cpp", 1);
  EXPECT_DEATH(check_JVMTI_error_impl(JVMTI_ERROR_OUT_OF_MEMORY, "Agent.cpp", 42),
               "ERROR: JVMTI error err=110\\(JVMTI_ERROR_OUT_OF_MEMORY\\) in Agent.cpp:42");
  myFake.allocateResult = JVMTI_ERROR_OUT_OF_MEMORY;
  EXPECT_DEATH(allocate(16), "JVMTI error err=110.*JNIUtil.cpp");

  // Work that outlives the JVM's death event is told so and dropped; before it, a refused
  // phase is the agent's fault like any other error.
  EXPECT_TRUE(check_JVMTI_alive_impl(JVMTI_ERROR_NONE, "Here.cpp", 2));
  EXPECT_DEATH(check_JVMTI_alive_impl(JVMTI_ERROR_WRONG_PHASE, "Early.cpp", 3), "err=112.* in Early.cpp:3");
  ourVMDeathCalled = true;
  EXPECT_FALSE(check_JVMTI_alive_impl(JVMTI_ERROR_WRONG_PHASE, "Late.cpp", 4));
  EXPECT_DEATH(check_JVMTI_alive_impl(JVMTI_ERROR_OUT_OF_MEMORY, "Late.cpp", 5), "err=110.* in Late.cpp:5");
  ourVMDeathCalled = false;
}

TEST_F(JNIUtilTest, MemoryAndHeapWalkGoThroughTheToolInterface) {
  void* memory = allocate(64);
  ASSERT_NE(nullptr, memory);
  memset(memory, 1, 64);
  deallocate(memory);
  ASSERT_EQ(1u, myFake.deallocated.size());
  EXPECT_EQ(memory, myFake.deallocated[0]);

  ourIsJRockit = false;
  iterateOverHeapEither(&myJVMTI, nullptr, nullptr);
  EXPECT_EQ(std::vector<jint>({JVMTI_HEAP_OBJECT_EITHER}), myFake.heapFilters);
  myFake.heapFilters.clear();
  ourIsJRockit = true;
  iterateOverHeapEither(&myJVMTI, nullptr, nullptr);
  EXPECT_EQ(std::vector<jint>({JVMTI_HEAP_OBJECT_TAGGED, JVMTI_HEAP_OBJECT_UNTAGGED}), myFake.heapFilters);
}

TEST_F(JNIUtilTest, JavaPathsOpenWithTheirModes) {
  char pattern[] = "/tmp/kjp-jniutil-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(pattern));
  std::string path = std::string(pattern) + "/f";
  jstring javaPath = javaString(path.c_str());
  char c;

  EXPECT_EQ(-1, openFileForRead(&myEnv, javaPath));
  EXPECT_EQ(-1, openFileForWrite(&myEnv, nullptr));
  int fd = openFileForWrite(&myEnv, javaPath);
  EXPECT_EQ(5, write(fd, "hello", 5));
  EXPECT_EQ(-1, read(fd, &c, 1)) << "write-only";
  closeFile(fd);

  for (int (*openForReading)(JNIEnv*, jstring) : {openFileForRead, openFileForMapping}) {
    fd = openForReading(&myEnv, javaPath);
    EXPECT_EQ(1, read(fd, &c, 1));
    EXPECT_EQ(-1, write(fd, "x", 1)) << "read-only";
    closeFile(fd);
  }

  // Read-write, and what was there is gone.
  fd = openFileForMapping2(&myEnv, javaPath);
  EXPECT_EQ(0, read(fd, &c, 1));
  EXPECT_EQ(2, write(fd, "ab", 2));
  closeFile(fd);
  fd = openFileForWrite(&myEnv, javaPath);
  closeFile(fd);
  struct stat info;
  ASSERT_EQ(0, stat(path.c_str(), &info));
  EXPECT_EQ(0, info.st_size) << "truncated again";
  EXPECT_EQ(6, myFake.releasedUTF) << "every path given back to the JVM";

  EXPECT_EQ(0, deleteFile(path.c_str()));
  rmdir(pattern);
}

}  // namespace
