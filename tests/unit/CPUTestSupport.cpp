#include "CPUTestSupport.h"

#include "engines/CPUProfiling.h"

FakeCPUVM* ourFakeCPUVM = nullptr;

namespace {

char* copyOut(const std::string& text) {
  char* copy = static_cast<char*>(malloc(text.size() + 1));
  memcpy(copy, text.c_str(), text.size() + 1);
  ourFakeCPUVM->outstandingAllocations++;
  return copy;
}

jvmtiError JNICALL recordEventSwitch(jvmtiEnv*, jvmtiEventMode mode, jvmtiEvent event, jthread, ...) {
  ourFakeCPUVM->eventSwitches.push_back({mode, event});
  return JVMTI_ERROR_NONE;
}

jvmtiInterface_1_ makeJVMTI() {
  jvmtiInterface_1_ t = {};
  t.GetPhase = [](jvmtiEnv*, jvmtiPhase* phase) -> jvmtiError {
    *phase = ourFakeCPUVM->phase;
    return JVMTI_ERROR_NONE;
  };
  t.GetThreadLocalStorage = [](jvmtiEnv*, jthread thread, void** data) -> jvmtiError {
    if (thread == nullptr) {
      *data = ourFakeCPUVM->currentThread;
    } else {
      auto found = ourFakeCPUVM->threadInfos.find(thread);
      *data = found == ourFakeCPUVM->threadInfos.end() ? nullptr : found->second;
    }
    return JVMTI_ERROR_NONE;
  };
  t.GetStackTrace = [](jvmtiEnv*, jthread, jint start, jint max, jvmtiFrameInfo* frames, jint* count) -> jvmtiError {
    EXPECT_EQ(0, start);
    if (ourFakeCPUVM->stackError != JVMTI_ERROR_NONE) {
      return ourFakeCPUVM->stackError;
    }
    jint n = 0;
    for (jmethodID m : ourFakeCPUVM->currentStack) {
      if (n == max) {
        break;
      }
      frames[n].method = m;
      frames[n].location = 0;
      n++;
    }
    *count = n;
    return JVMTI_ERROR_NONE;
  };
  t.IsMethodNative = [](jvmtiEnv*, jmethodID m, jboolean* isNative) -> jvmtiError {
    if (FakeCPUVM::of(m)->unloaded) {
      return JVMTI_ERROR_INVALID_METHODID;
    }
    *isNative = FakeCPUVM::of(m)->isNative ? JNI_TRUE : JNI_FALSE;
    return JVMTI_ERROR_NONE;
  };
  t.GetMethodName = [](jvmtiEnv*, jmethodID m, char** name, char** signature, char** generic) -> jvmtiError {
    if (FakeCPUVM::of(m)->unloaded) {
      return JVMTI_ERROR_INVALID_METHODID;
    }
    *name = copyOut(FakeCPUVM::of(m)->name);
    *signature = copyOut(FakeCPUVM::of(m)->signature);
    EXPECT_EQ(nullptr, generic);
    return JVMTI_ERROR_NONE;
  };
  t.GetMethodDeclaringClass = [](jvmtiEnv*, jmethodID m, jclass* klass) -> jvmtiError {
    *klass = reinterpret_cast<jclass>(m);  // the method stands for its class
    return JVMTI_ERROR_NONE;
  };
  t.GetClassSignature = [](jvmtiEnv*, jclass klass, char** signature, char** generic) -> jvmtiError {
    *signature = copyOut(FakeCPUVM::of(reinterpret_cast<jmethodID>(klass))->classSignature);
    EXPECT_EQ(nullptr, generic);
    return JVMTI_ERROR_NONE;
  };
  t.IsModifiableClass = [](jvmtiEnv*, jclass klass, jboolean* modifiable) -> jvmtiError {
    *modifiable = FakeCPUVM::of(reinterpret_cast<jmethodID>(klass))->hidden ? JNI_FALSE : JNI_TRUE;
    return JVMTI_ERROR_NONE;
  };
  t.GetLocalVariableTable = [](jvmtiEnv*, jmethodID m, jint* count, jvmtiLocalVariableEntry** table) -> jvmtiError {
    const std::vector<std::string>& names = FakeCPUVM::of(m)->locals;
    if (names.empty()) {
      return JVMTI_ERROR_ABSENT_INFORMATION;
    }
    // One unnamed entry first, which must be left out.
    *count = static_cast<jint>(names.size()) + 1;
    *table = static_cast<jvmtiLocalVariableEntry*>(malloc(sizeof(jvmtiLocalVariableEntry) * (names.size() + 1)));
    ourFakeCPUVM->outstandingAllocations++;
    memset(*table, 0, sizeof(jvmtiLocalVariableEntry) * (names.size() + 1));
    for (size_t i = 0; i < names.size(); i++) {
      (*table)[i + 1].slot = static_cast<jint>(i + 1);
      (*table)[i + 1].name = copyOut(names[i]);
      (*table)[i + 1].signature = copyOut("I");
    }
    return JVMTI_ERROR_NONE;
  };
  t.GetAllStackTraces = [](jvmtiEnv*, jint max, jvmtiStackInfo** infos, jint* count) -> jvmtiError {
    EXPECT_EQ(10000, max);
    if (ourFakeCPUVM->allStacksError != JVMTI_ERROR_NONE) {
      return ourFakeCPUVM->allStacksError;
    }
    size_t frames = 0;
    for (auto& s : ourFakeCPUVM->allStacks) {
      frames += s.frames.size();
    }
    size_t n = ourFakeCPUVM->allStacks.size();
    // One block, as the JVM hands it out: infos first, then all frames.
    char* block = static_cast<char*>(malloc(n * sizeof(jvmtiStackInfo) + frames * sizeof(jvmtiFrameInfo) + 1));
    ourFakeCPUVM->outstandingAllocations++;
    jvmtiStackInfo* out = reinterpret_cast<jvmtiStackInfo*>(block);
    jvmtiFrameInfo* frameArea = reinterpret_cast<jvmtiFrameInfo*>(block + n * sizeof(jvmtiStackInfo));
    for (size_t i = 0; i < n; i++) {
      auto& s = ourFakeCPUVM->allStacks[i];
      out[i].thread = s.thread;
      out[i].state = s.state;
      out[i].frame_buffer = frameArea;
      out[i].frame_count = static_cast<jint>(s.frames.size());
      for (jmethodID m : s.frames) {
        frameArea->method = m;
        frameArea->location = 0;
        frameArea++;
      }
    }
    *infos = out;
    *count = static_cast<jint>(n);
    return JVMTI_ERROR_NONE;
  };
  t.Deallocate = [](jvmtiEnv*, unsigned char* memory) -> jvmtiError {
    if (memory != nullptr) {
      ourFakeCPUVM->outstandingAllocations--;
      free(memory);
    }
    return JVMTI_ERROR_NONE;
  };
  t.SetEventNotificationMode = recordEventSwitch;
  t.GetErrorName = [](jvmtiEnv*, jvmtiError, char** name) -> jvmtiError {
    *name = nullptr;
    return JVMTI_ERROR_NONE;
  };
  return t;
}

JNINativeInterface_ makeJNI() {
  JNINativeInterface_ t = {};
  t.DeleteLocalRef = [](JNIEnv*, jobject) { ourFakeCPUVM->deletedRefs++; };
  t.FindClass = [](JNIEnv*, const char*) -> jclass { return reinterpret_cast<jclass>(0x10); };
  t.NewGlobalRef = [](JNIEnv*, jobject o) -> jobject { return o; };
  t.ExceptionCheck = [](JNIEnv*) -> jboolean { return JNI_FALSE; };
  t.ExceptionOccurred = [](JNIEnv*) -> jthrowable { return nullptr; };
  t.ThrowNew = [](JNIEnv*, jclass, const char* message) -> jint {
    ourFakeCPUVM->thrown.push_back(message);
    return 0;
  };
  return t;
}

}  // namespace

void CPUEngineTest::SetUp() {
  AgentDBTest::SetUp();
  ourFakeCPUVM = &myFake;
  myJVMTITable = makeJVMTI();
  myJNITable = makeJNI();
  myJVMTI.functions = &myJVMTITable;
  myEnv.functions = &myJNITable;
  mySavedJVMTI = ourJVMTI;
  ourJVMTI = &myJVMTI;
  mySavedFastClock = ourLinuxFastThreadCPUTimeSupported;
  ourLinuxFastThreadCPUTimeSupported = true;
  ourVMDeathCalled = false;
  setCurrentThreadInfo(nullptr);
  ourMethodID2MethodIndex.init();
  ourMethodsByName.init();
  for (jint i = 0; i < Filter::ourFilters.size(); i++) {
    delete Filter::ourFilters[i];
  }
  Filter::ourFilters.clear();
  ourInverseFilters = false;
  ourRedefineCallback = nullptr;
}

void CPUEngineTest::TearDown() {
  EXPECT_EQ(0, myFake.outstandingAllocations) << "JVMTI memory not given back";
  ourJVMTI = mySavedJVMTI;
  ourLinuxFastThreadCPUTimeSupported = mySavedFastClock;
  ourVMDeathCalled = false;
  setCurrentThreadInfo(nullptr);
  ourRedefineCallback = nullptr;
  ourFakeCPUVM = nullptr;
  AgentDBTest::TearDown();
}

jint CPUEngineTest::pathFrame(std::vector<jint> methodIndices) {
  jint frame = 0;
  for (jint method : methodIndices) {
    jint child = ourFrameStorage.getFirstChild(frame);
    while (child != -1 && ourFrameStorage.getMethodIndex(child) != method) {
      child = ourFrameStorage.getNextSibling(child);
    }
    if (child == -1) {
      return -1;
    }
    frame = child;
  }
  return frame;
}

std::vector<jint> CPUEngineTest::pathOf(jint frame) {
  std::vector<jint> path;
  for (; frame != 0 && frame != -1; frame = ourFrameStorage.getParent(frame)) {
    path.insert(path.begin(), ourFrameStorage.getMethodIndex(frame));
  }
  return path;
}
