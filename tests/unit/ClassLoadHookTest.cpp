#include <gtest/gtest.h>
#include <ctype.h>
#include <stdio.h>

#include "CPUTestSupport.h"
#include "CallbackClassTestSupport.h"
#include "agent/Options.h"
#include "db/records/MethodRecord.h"
#include "instrument/CallbackPatcher.h"
#include "instrument/ClassLoadHook.h"
#include "instrument/MethodIDProvider.h"

using namespace callbacktest;

namespace {

typedef std::vector<uint8_t> Code;

const char* const CALLBACK = "com/kestrix/runtime/Callback";
const char* const SS = "(SS)V";
const char* const OI = "(Ljava/lang/Object;I)I";

ClassBytes readDataClass(const std::string& relativePath) {
  std::string path = std::string(KJP_TEST_DATA_DIR) + "/classfile/classes/" + relativePath;
  ClassBytes bytes;
  FILE* file = fopen(path.c_str(), "rb");
  EXPECT_NE(nullptr, file) << path;
  if (file == nullptr) {
    return bytes;
  }
  int c;
  while ((c = fgetc(file)) != EOF) {
    bytes.push_back(static_cast<uint8_t>(c));
  }
  fclose(file);
  return bytes;
}

// Whether 'text' holds, at 'at', the timing line of a changed class: "instrumentation of class
// '<name>' has taken <n> ms changed=true".
bool isTimingLine(const std::string& text, const std::string& name, size_t at) {
  std::string head = "instrumentation of class '" + name + "' has taken ";
  if (text.compare(at, head.size(), head) != 0) {
    return false;
  }
  size_t digits = at + head.size();
  size_t end = digits;
  while (end < text.size() && isdigit(static_cast<unsigned char>(text[end]))) {
    end++;
  }
  std::string tail = " ms changed=true\n";
  return end > digits && text.compare(end, tail.size(), tail) == 0;
}

// What the fake JVM saw of redefinitions and of the callback's flag fields.
struct Observed {
  std::vector<ClassBytes> redefinitions;
  std::vector<std::pair<std::string, bool>> flagWrites;
  bool missingFields = false;
};
Observed* ourObserved = nullptr;

// The hook and redefineCallback against a fake JVM with a database behind it.
class ClassLoadHookTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    ourObserved = &myObserved;
    myJVMTITable.Allocate = [](jvmtiEnv*, jlong size, unsigned char** memory) -> jvmtiError {
      *memory = static_cast<unsigned char*>(malloc(static_cast<size_t>(size > 0 ? size : 1)));
      ourFakeCPUVM->outstandingAllocations++;
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.RedefineClasses = [](jvmtiEnv*, jint count, const jvmtiClassDefinition* definitions) -> jvmtiError {
      EXPECT_EQ(1, count);
      EXPECT_EQ(reinterpret_cast<jclass>(0x10), definitions[0].klass);
      ourObserved->redefinitions.push_back(
          ClassBytes(definitions[0].class_bytes, definitions[0].class_bytes + definitions[0].class_byte_count));
      return JVMTI_ERROR_NONE;
    };
    myJNITable.GetStaticFieldID = [](JNIEnv*, jclass, const char* name, const char* signature) -> jfieldID {
      EXPECT_STREQ("Z", signature);
      if (ourObserved->missingFields) {
        return nullptr;
      }
      return reinterpret_cast<jfieldID>(strcmp(name, "ourKJPAlloc") == 0 ? 1 : 2);
    };
    myJNITable.SetStaticBooleanField = [](JNIEnv*, jclass, jfieldID field, jboolean value) {
      ourObserved->flagWrites.push_back(
          {reinterpret_cast<intptr_t>(field) == 1 ? "ourKJPAlloc" : "ourKJPMethodEntryExit", value == JNI_TRUE});
    };

    mySavedOptions = saveOptions();
    ourOptions.myTracing = false;
    ourOptions.myAllocAtStart = false;
    ourOptions.myPrintInstrTimes = false;
    ourOptions.myDisableAlloc = false;
    ourOptions.myDisableCounts = false;
    ourOptions.myDisableJ2EE = false;
    ourOptions.myQuiet = false;
    mySavedIBM = ourIsIBM;
    mySavedMustang = ourIsMustang;
    mySavedVMStart = ourVMStartCalled;
    mySavedStatus = ourStatus;
    ourIsIBM = false;
    ourIsMustang = true;
    ourVMStartCalled = true;
    ourCallbackSeen = false;
    ourCallbackBytes.clear();
  }

  void TearDown() override {
    restoreOptions(mySavedOptions);
    ourIsIBM = mySavedIBM;
    ourIsMustang = mySavedMustang;
    ourVMStartCalled = mySavedVMStart;
    ourStatus = mySavedStatus;
    ourCallbackSeen = false;
    ourCallbackBytes.clear();
    ourObserved = nullptr;
    CPUEngineTest::TearDown();
  }

  struct OptionFields {
    bool tracing, allocAtStart, printInstrTimes, disableAlloc, disableCounts, disableJ2EE, quiet;
  };
  static OptionFields saveOptions() {
    return {ourOptions.myTracing,     ourOptions.myAllocAtStart, ourOptions.myPrintInstrTimes,
            ourOptions.myDisableAlloc, ourOptions.myDisableCounts, ourOptions.myDisableJ2EE,
            ourOptions.myQuiet};
  }
  static void restoreOptions(const OptionFields& f) {
    ourOptions.myTracing = f.tracing;
    ourOptions.myAllocAtStart = f.allocAtStart;
    ourOptions.myPrintInstrTimes = f.printInstrTimes;
    ourOptions.myDisableAlloc = f.disableAlloc;
    ourOptions.myDisableCounts = f.disableCounts;
    ourOptions.myDisableJ2EE = f.disableJ2EE;
    ourOptions.myQuiet = f.quiet;
  }

  // Runs the hook; returns whether it handed back new bytes, which land in 'result'.
  bool hook(const char* name, const ClassBytes& input, ClassBytes* result = nullptr) {
    jint newLength = -1;
    unsigned char* newData = reinterpret_cast<unsigned char*>(1);
    class_file_load_hook_handler(&myJVMTI, &myEnv, nullptr, nullptr, name, nullptr,
                                 static_cast<jint>(input.size()), input.empty() ? nullptr : input.data(), &newLength,
                                 &newData);
    if (newData == nullptr) {
      EXPECT_EQ(0, newLength);
      return false;
    }
    EXPECT_GT(newLength, 0);
    if (result != nullptr) {
      *result = ClassBytes(newData, newData + newLength);
    }
    myJVMTITable.Deallocate(&myJVMTI, newData);
    return true;
  }

  Observed myObserved;
  OptionFields mySavedOptions;
  bool mySavedIBM = false;
  bool mySavedMustang = false;
  bool mySavedVMStart = false;
  jlong mySavedStatus = 0;
};

TEST_F(ClassLoadHookTest, bytesThatAreNoClassFilePassThroughAndAreReportedOnlyWhenAsked) {
  ClassBytes notAClass = {0xCA, 0xFE, 0xBA, 0xBF, 0, 0, 0, 52};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(hook("a/B", notAClass));
  EXPECT_FALSE(hook("a/B", ClassBytes({0xCA, 0xFE})));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());

  ourOptions.myPrintInstrTimes = true;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(hook("a/B", notAClass));
  EXPECT_FALSE(hook(nullptr, notAClass));
  EXPECT_EQ(
      "instrumentation of class a/B - not a CAFEBABE - skipping\n"
      "instrumentation of class <NULL> - not a CAFEBABE - skipping\n",
      testing::internal::GetCapturedStderr());
}

TEST_F(ClassLoadHookTest, aClassIsInstrumentedAndTimedAlsoWithoutAName) {
  ClassBytes modern = readDataClass("v17/kjptest/Modern17.class");
  ourOptions.myPrintInstrTimes = true;
  ClassBytes result;
  testing::internal::CaptureStderr();
  EXPECT_TRUE(hook(nullptr, modern, &result));
  EXPECT_TRUE(hook("kjptest/Modern17", modern));
  std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(isTimingLine(printed, "<NULL>", 0)) << printed;
  EXPECT_TRUE(isTimingLine(printed, "kjptest/Modern17", printed.find('\n') + 1)) << printed;
  // At the least, the probes' references to the callback class are in its pool now.
  std::string text(result.begin(), result.end());
  EXPECT_NE(std::string::npos, text.find(CALLBACK));
  EXPECT_NE(std::string::npos, text.find("kjpMethodEntry"));
}

TEST_F(ClassLoadHookTest, afterVMDeathEveryClassLoadsAsItCame) {
  ourVMDeathCalled = true;
  ourOptions.myPrintInstrTimes = true;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(hook("kjptest/Modern17", readDataClass("v17/kjptest/Modern17.class")));
  EXPECT_FALSE(hook(CALLBACK, embeddedCallbackClass()));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_FALSE(ourCallbackSeen);
}

TEST_F(ClassLoadHookTest, aClassTheModelCannotReadIsHandedBackUnchangedWithAWarning) {
  ClassBytes modern = readDataClass("v17/kjptest/Modern17.class");
  ClassBytes truncated(modern.begin(), modern.begin() + modern.size() / 2);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(hook("kjptest/Modern17", truncated));
  std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0u, printed.find("[Kestrix Java Profiler 8.0.1] *** Warning ***: class kjptest/Modern17 cannot be "
                             "instrumented: "))
      << printed;
}

TEST_F(ClassLoadHookTest, withTracingTheCallbackLoadsWithEnablingBodiesButKeepsTheEmptyOnesForLater) {
  ourOptions.myTracing = true;
  ClassBytes stored = embeddedCallbackClass();
  ClassBytes loaded;
  ASSERT_TRUE(hook(CALLBACK, stored, &loaded));
  EXPECT_TRUE(ourCallbackSeen);

  ParsedClass live(loaded);
  EXPECT_EQ(6u, live.body("kjpMethodEntry", SS).size());
  EXPECT_EQ("method com/kestrix/runtime/Callback.kjpMethodEntry0:(SS)V", live.memberRef(u2(live.body("kjpMethodEntry", SS), 3)));
  EXPECT_EQ(6u, live.body("kjpMethodExit", SS).size());
  EXPECT_EQ(Code({0x02, 0xAC}), live.body("kjpInit", OI));

  ParsedClass kept(fromKVector(ourCallbackBytes));
  EXPECT_EQ(Code({0xB1}), kept.body("kjpMethodEntry", SS));
  EXPECT_EQ(Code({0xB1}), kept.body("kjpMethodExit", SS));
  EXPECT_EQ(Code({0x02, 0xAC}), kept.body("kjpInit", OI));

  // A redefinition passes through the hook too; its bodies are not touched a second time.
  ClassBytes redefined;
  hook(CALLBACK, fromKVector(ourCallbackBytes), &redefined);
  if (!redefined.empty()) {
    EXPECT_EQ(Code({0xB1}), ParsedClass(redefined).body("kjpMethodEntry", SS));
  }
  EXPECT_EQ(Code({0xB1}), ParsedClass(fromKVector(ourCallbackBytes)).body("kjpMethodEntry", SS));
}

TEST_F(ClassLoadHookTest, allocationsAtStartEnableOnlyKjpInit) {
  ourOptions.myAllocAtStart = true;
  ClassBytes loaded;
  ASSERT_TRUE(hook(CALLBACK, embeddedCallbackClass(), &loaded));
  ParsedClass live(loaded);
  EXPECT_EQ(Code({0xB1}), live.body("kjpMethodEntry", SS));
  EXPECT_EQ(6u, live.body("kjpInit", OI).size());
}

TEST_F(ClassLoadHookTest, onFlagJVMsTheCallbackGetsFlagBodiesAndNoEnablingPatch) {
  ourIsIBM = true;
  ourOptions.myTracing = true;
  ourOptions.myAllocAtStart = true;
  ClassBytes loaded;
  ASSERT_TRUE(hook(CALLBACK, embeddedCallbackClass(), &loaded));
  ParsedClass live(loaded);
  EXPECT_EQ(12u, live.body("kjpMethodEntry", SS).size());
  EXPECT_EQ(14u, live.body("kjpInit", OI).size());
  EXPECT_EQ(Code(live.body("kjpMethodEntry", SS)),
            ParsedClass(fromKVector(ourCallbackBytes)).body("kjpMethodEntry", SS));

  // The class is never redefined there: the flags carry the state.
  ourStatus = CPU_TIMES_BIT | CPU_COUNTS_BIT;
  redefineCallback(&myEnv);
  EXPECT_TRUE(myObserved.redefinitions.empty());
  ASSERT_EQ(2u, myObserved.flagWrites.size());
  EXPECT_EQ(std::make_pair(std::string("ourKJPMethodEntryExit"), true), myObserved.flagWrites[0]);
  EXPECT_EQ(std::make_pair(std::string("ourKJPAlloc"), false), myObserved.flagWrites[1]);
}

TEST_F(ClassLoadHookTest, beforeVMStartANewIBMJVMGetsItsClassesUnchangedWithMethodRowsMarked) {
  ourIsIBM = true;
  ourVMStartCalled = false;
  ourOptions.myPrintInstrTimes = true;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(hook("kjptest/Modern17", readDataClass("v17/kjptest/Modern17.class")));
  EXPECT_EQ("instrumentation of class 'kjptest/Modern17' - no VMStart event yet - skipping\n",
            testing::internal::GetCapturedStderr());
  jint kind = getMethodByName("Lkjptest/Modern17;", "kind", "(Ljava/lang/String;)I");
  EXPECT_NE(0, flagsOf(kind) & MF_NOT_INSTRUMENTED);
}

TEST_F(ClassLoadHookTest, redefinitionBuildsEachStateFromTheStoredBodies) {
  ourOptions.myTracing = true;
  ASSERT_TRUE(hook(CALLBACK, embeddedCallbackClass()));

  ourStatus = STACK_TELEMETRY | CPU_TIMES_BIT | CPU_COUNTS_BIT | ALLOCATION_RECORDING_BIT;
  redefineCallback(&myEnv);
  // Tracing stops while allocations stay on.
  ourStatus = STACK_TELEMETRY | ALLOCATION_RECORDING_BIT;
  redefineCallback(&myEnv);
  ourStatus = STACK_TELEMETRY;
  redefineCallback(&myEnv);

  ASSERT_EQ(3u, myObserved.redefinitions.size());
  ParsedClass both(myObserved.redefinitions[0]);
  EXPECT_EQ(6u, both.body("kjpMethodEntry", SS).size());
  EXPECT_EQ(6u, both.body("kjpMethodExit", SS).size());
  EXPECT_EQ(6u, both.body("kjpInit", OI).size());
  ParsedClass allocationsOnly(myObserved.redefinitions[1]);
  EXPECT_EQ(Code({0xB1}), allocationsOnly.body("kjpMethodEntry", SS));
  EXPECT_EQ(Code({0xB1}), allocationsOnly.body("kjpMethodExit", SS));
  Code init = allocationsOnly.body("kjpInit", OI);
  ASSERT_EQ(6u, init.size());
  EXPECT_EQ(Code({0x2A, 0x1B, 0xB8}), Code(init.begin(), init.begin() + 3));
  EXPECT_EQ(fromKVector(ourCallbackBytes), myObserved.redefinitions[2]);
  EXPECT_TRUE(myObserved.flagWrites.empty());
}

TEST_F(ClassLoadHookTest, isClassComparesTheClassNameNotJustTheBytes) {
  ClassBytes callback = embeddedCallbackClass();
  const unsigned char* data = callback.data();
  int length = static_cast<int>(callback.size());
  EXPECT_TRUE(isClass(data, length, CALLBACK));
  EXPECT_FALSE(isClass(data, length, "java/lang/Object"));  // named inside, but not this class
  EXPECT_FALSE(isClass(data, length, "com/kestrix/runtime/Core"));
  const char garbage[] = "xx com/kestrix/runtime/Callback yy";
  EXPECT_FALSE(isClass(reinterpret_cast<const unsigned char*>(garbage), sizeof(garbage), CALLBACK));
  EXPECT_FALSE(isClass(data, length / 2, CALLBACK));
}

TEST_F(ClassLoadHookTest, markAllMethodsAsNotInstrumentedLeavesTheClassAlone) {
  ClassBytes modern = readDataClass("v17/kjptest/Modern17.class");
  KVector<unsigned char> bytes(4096);
  toKVector(modern, bytes);
  MethodIDProvider provider;
  markAllMethodsAsNotInstrumented(&provider, bytes);
  EXPECT_EQ(modern, fromKVector(bytes));
  EXPECT_NE(0, flagsOf(getMethodByName("Lkjptest/Modern17;", "kind", "(Ljava/lang/String;)I")) & MF_NOT_INSTRUMENTED);
}

typedef ClassLoadHookTest ClassLoadHookDeathTest;

TEST_F(ClassLoadHookDeathTest, aMissingFlagFieldEndsTheProcess) {
  ourIsIBM = true;
  myObserved.missingFields = true;
  EXPECT_DEATH(redefineCallback(&myEnv), "Assertion `field' failed");
}

}  // namespace
