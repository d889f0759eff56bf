// The engine table as the entry points see it: every Core and Callback native registered once,
// the capabilities and events the engines ask for, and events that several engines handle.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "agent/CoreNatives.h"
#include "agent/EngineEvents.h"
#include "agent/EventGate.h"
#include "engines/AllocationRecording.h"
#include "engines/Engine.h"
#include "engines/J2EERecording.h"
#include "engines/MonitorUsage.h"
#include "engines/Tracing.h"

namespace {

// name -> signature of every native that the agent registers on a class, failing on a name
// registered twice.
std::map<std::string, std::string> collect(std::initializer_list<NativeList> lists) {
  std::map<std::string, std::string> natives;
  for (const NativeList& list : lists) {
    for (jint i = 0; i < list.myCount; i++) {
      EXPECT_NE(nullptr, list.myMethods[i].fnPtr) << list.myMethods[i].name;
      bool added = natives.emplace(list.myMethods[i].name, list.myMethods[i].signature).second;
      EXPECT_TRUE(added) << list.myMethods[i].name << " is registered twice";
    }
  }
  return natives;
}

std::map<std::string, std::string> coreNatives() {
  std::map<std::string, std::string> natives =
      collect({NativeList{ourCoreNativeMethods, ourCoreNativeMethodCount},
               NativeList{ourCoreSocketNativeMethods, ourCoreSocketNativeMethodCount}});
  forEachEngine([&](const Engine& engine) {
    for (auto& row : collect({engine.myCoreNatives})) {
      EXPECT_TRUE(natives.insert(row).second) << row.first << " is registered twice";
    }
  });
  return natives;
}

}  // namespace

TEST(EngineTableTest, EveryNativeOfCoreAndCallbackIsRegisteredOnceWithItsSignature) {
  std::map<std::string, std::string> expected = {
      {"addSnapshotInfo", "(Ljava/lang/String;J)V"},
      {"captureSnapshot", "(Ljava/lang/String;IJ)Ljava/lang/String;"},
      {"clearAllocationData", "()V"},
      {"clearCPUData", "()V"},
      {"clearExceptions", "()V"},
      {"clearMonitorData", "()V"},
      {"createMarker", "(II)V"},
      {"disableStackTelemetry", "()V"},
      {"enableStackTelemetry", "()V"},
      {"findSnapshot", "(Ljava/lang/String;)Z"},
      {"getAllocationRecordingSettingsRecordEach", "()I"},
      {"getAllocationRecordingSettingsRecordEachEnabled", "()Z"},
      {"getAllocationRecordingSettingsSizeLimit", "()I"},
      {"getAllocationRecordingSettingsSizeLimitEnabled", "()Z"},
      {"getDatabaseStatistics", "()Ljava/lang/String;"},
      {"getHostID", "()Ljava/lang/String;"},
      {"getProcessCPUTimeNs", "()J"},
      {"getSocketFD", "(Ljava/net/Socket;)I"},
      {"getStatus", "()J"},
      {"getUptimeMs", "()J"},
      {"markMemory", "(ILjava/lang/String;)V"},
      {"openSnapshotForTransfer", "(Ljava/lang/String;Ljava/io/FileDescriptor;)J"},
      {"sealSnapshot", "(Ljava/lang/String;)V"},
      {"setProperty", "(Ljava/lang/String;Ljava/lang/String;)V"},
      {"startAllocationRecording", "(ZIZI)I"},
      {"startCPUProfiling", "(JLjava/lang/String;Ljava/lang/String;)I"},
      {"startMonitorProfiling", "()I"},
      {"stopAllocationRecording", "()V"},
      {"stopCPUProfiling", "()V"},
      {"stopMonitorProfiling", "()V"},
      {"storeTelemetryRecord", "([I[I)V"},
      {"writeTables", "(II[I)V"},
  };
  EXPECT_EQ(expected, coreNatives());

  std::map<std::string, std::string> callback;
  forEachEngine([&](const Engine& engine) {
    for (auto& row : collect({engine.myCallbackNatives})) {
      EXPECT_TRUE(callback.insert(row).second) << row.first << " is registered twice";
    }
  });
  std::map<std::string, std::string> expectedCallback = {
      {"kjpInit0", "(Ljava/lang/Object;I)I"},
      {"kjpMethodEntry0", "(SS)V"},
      {"kjpMethodExit0", "(SS)V"},
      {"kjpCallLogEvent0", "(II)V"},
      {"kjpParkEntry0", "(Ljava/lang/Object;)V"},
      {"kjpParkExit0", "(Ljava/lang/Object;)V"},
      {"kjpIsJ2EEClass", "(Ljava/lang/Object;)Z"},
      {"kjpSQLEntry1", "(Ljava/lang/Object;S)V"},
      {"kjpSQLEntry2", "(Ljava/lang/Object;S)V"},
      {"kjpSQLEntry3", "(Ljava/lang/Object;S)V"},
      {"kjpSQLExit1", "(Ljava/lang/Object;Ljava/lang/Object;S)V"},
      {"kjpSQLExit2", "(Ljava/lang/Object;S)V"},
      {"kjpSQLExit3", "(Ljava/lang/Object;S)V"},
      {"kjpServletEntry", "(Ljava/lang/Object;S)V"},
      {"kjpServletExit", "(Ljava/lang/Object;S)V"},
  };
  EXPECT_EQ(expectedCallback, callback);
}

TEST(EngineTableTest, EnginesAskForTheirCapabilitiesAndEventsAtLoad) {
  jvmtiCapabilities capabilities;
  memset(&capabilities, 0, sizeof(capabilities));
  addEngineCapabilities(&capabilities);
  EXPECT_EQ(1u, capabilities.can_tag_objects);
  EXPECT_EQ(1u, capabilities.can_generate_vm_object_alloc_events);
  EXPECT_EQ(1u, capabilities.can_generate_object_free_events);
  EXPECT_EQ(1u, capabilities.can_generate_exception_events);
  EXPECT_EQ(1u, capabilities.can_generate_monitor_events);
  EXPECT_EQ(1u, capabilities.can_get_monitor_info);
  // Class instrumentation asks for its own; no engine needs them.
  EXPECT_EQ(0u, capabilities.can_redefine_classes);
  EXPECT_EQ(0u, capabilities.can_generate_all_class_hook_events);

  std::set<int> atLoad;
  forEachEngine([&](const Engine& engine) {
    for (jint i = 0; i < engine.myEventsAtLoad.myCount; i++) {
      atLoad.insert(engine.myEventsAtLoad.myEvents[i]);
    }
  });
  // Exceptions are counted from the start; the monitor events wait for monitor profiling.
  std::set<int> expected = {JVMTI_EVENT_CLASS_LOAD, JVMTI_EVENT_CLASS_PREPARE, JVMTI_EVENT_EXCEPTION,
                            JVMTI_EVENT_EXCEPTION_CATCH, JVMTI_EVENT_OBJECT_FREE};
  EXPECT_EQ(expected, atLoad);
}

TEST(EngineTableTest, EngineEventsGoThroughDispatchersAndNothingElseIsTouched) {
  jvmtiEventCallbacks callbacks;
  memset(&callbacks, 0, sizeof(callbacks));
  setEngineEventHandlers(&callbacks);
  // Every engine event passes the gate that the JVM's death closes, so none is an engine's
  // own handler, even where only one engine handles it.
  EXPECT_NE(nullptr, callbacks.ClassLoad);
  EXPECT_NE(nullptr, callbacks.VMObjectAlloc);
  EXPECT_NE(&vm_object_alloc_handler, callbacks.VMObjectAlloc);
  EXPECT_NE(&objectFree, callbacks.ObjectFree);
  EXPECT_NE(&Monitors::monitorWait, callbacks.MonitorWait);
  EXPECT_NE(nullptr, callbacks.ClassPrepare);
  EXPECT_NE(&class_alloc_handler, callbacks.ClassPrepare);
  EXPECT_NE(&markJ2EEClass, callbacks.ClassPrepare);
  EXPECT_NE(nullptr, callbacks.Exception);
  EXPECT_NE(&exception, callbacks.Exception);
  EXPECT_NE(nullptr, callbacks.ExceptionCatch);
  // Nothing outside the engines' events is touched.
  EXPECT_EQ(nullptr, callbacks.VMInit);
  EXPECT_EQ(nullptr, callbacks.ThreadEnd);
  EXPECT_EQ(nullptr, callbacks.ClassFileLoadHook);
}

TEST(EngineTableTest, AClosedGateTurnsHandlersAwayAndWaitsForThoseInside) {
  EventGate gate;
  std::atomic<bool> entered{false};
  std::atomic<bool> release{false};
  std::atomic<bool> workedAfterClose{false};
  std::thread handler([&] {
    EventGate::Passage passage(gate);
    EXPECT_TRUE(passage.open());
    entered = true;
    while (!release) {
      std::this_thread::yield();
    }
    workedAfterClose = true;
  });
  while (!entered) {
    std::this_thread::yield();
  }
  // A handler that doesn't leave can't hold the JVM's exit for longer than the bound.
  EXPECT_FALSE(gate.close(20));
  EXPECT_EQ(1, gate.inside());
  {
    EventGate::Passage late(gate);
    EXPECT_FALSE(late.open());
  }
  std::thread closer([&] { EXPECT_TRUE(gate.close(60000)); });
  release = true;
  closer.join();
  handler.join();
  EXPECT_TRUE(workedAfterClose);
  EXPECT_EQ(0, gate.inside());
  gate.reopen();
  EventGate::Passage again(gate);
  EXPECT_TRUE(again.open());
}
