// The exported entry points a JVM calls when it loads the agent.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "agent/CPUTime.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/Options.h"

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
  if (!checkPlatformCapabilities()) {
    return -1;
  }
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
