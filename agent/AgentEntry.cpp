// The exported entry points a JVM calls when it loads the agent.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "agent/CPUTime.h"
#include "agent/CallbackJar.h"
#include "agent/EngineEvents.h"
#include "agent/LifecycleEvents.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/Options.h"
#include "agent/VirtualThreads.h"
#include "db/DB.h"
#include "engines/Engine.h"
#include "engines/ObjectEnumerator.h"
#include "engines/ThreadInfo.h"
#include "engines/TracingGate.h"
#include "instrument/CallbackPatcher.h"
#include "instrument/ClassLoadHook.h"

namespace {

const jint JVMTI_VERSION_FOR_AGENT = 0x30010000;

// A system property of the JVM as a new[] copy, or null when the JVM doesn't have it.
char* getSystemProperty(const char* name) {
  char* value = nullptr;
  if (ourJVMTI->GetSystemProperty(name, &value) != JVMTI_ERROR_NONE || value == nullptr) {
    return nullptr;
  }
  size_t length = strlen(value);
  char* copy = new char[length + 1];
  memcpy(copy, value, length + 1);
  ourJVMTI->Deallocate(reinterpret_cast<unsigned char*>(value));
  return copy;
}

bool startsWith(const char* text, const char* prefix) {
  return text != nullptr && strncmp(text, prefix, strlen(prefix)) == 0;
}

bool contains(const char* text, const char* part) { return text != nullptr && strstr(text, part) != nullptr; }

// IBM JVMs before their 2007-04-20 build lack what the agent needs of them.
bool isOldIBMBuild(const char* info) {
  if (ourOptions.myOldIBM) {
    return true;
  }
  if (info[0] < '2') {
    return true;
  }
  if (info[0] != '2') {
    return false;
  }
  const char* reference = "20070420";
  for (int i = 0; reference[i] != 0; i++) {
    if (info[i] != reference[i]) {
      return info[i] < reference[i];
    }
  }
  return false;
}

void detectJVM() {
  jint version = 0;
  check_JVMTI_error(ourJVMTI->GetVersionNumber(&version));
  ourIsMustang = static_cast<unsigned>(version) > 0x30010154u;
  ourIs6u4OrNewer = static_cast<unsigned>(version) > 0x30010169u;
  ourHasVirtualThreads = ((version & JVMTI_VERSION_MASK_MAJOR) >> JVMTI_VERSION_SHIFT_MAJOR) >= 19;

  char* vendor = getSystemProperty("java.vm.vendor");
  ourIsIBM = startsWith(vendor, "IBM");
  ourIsJRockit = startsWith(vendor, "BEA");
  ourIsMac = startsWith(vendor, "Apple");
  delete[] vendor;

  if (ourIsJRockit) {
    char* vmVersion = getSystemProperty("java.vm.version");
    if (contains(vmVersion, "1.5.0")) {
      ourIsMustang = false;
      ourIsJRockit_R27 = contains(vmVersion, "R27.");
      ourIsJRockit_R27_1 = contains(vmVersion, "R27.1");
    }
    delete[] vmVersion;
  }
  if (ourIsIBM) {
    // Runs before the options are parsed, so the oldibm option can't influence it yet.
    char* info = getSystemProperty("java.vm.info");
    KASSERT(info != nullptr);
    ourIsOldIBM = isOldIBMBuild(info);
    delete[] info;
  }
}

// The capabilities of the main environment: those of class instrumentation here, and the
// engines' own. A debugger in the same JVM conflicts with suspension, and on JRockit also with
// local variable access, so those are left out then.
void addCapabilitiesOrFail(bool* notAvailable) {
  jvmtiCapabilities capabilities;
  memset(&capabilities, 0, sizeof(capabilities));
  capabilities.can_redefine_classes = 1;
  capabilities.can_generate_all_class_hook_events = 1;
  addEngineCapabilities(&capabilities);
  if (!(ourIsJRockit && ourOptions.myWithDebugger)) {
    capabilities.can_access_local_variables = 1;
  }
  if (!ourOptions.myWithDebugger) {
    capabilities.can_suspend = 1;
  }
  if (canInstrumentNativeMethods()) {
    capabilities.can_set_native_method_prefix = 1;
  }
  jvmtiError error = ourJVMTI->AddCapabilities(&capabilities);
  *notAvailable = error == JVMTI_ERROR_NOT_AVAILABLE;
  if (!*notAvailable) {
    check_JVMTI_error(error);
  }
}

// One environment per user of object tags, so that no user can disturb another's tags.
jvmtiEnv* createTaggingEnvironment(JavaVM* vm) {
  jvmtiEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JVMTI_VERSION_FOR_AGENT) != JNI_OK || env == nullptr) {
    return nullptr;
  }
  jvmtiCapabilities capabilities;
  memset(&capabilities, 0, sizeof(capabilities));
  capabilities.can_tag_objects = 1;
  if (env->AddCapabilities(&capabilities) != JVMTI_ERROR_NONE) {
    return nullptr;
  }
  return env;
}

// The callbacks of every event through virtual thread end, whatever headers the agent is built
// with: a JVM takes as many of them as it knows.
union AllEventCallbacks {
  jvmtiEventCallbacks named;
  jvmtiEventReserved bySlot[VirtualThreads::END_EVENT - JVMTI_MIN_EVENT_TYPE_VAL + 1];
};

void installEventCallbacks(bool withVirtualThreads) {
  AllEventCallbacks all;
  memset(&all, 0, sizeof(all));
  jvmtiEventCallbacks& callbacks = all.named;
  callbacks.VMInit = vmInit;
  callbacks.VMDeath = vmDeath;
  callbacks.VMStart = vmStart;
  callbacks.ThreadStart = threadStart;
  callbacks.ThreadEnd = threadEnd;
  callbacks.ClassFileLoadHook = class_file_load_hook_handler;
  // Mode changes switch the probes by redefining the callback class that the hook prepared.
  ourRedefineCallback = redefineCallback;
  setEngineEventHandlers(&callbacks);
  if (withVirtualThreads) {
    all.bySlot[VirtualThreads::START_EVENT - JVMTI_MIN_EVENT_TYPE_VAL] =
        reinterpret_cast<jvmtiEventReserved>(VirtualThreads::started);
    all.bySlot[VirtualThreads::END_EVENT - JVMTI_MIN_EVENT_TYPE_VAL] =
        reinterpret_cast<jvmtiEventReserved>(VirtualThreads::ended);
  }
  check_JVMTI_error(ourJVMTI->SetEventCallbacks(&callbacks, static_cast<jint>(sizeof(all))));

  const jvmtiEvent enabledAtLoad[] = {
      JVMTI_EVENT_VM_INIT,    JVMTI_EVENT_VM_START,     JVMTI_EVENT_VM_DEATH,
      JVMTI_EVENT_CLASS_FILE_LOAD_HOOK,
      JVMTI_EVENT_THREAD_END, JVMTI_EVENT_THREAD_START,
  };
  for (jvmtiEvent event : enabledAtLoad) {
    check_JVMTI_error(ourJVMTI->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr));
  }
  enableEngineEventsAtLoad(ourJVMTI);
}

void reportStart() {
  jint version = 0;
  check_JVMTI_error(ourJVMTI->GetVersionNumber(&version));
  char* vmVersion = getSystemProperty("java.vm.version");
  char* vendor = getSystemProperty("java.vm.vendor");
  char* info = getSystemProperty("java.vm.info");
  fprintf(stderr, KJP_LOG_PREFIX "JVMTI version %x; %s; %s; %s; %s; %s\n", version,
          vmVersion != nullptr ? vmVersion : "", vendor != nullptr ? vendor : "", info != nullptr ? info : "",
          "Linux", "64-bit JVM");
  fflush(stderr);
  delete[] vmVersion;
  delete[] vendor;
  delete[] info;
}

}  // namespace

extern "C" JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void* reserved) {
  ourVM = vm;
  if (ourJVMTI != nullptr) {
    return 0;  // loaded twice into one process: the first load serves
  }
  jint result = vm->GetEnv(reinterpret_cast<void**>(&ourJVMTI), JVMTI_VERSION_FOR_AGENT);
  if (result != JNI_OK || ourJVMTI == nullptr) {
    ourJVMTI = nullptr;
    fprintf(stderr, "%s: Unable to create JVMTI environment, error=%d\n", KJP_CANNOT_START, result);
    fflush(stderr);
    return -1;
  }
  detectJVM();
  if (!ourOptions.parse(options)) {
    exit(1);
  }
  ourObjectEnumerator = new ObjectEnumerator();
  DB::createAndInitializeDB(ourOptions.myTelemetryLimit);

  bool notAvailable = false;
  addCapabilitiesOrFail(&notAvailable);
  if (notAvailable) {
    fprintf(stderr,
            "%s: the JVM does not provide required profiling capabilities.\n\n"
            "This happens because garbage collector that does not support heap profiling is possibly used.\n"
            "Please pay attention to JVM parameters such as -XX:+UseConcMarkSweepGC and -Xincgc.\n",
            KJP_CANNOT_START);
    fflush(stderr);
    return -1;
  }

  jvmtiEnv** sideEnvironments[] = {&ourJVMTI2, &ourJVMTI3, &ourJVMTI4, &ourJVMTI5, &ourJVMTI6, &ourJVMTI7};
  bool allSideEnvironments = true;
  for (jvmtiEnv** side : sideEnvironments) {
    *side = createTaggingEnvironment(vm);
    allSideEnvironments = allSideEnvironments && *side != nullptr;
  }
  // JRockit may refuse some; the features built on a missing one are simply off there.
  if (!allSideEnvironments && !ourIsJRockit) {
    fprintf(stderr, "%s: Unable to create JVMTI environment\n", KJP_CANNOT_START);
    fflush(stderr);
    return -1;
  }

  if (!checkPlatformCapabilities()) {
    return -1;
  }
  TracingGate::init();
  bool seesVirtualThreads = ourHasVirtualThreads && VirtualThreads::addCapability(ourJVMTI);
  installEventCallbacks(seesVirtualThreads);
  ourTracksVirtualThreads = seesVirtualThreads && VirtualThreads::enableEvents(ourJVMTI);
  if (canInstrumentNativeMethods()) {
    check_JVMTI_error(ourJVMTI->SetNativeMethodPrefix(ourNativeMethodPrefix));
  }

  KString wantedPath = getCallbackJarPath(ourOptions.myTmpDir);
  KString jarPath = installCallbackJar(wantedPath.get());
  if (jarPath.length() == 0) {
    fprintf(stderr,
            KJP_LOG_PREFIX "Cannot open temp. jar file for reading: %s. "
                           "Please consider -agentlib:kjpagent=tmpdir=<alternate dir> option.\n",
            wantedPath.get());
    fflush(stderr);
    return -1;
  }
  check_JVMTI_error(ourJVMTI->AddToBootstrapClassLoaderSearch(jarPath.get()));

  if (!ourOptions.myQuiet) {
    reportStart();
  }
  check_JVMTI_error(ourJVMTI->CreateRawMonitor("kjp_jvmti_sampler_lock", &ourJVMTISamplerLock));
  return 0;
}

extern "C" JNIEXPORT void JNICALL Agent_OnUnload(JavaVM* vm) {}

// The loading path of JVMs that predate JVMTI.
extern "C" JNIEXPORT jint JNICALL JVM_OnLoad(JavaVM* vm, char* options, void* reserved) {
  if (ourJVMTI == nullptr) {
    fprintf(stderr, "%s: Java 5 or newer is required. To profile on Java 1.4, use Kestrix Java Profiler 7.5.x\n",
            KJP_CANNOT_START);
    fflush(stderr);
    return -1;
  }
  return 0;
}
