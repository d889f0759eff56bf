// The natives of the runtime's Core class, its start-up and the JNI table redirection, on a
// fake JVM.
#include <stdarg.h>

#include <set>
#include <string>
#include <vector>

#include "CPUTestSupport.h"
#include "agent/Clock.h"
#include "agent/CoreInitialization.h"
#include "agent/CoreNatives.h"
#include "agent/JNIRedirection.h"
#include "engines/AllocationRecording.h"
#include "engines/CPUProfiling.h"
#include "engines/Monitors.h"

namespace {

// What the fake JNI functions saw; strings are handed out as pointers to std::strings.
struct CoreFake {
  std::vector<std::string> log;  // redefinitions and event switches, in order
  std::vector<std::string> defined;
  std::set<std::string> failingDefinitions;
  bool pending = false;
  int cleared = 0;
  bool initResult = true;
  std::vector<long long> initArguments;
  std::vector<std::string> initStrings;
  std::deque<std::string> strings;
};
CoreFake* ourCoreFake = nullptr;

jstring javaString(const char* text) {
  ourCoreFake->strings.push_back(text);
  return reinterpret_cast<jstring>(&ourCoreFake->strings.back());
}

jvmtiError JNICALL logEventSwitch(jvmtiEnv*, jvmtiEventMode mode, jvmtiEvent event, jthread, ...) {
  ourCoreFake->log.push_back((mode == JVMTI_ENABLE ? "enable " : "disable ") + std::to_string(event));
  return JVMTI_ERROR_NONE;
}

class CoreNativesTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    ourCoreFake = &myCore;
    myJVMTITable.SetEventNotificationMode = logEventSwitch;
    myJNITable.GetStringUTFChars = [](JNIEnv*, jstring text, jboolean*) -> const char* {
      return reinterpret_cast<std::string*>(text)->c_str();
    };
    myJNITable.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char*) {};
    myJNITable.NewStringUTF = [](JNIEnv*, const char* text) -> jstring { return javaString(text); };
    myJNITable.GetArrayLength = [](JNIEnv*, jarray array) -> jsize {
      return static_cast<jsize>(reinterpret_cast<std::vector<jint>*>(array)->size());
    };
    myJNITable.GetIntArrayElements = [](JNIEnv*, jintArray array, jboolean*) -> jint* {
      return reinterpret_cast<std::vector<jint>*>(array)->data();
    };
    myJNITable.ReleaseIntArrayElements = [](JNIEnv*, jintArray, jint*, jint) {};
    // LockSupport's class file can't be read here: monitor profiling runs without park probes.
    myJNITable.GetStaticMethodID = [](JNIEnv*, jclass, const char*, const char*) -> jmethodID { return nullptr; };
    myJNITable.GetMethodID = [](JNIEnv*, jclass, const char*, const char*) -> jmethodID { return nullptr; };
    myJNITable.ExceptionClear = [](JNIEnv*) {};
    mySavedStatus = ourStatus;
    mySavedSettings = ourAllocationRecordingSettings;
    ourRedefineCallback = [](JNIEnv*) { ourCoreFake->log.push_back("redefine"); };
    Monitors::ourMonitorEventHandlersInstalled = true;
  }

  void TearDown() override {
    ourStatus = mySavedStatus;
    ourAllocationRecordingSettings = mySavedSettings;
    Monitors::ourMonitorEventHandlersInstalled = false;
    // A recording that ever began puts its duration into every later table write.
    Monitors::ourMonitorRecordingStartNs = 0;
    Monitors::ourMonitorRecordingLastNs = 0;
    ourCoreFake = nullptr;
    CPUEngineTest::TearDown();
  }

  static std::string on(jvmtiEvent event) { return "enable " + std::to_string(event); }
  static std::string off(jvmtiEvent event) { return "disable " + std::to_string(event); }

  CoreFake myCore;
  jlong mySavedStatus = 0;
  AllocationRecordingSettings mySavedSettings{};
};

TEST_F(CoreNativesTest, MonitorProfilingSwitchesTheFourEventsInOrderAndKeepsItsTimes) {
  Monitors::ourMonitorRecordingStartNs = 0;
  Monitors::ourMonitorRecordingLastNs = 0;
  Java_com_kestrix_runtime_Core_stopMonitorProfiling(&myEnv, nullptr);
  EXPECT_TRUE(myCore.log.empty()) << "stopping what doesn't run changes nothing";
  EXPECT_EQ(0, Monitors::ourMonitorRecordingLastNs);

  ASSERT_EQ(ERRORCODE_OK, Java_com_kestrix_runtime_Core_startMonitorProfiling(&myEnv, nullptr));
  EXPECT_EQ(MONITORS_BIT, ourStatus & MONITORS_BIT);
  jlong started = Monitors::ourMonitorRecordingStartNs;
  EXPECT_GT(started, 0);
  EXPECT_EQ(ERRORCODE_ALREADY_STARTED, Java_com_kestrix_runtime_Core_startMonitorProfiling(&myEnv, nullptr));
  EXPECT_EQ(started, Monitors::ourMonitorRecordingStartNs);

  Java_com_kestrix_runtime_Core_stopMonitorProfiling(&myEnv, nullptr);
  EXPECT_EQ(0, ourStatus & MONITORS_BIT);
  EXPECT_GE(Monitors::ourMonitorRecordingLastNs, started);
  // The park probes of java.util.concurrent come and go with the events.
  std::vector<std::string> expected = {
      on(JVMTI_EVENT_MONITOR_CONTENDED_ENTER),   on(JVMTI_EVENT_MONITOR_CONTENDED_ENTERED),
      on(JVMTI_EVENT_MONITOR_WAIT),              on(JVMTI_EVENT_MONITOR_WAITED), "redefine",
      off(JVMTI_EVENT_MONITOR_CONTENDED_ENTER),  off(JVMTI_EVENT_MONITOR_CONTENDED_ENTERED),
      off(JVMTI_EVENT_MONITOR_WAIT),             off(JVMTI_EVENT_MONITOR_WAITED), "redefine",
  };
  EXPECT_EQ(expected, myCore.log);

  Java_com_kestrix_runtime_Core_clearMonitorData(&myEnv, nullptr);
  EXPECT_GE(Monitors::ourMonitorRecordingStartNs, started);
}

TEST_F(CoreNativesTest, MonitorEventsStayOffWithoutTheirHandlers) {
  Monitors::ourMonitorEventHandlersInstalled = false;
  ASSERT_EQ(ERRORCODE_OK, Java_com_kestrix_runtime_Core_startMonitorProfiling(&myEnv, nullptr));
  Java_com_kestrix_runtime_Core_stopMonitorProfiling(&myEnv, nullptr);
  std::vector<std::string> expected = {"redefine", "redefine"};
  EXPECT_EQ(expected, myCore.log);
}

TEST_F(CoreNativesTest, AllocationRecordingStoresItsSettingsAndRedefinesAroundTheEvent) {
  ASSERT_EQ(ERRORCODE_OK,
            Java_com_kestrix_runtime_Core_startAllocationRecording(&myEnv, nullptr, JNI_TRUE, 7, JNI_FALSE, 4096));
  EXPECT_EQ(ALLOCATION_RECORDING_BIT, ourStatus & ALLOCATION_RECORDING_BIT);
  EXPECT_EQ(7, Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEach(&myEnv, nullptr));
  EXPECT_EQ(JNI_TRUE, Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsRecordEachEnabled(&myEnv, nullptr));
  EXPECT_EQ(4096, Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimit(&myEnv, nullptr));
  EXPECT_EQ(JNI_FALSE, Java_com_kestrix_runtime_Core_getAllocationRecordingSettingsSizeLimitEnabled(&myEnv, nullptr));

  // A second start neither changes the settings nor switches anything.
  EXPECT_EQ(ERRORCODE_ALREADY_STARTED,
            Java_com_kestrix_runtime_Core_startAllocationRecording(&myEnv, nullptr, JNI_FALSE, 1, JNI_TRUE, 1));
  EXPECT_EQ(7, ourAllocationRecordingSettings.myRecordEach);

  Java_com_kestrix_runtime_Core_stopAllocationRecording(&myEnv, nullptr);
  Java_com_kestrix_runtime_Core_stopAllocationRecording(&myEnv, nullptr);
  EXPECT_EQ(0, ourStatus & ALLOCATION_RECORDING_BIT);
  std::vector<std::string> expected = {"redefine", on(JVMTI_EVENT_VM_OBJECT_ALLOC), off(JVMTI_EVENT_VM_OBJECT_ALLOC),
                                       "redefine"};
  EXPECT_EQ(expected, myCore.log);
}

TEST_F(CoreNativesTest, CPUModeChecksThrowWithTheModeAndSecondStartIsRefused) {
  EXPECT_EQ(0, Java_com_kestrix_runtime_Core_startCPUProfiling(&myEnv, nullptr, CPU_COUNTS_BIT, nullptr, nullptr));
  EXPECT_EQ(0, Java_com_kestrix_runtime_Core_startCPUProfiling(&myEnv, nullptr, CPU_TIMES_BIT | 2, nullptr, nullptr));
  ASSERT_EQ(2u, myFake.thrown.size());
  EXPECT_EQ("(mode & ProfilingModes::CPU_TIMES_BIT) != 0 (8, 0)", myFake.thrown[0]);
  EXPECT_EQ("(mode & ~ProfilingModes::CPU_PROFILING) == 0 (6, 0)", myFake.thrown[1]);
  EXPECT_EQ(0, ourStatus & CPU_PROFILING);

  ASSERT_EQ(ERRORCODE_OK,
            Java_com_kestrix_runtime_Core_startCPUProfiling(&myEnv, nullptr, CPU_TIMES_BIT, nullptr, nullptr));
  EXPECT_EQ(ERRORCODE_ALREADY_STARTED,
            Java_com_kestrix_runtime_Core_startCPUProfiling(&myEnv, nullptr, CPU_TIMES_BIT | CPU_COUNTS_BIT,
                                                            nullptr, nullptr));
  EXPECT_EQ(CPU_TIMES_BIT, ourStatus & CPU_PROFILING);
  // Sampling needs neither the exception event nor new probes, so stopping it leaves both alone.
  Java_com_kestrix_runtime_Core_stopCPUProfiling(&myEnv, nullptr);
  EXPECT_EQ(0, ourStatus & CPU_PROFILING);
  EXPECT_TRUE(myCore.log.empty());
}

TEST_F(CoreNativesTest, StatusAndStackTelemetryBit) {
  ourStatus = STACK_TELEMETRY | MONITORS_BIT;
  EXPECT_EQ(STACK_TELEMETRY | MONITORS_BIT, Java_com_kestrix_runtime_Core_getStatus(&myEnv, nullptr));
  Java_com_kestrix_runtime_Core_disableStackTelemetry(&myEnv, nullptr);
  EXPECT_EQ(MONITORS_BIT, Java_com_kestrix_runtime_Core_getStatus(&myEnv, nullptr));
  Java_com_kestrix_runtime_Core_enableStackTelemetry(&myEnv, nullptr);
  EXPECT_EQ(STACK_TELEMETRY | MONITORS_BIT, Java_com_kestrix_runtime_Core_getStatus(&myEnv, nullptr));
}

TEST_F(CoreNativesTest, SetPropertyStoresTheValuesPoolIndexAndZeroForNull) {
  std::string name = "user.dir";
  std::string value = "/home/someone";
  jint stampBefore = ourDB->myModificationStamp;
  Java_com_kestrix_runtime_Core_setProperty(&myEnv, nullptr, reinterpret_cast<jstring>(&name),
                                            reinterpret_cast<jstring>(&value));
  jint nameIndex = ourDB->myStrPool->getDBIndex("user.dir", false);
  jint valueIndex = ourDB->myStrPool->getDBIndex("/home/someone", false);
  ASSERT_GT(nameIndex, 0);
  ASSERT_GT(valueIndex, 0);
  PropertyRecord* found = nullptr;
  for (jint i = 0; i < ourDB->myPropertyTable->getCapacity(); i++) {
    PropertyRecord* record = ourDB->myPropertyTable->getRecord(i, false);
    if (record != nullptr && record->myModificationStamp != 0 && record->myNameStrID == nameIndex) {
      found = record;
    }
  }
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(valueIndex, found->myValue);
  EXPECT_EQ(stampBefore, found->myModificationStamp);

  Java_com_kestrix_runtime_Core_setProperty(&myEnv, nullptr, reinterpret_cast<jstring>(&name), nullptr);
  EXPECT_EQ(0, found->myValue);
}

TEST_F(CoreNativesTest, ClearCPUDataEmptiesBothCPUTablesAndStampsTheirClear) {
  ThreadInfo* info = new ThreadInfo("worker", "main", 1234);
  ourAllThreadInfos.add(info);
  info->myCurrentFrameIndex = 5;
  info->myEntryTimesNs.push(17);
  ourDB->myCPUProfilingTable->getRecord(3, true)->myModificationStamp = 1;
  ourDB->myJ2EETable->getRecord(2, true)->myModificationStamp = 1;
  ourDB->myModificationStamp = 9;

  Java_com_kestrix_runtime_Core_clearCPUData(&myEnv, nullptr);
  EXPECT_EQ(-1, info->myCurrentFrameIndex);
  EXPECT_EQ(0, info->myEntryTimesNs.size());
  EXPECT_EQ(nullptr, ourDB->myCPUProfilingTable->getRecord(3, false));
  EXPECT_EQ(nullptr, ourDB->myJ2EETable->getRecord(2, false));
  EXPECT_EQ(9, ourDB->myTableGenerationTable->getRecord(CPUPROFILING_TABLE_ID, true)->myModificationStamp);
  EXPECT_EQ(9, ourDB->myTableGenerationTable->getRecord(J2EE_TABLE_ID, true)->myModificationStamp);
  EXPECT_EQ(0, ourDB->myTableGenerationTable->getRecord(ALLOCINFO_TABLE_ID, true)->myModificationStamp);
}

TEST_F(CoreNativesTest, TelemetryRecordWithoutStackTelemetryHasNoThreadStates) {
  ourStatus = 0;
  std::vector<jint> constants = {100, 0, 3};
  std::vector<jint> values(15, 42);
  Java_com_kestrix_runtime_Core_storeTelemetryRecord(&myEnv, nullptr, reinterpret_cast<jintArray>(&constants),
                                                     reinterpret_cast<jintArray>(&values));
  TelemetryRecord* record = ourDB->myTelemetryTable->getRecord(0, false);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(42, record->myValues[TELE_HEAP_MEMORY_USED_KB]);
  EXPECT_EQ(0, record->myValues[TELE_THREAD_STATE_COUNT]);
  EXPECT_EQ(-1, record->myValues[TELE_THREAD_STATE_START_INDEX]);
  EXPECT_EQ(static_cast<jint>(ourUptimeProvider.getUptimeMs() / 100), record->myValues[TELE_UPTIME_DS]);
  EXPECT_EQ(100, ourDB->myPropertyTable->getRecord(0, true)->myValue);
  EXPECT_EQ(3, ourDB->myPropertyTable->getRecord(2, true)->myValue);
}

TEST(ExitSnapshotFlagsTest, WantedForOnexitOptionsAndRunningMeasurementsWithHeapForAllocations) {
  struct Case {
    jlong status;
    bool memory;
    bool snapshot;
    jlong flags;
  };
  const Case cases[] = {
      {STACK_TELEMETRY, false, false, -1},
      {STACK_TELEMETRY | CPU_J2EE_BIT | INTERNAL_ERROR_BIT, false, false, -1},
      {STACK_TELEMETRY, false, true, 0},
      {STACK_TELEMETRY, true, false, 1},
      {STACK_TELEMETRY | CPU_TIMES_BIT | CPU_J2EE_BIT, false, false, 0},
      {MONITORS_BIT, false, false, 0},
      {STACK_TELEMETRY | ALLOCATION_RECORDING_BIT, false, false, 1},
      {ALLOCATION_RECORDING_BIT, false, true, 1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.flags, getExitSnapshotFlags(c.status, c.memory, c.snapshot)) << c.status;
  }
  EXPECT_TRUE(isOptionalRuntimeClass("com/kestrix/runtime/TelemetryThreadJVMTI"));
  EXPECT_TRUE(isOptionalRuntimeClass("com/kestrix/runtime/MemoryThresholdJVMTI"));
  EXPECT_TRUE(isOptionalRuntimeClass("com/kestrix/runtime/MemoryThresholdJVMTI$1"));
  EXPECT_FALSE(isOptionalRuntimeClass("com/kestrix/runtime/Core"));
  EXPECT_FALSE(isOptionalRuntimeClass("com/kestrix/runtime/TelemetryThreadJVMTI$1"));
}

// The JVM's side of the redirection: functions that note their arguments and make objects
// whose address tells which function made them.
std::vector<std::string>* ourJNICalls = nullptr;
std::vector<jobject>* ourMeasuredObjects = nullptr;
char ourObjects[16];
JNINativeInterface_ ourJVMJNITable;
const JNINativeInterface_* ourInstalledJNITable = nullptr;

jobject madeBy(int function) { return reinterpret_cast<jobject>(&ourObjects[function]); }

jobject JNICALL jvmNewObject(JNIEnv*, jclass, jmethodID, ...) {
  ourJNICalls->push_back("the JVM's NewObject");
  return nullptr;
}

class JNIRedirectionTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    ourJNICalls = &myCalls;
    ourMeasuredObjects = &myMeasured;
    mySavedStatus = ourStatus;
    mySavedSettings = ourAllocationRecordingSettings;
    ourStatus = STACK_TELEMETRY | ALLOCATION_RECORDING_BIT;
    // A size rule no object meets: every reported object is measured, none recorded.
    ourAllocationRecordingSettings = AllocationRecordingSettings{false, 1, true, 0x7FFFFFFF};
    myThread = new ThreadInfo("main", "main", 1);
    runOn(myThread);

    JNINativeInterface_& t = ourJVMJNITable;
    t = JNINativeInterface_{};
    t.DefineClass = [](JNIEnv*, const char* name, jobject, const jbyte*, jsize length) -> jclass {
      ourJNICalls->push_back(std::string("DefineClass ") + name + " " + std::to_string(length));
      return static_cast<jclass>(madeBy(0));
    };
    t.AllocObject = [](JNIEnv*, jclass) -> jobject { return madeBy(1); };
    t.NewObject = jvmNewObject;
    t.NewObjectV = [](JNIEnv*, jclass, jmethodID, va_list arguments) -> jobject {
      jint a = va_arg(arguments, jint);
      jlong b = va_arg(arguments, jlong);
      double c = va_arg(arguments, double);
      ourJNICalls->push_back("NewObjectV " + std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c));
      return madeBy(2);
    };
    t.NewObjectA = [](JNIEnv*, jclass, jmethodID, const jvalue* arguments) -> jobject {
      ourJNICalls->push_back("NewObjectA " + std::to_string(arguments[0].i));
      return madeBy(3);
    };
    t.NewString = [](JNIEnv*, const jchar*, jsize length) -> jstring {
      return static_cast<jstring>(madeBy(4 + length));  // length 0 stands for a failure below
    };
    t.NewStringUTF = [](JNIEnv*, const char*) -> jstring { return nullptr; };  // out of memory
    t.NewObjectArray = [](JNIEnv*, jsize, jclass, jobject) -> jobjectArray {
      return static_cast<jobjectArray>(madeBy(5));
    };
    t.NewBooleanArray = [](JNIEnv*, jsize) -> jbooleanArray { return static_cast<jbooleanArray>(madeBy(6)); };
    t.NewByteArray = [](JNIEnv*, jsize) -> jbyteArray { return static_cast<jbyteArray>(madeBy(7)); };
    t.NewCharArray = [](JNIEnv*, jsize) -> jcharArray { return static_cast<jcharArray>(madeBy(8)); };
    t.NewShortArray = [](JNIEnv*, jsize) -> jshortArray { return static_cast<jshortArray>(madeBy(9)); };
    t.NewIntArray = [](JNIEnv*, jsize) -> jintArray { return static_cast<jintArray>(madeBy(10)); };
    t.NewLongArray = [](JNIEnv*, jsize) -> jlongArray { return static_cast<jlongArray>(madeBy(11)); };
    t.NewFloatArray = [](JNIEnv*, jsize) -> jfloatArray { return static_cast<jfloatArray>(madeBy(12)); };
    t.NewDoubleArray = [](JNIEnv*, jsize) -> jdoubleArray { return static_cast<jdoubleArray>(madeBy(13)); };

    myJVMTITable.GetJNIFunctionTable = [](jvmtiEnv*, jniNativeInterface** table) -> jvmtiError {
      *table = new JNINativeInterface_(ourJVMJNITable);  // a copy each time, as the JVM makes
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.SetJNIFunctionTable = [](jvmtiEnv*, const jniNativeInterface* table) -> jvmtiError {
      ourInstalledJNITable = table;
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.GetObjectSize = [](jvmtiEnv*, jobject object, jlong* size) -> jvmtiError {
      ourMeasuredObjects->push_back(object);
      *size = 16;
      return JVMTI_ERROR_NONE;
    };
  }

  void TearDown() override {
    ourStatus = mySavedStatus;
    ourAllocationRecordingSettings = mySavedSettings;
    ourJNICalls = nullptr;
    ourMeasuredObjects = nullptr;
    runOn(nullptr);
    delete myThread;
    CPUEngineTest::TearDown();
  }

  std::vector<std::string> myCalls;
  std::vector<jobject> myMeasured;
  ThreadInfo* myThread = nullptr;
  jlong mySavedStatus = 0;
  AllocationRecordingSettings mySavedSettings{};
};

TEST_F(JNIRedirectionTest, EveryObjectMadeThroughJNIIsReportedAndFailuresAreNot) {
  redirectJNIFunctions();
  ASSERT_NE(nullptr, ourInstalledJNITable);
  ASSERT_NE(nullptr, ourSavedJNIFunctions);
  EXPECT_NE(ourInstalledJNITable, ourSavedJNIFunctions);
  EXPECT_EQ(ourJVMJNITable.DefineClass, ourSavedJNIFunctions->DefineClass) << "the saved table stays the JVM's";
  EXPECT_EQ(ourJVMJNITable.GetVersion, ourInstalledJNITable->GetVersion) << "other entries stay the JVM's";

  JNIEnv env;
  env.functions = ourInstalledJNITable;
  jbyte bytes[3] = {1, 2, 3};
  jvalue value;
  value.i = 99;
  EXPECT_EQ(madeBy(0), env.DefineClass("com/x/Y", nullptr, bytes, 3));
  EXPECT_EQ(madeBy(1), env.AllocObject(nullptr));
  EXPECT_EQ(madeBy(2), env.NewObject(nullptr, nullptr, static_cast<jint>(-5), static_cast<jlong>(1) << 40, 2.5));
  EXPECT_EQ(madeBy(3), env.NewObjectA(nullptr, nullptr, &value));
  EXPECT_EQ(madeBy(4 + 1), env.NewString(nullptr, 1));
  EXPECT_EQ(nullptr, env.NewStringUTF("no memory"));
  EXPECT_EQ(madeBy(5), env.NewObjectArray(2, nullptr, nullptr));
  EXPECT_EQ(madeBy(6), env.NewBooleanArray(1));
  EXPECT_EQ(madeBy(7), env.NewByteArray(1));
  EXPECT_EQ(madeBy(8), env.NewCharArray(1));
  EXPECT_EQ(madeBy(9), env.NewShortArray(1));
  EXPECT_EQ(madeBy(10), env.NewIntArray(1));
  EXPECT_EQ(madeBy(11), env.NewLongArray(1));
  EXPECT_EQ(madeBy(12), env.NewFloatArray(1));
  EXPECT_EQ(madeBy(13), env.NewDoubleArray(1));

  std::vector<std::string> calls = {"DefineClass com/x/Y 3", "NewObjectV -5 1099511627776 2.500000", "NewObjectA 99"};
  EXPECT_EQ(calls, myCalls) << "the variadic form goes through NewObjectV, never the JVM's NewObject";
  std::vector<jobject> measured = {madeBy(0), madeBy(1), madeBy(2),  madeBy(3),  madeBy(4 + 1), madeBy(5),
                                   madeBy(6), madeBy(7), madeBy(8),  madeBy(9),  madeBy(10),    madeBy(11),
                                   madeBy(12), madeBy(13)};
  EXPECT_EQ(measured, myMeasured);
}

}  // namespace
