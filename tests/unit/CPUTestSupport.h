#ifndef KJP_TESTS_CPUTESTSUPPORT_H
#define KJP_TESTS_CPUTESTSUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "DBTestSupport.h"
#include "agent/CPUTime.h"
#include "agent/JVMTI_Agent.h"
#include "db/StringPool.h"
#include "engines/Filter.h"
#include "engines/KFrameStorage.h"
#include "engines/KMethod.h"
#include "engines/Tracing.h"

// A JVM reduced to what the CPU engines ask of it: method names, the current thread's stack,
// the stacks of all threads, thread-local storage and event switches.
struct FakeCPUVM {
  struct Method {
    std::string classSignature;
    std::string name;
    std::string signature;
    bool isNative;
    std::vector<std::string> locals;
    // Of a hidden class (a lambda's), which JVMTI calls not modifiable.
    bool hidden = false;
    // Of a class unloaded since the frame was taken: the JVM refuses to name it.
    bool unloaded = false;
  };
  struct Stack {
    jthread thread;
    jint state;
    std::vector<jmethodID> frames;  // top first, as JVMTI gives them
  };

  std::deque<Method> methods;
  std::vector<jmethodID> currentStack;  // top first
  ThreadInfo* currentThread = nullptr;
  std::map<jthread, ThreadInfo*> threadInfos;
  std::vector<Stack> allStacks;
  jvmtiPhase phase = JVMTI_PHASE_LIVE;
  jvmtiError allStacksError = JVMTI_ERROR_NONE;
  // What GetStackTrace of the current thread answers; it refuses once the JVM is dying.
  jvmtiError stackError = JVMTI_ERROR_NONE;
  std::vector<std::pair<jvmtiEventMode, jvmtiEvent>> eventSwitches;
  std::vector<std::string> thrown;
  int deletedRefs = 0;
  int outstandingAllocations = 0;

  jmethodID method(const char* classSignature, const char* name, const char* signature = "()V",
                   bool isNative = false) {
    methods.push_back(Method{classSignature, name, signature, isNative, {}});
    return reinterpret_cast<jmethodID>(&methods.back());
  }
  static Method* of(jmethodID id) { return reinterpret_cast<Method*>(id); }
};

extern FakeCPUVM* ourFakeCPUVM;

// The agent's database and a fake JVM behind ourJVMTI, with the engines' globals reset.
class CPUEngineTest : public AgentDBTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The method index of a fake method, as the JVM would give it.
  jint indexOf(jmethodID method) { return getMethodByID(&myEnv, method); }
  jint flagsOf(jint methodIndex) { return ourDB->myMethodTable->getRecord(methodIndex, true)->myFlags; }
  // The frame reached from the root through these methods, or -1 when the path is missing.
  jint pathFrame(std::vector<jint> methodIndices);
  // Method indices from the root down to a frame.
  std::vector<jint> pathOf(jint frame);
  CPUProfilingRecord* cpuRow(ThreadInfo* info, jint frame) { return info->getCPUProfilingRecord(frame, false); }
  // Makes the fake JVM run on 'info' from now on. The agent mirrors a thread's JVMTI slot in a
  // C++ thread-local that only thread start and end update; the tests switch threads on one
  // real thread, so they update both.
  void runOn(ThreadInfo* info) {
    myFake.currentThread = info;
    setCurrentThreadInfo(info);
  }

  FakeCPUVM myFake;
  JNINativeInterface_ myJNITable;
  jvmtiInterface_1_ myJVMTITable;
  JNIEnv myEnv;
  _jvmtiEnv myJVMTI;
  jvmtiEnv* mySavedJVMTI = nullptr;
  bool mySavedFastClock = false;
};

// Tracing on, with one thread "worker" that the fake JVM runs on, its shadow stack known and
// empty.
class TracedThreadTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    ourStatus |= CPU_TIMES_BIT | CPU_COUNTS_BIT;
    myThread = startThread("worker");
    runOn(myThread);
    myThread->myCurrentFrameIndex = 0;
  }

  // The count of the worker's row at the end of a path from the root; -1 when it has none.
  jlong countOn(std::vector<jint> path) {
    CPUProfilingRecord* row = cpuRow(myThread, pathFrame(path));
    return row == nullptr ? -1 : row->count;
  }

  // The methods of a call pattern: app.L's loop, a and b, and the library methods lib.X.x and
  // lib.X.y, with lib.* as the filter.
  struct CallPattern {
    jint loop, a, b, lib, libInner;
  };

  CallPattern makeCallPattern() {
    Filter::reloadFilters(KString("lib.*"), KString(""));
    return {indexOf(myFake.method("Lapp/L;", "loop")), indexOf(myFake.method("Lapp/L;", "a")),
            indexOf(myFake.method("Lapp/L;", "b")), indexOf(myFake.method("Llib/X;", "x")),
            indexOf(myFake.method("Llib/X;", "y"))};
  }

  // One call of 'callee' from where the worker is: b calls a, lib calls the library method
  // libInner, which calls back into a; other callees call nothing.
  void traceCall(jint callee, const CallPattern& p) {
    methodEntry(&myEnv, callee);
    if (callee == p.lib) {
      methodEntry(&myEnv, p.libInner);
      methodEntry(&myEnv, p.a);
      methodExit(&myEnv, p.a);
      methodExit(&myEnv, p.libInner);
    } else if (callee == p.b) {
      methodEntry(&myEnv, p.a);
      methodExit(&myEnv, p.a);
    }
    methodExit(&myEnv, callee);
  }

  // The worker is back at its root, with no open call left on any of its stacks.
  void expectBackAtTheRoot() {
    EXPECT_EQ(0, myThread->myCurrentFrameIndex);
    EXPECT_EQ(0, myThread->myTracedCalls.size());
    EXPECT_EQ(0, myThread->myEntryTimesNs.size());
    EXPECT_EQ(0, myThread->myFilteredCallsStack.size());
  }

  ThreadInfo* myThread = nullptr;
};

// Burns about 'ns' of the calling thread's CPU time and returns what it really burnt.
inline jlong spinCPU(jlong ns) {
  jlong start = getCurrentThreadCPUTimeNs();
  volatile unsigned long sink = 0;
  while (getCurrentThreadCPUTimeNs() - start < ns) {
    for (int i = 0; i < 1000; i++) {
      sink = sink + static_cast<unsigned long>(i);
    }
  }
  return getCurrentThreadCPUTimeNs() - start;
}

#endif
