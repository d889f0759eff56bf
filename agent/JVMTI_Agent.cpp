#include "agent/JVMTI_Agent.h"

#include "agent/JNIUtil.h"

JavaVM* ourVM = nullptr;
jvmtiEnv* ourJVMTI = nullptr;
jvmtiEnv* ourJVMTI2 = nullptr;
jvmtiEnv* ourJVMTI3 = nullptr;
jvmtiEnv* ourJVMTI4 = nullptr;
jvmtiEnv* ourJVMTI5 = nullptr;
jvmtiEnv* ourJVMTI6 = nullptr;
jvmtiEnv* ourJVMTI7 = nullptr;

bool ourIsMustang = false;
bool ourIs6u4OrNewer = false;
bool ourHasVirtualThreads = false;
bool ourIsIBM = false;
bool ourIsJRockit = false;
bool ourIsMac = false;
bool ourIsJRockit_R27 = false;
bool ourIsJRockit_R27_1 = false;
bool ourIsOldIBM = false;

volatile bool ourVMStartCalled = false;
volatile bool ourVMInitCalled = false;
volatile bool ourVMDeathCalled = false;

volatile jlong ourStatus = STACK_TELEMETRY;

const char* const ourNativeMethodPrefix = "$$KJP$$";

KLock ourLock;
jrawMonitorID ourJVMTISamplerLock = nullptr;

KSet<ThreadInfo*> ourAllThreadInfos(256);
KVector<jint> ourDeadThreadRunningNumbers(100);

bool canInstrumentNativeMethods() { return ourIsMustang && !ourIsMac; }

bool canWriteExactArrayLengths() {
  if (!ourIsMustang) {
    return false;
  }
  if (!ourIsJRockit) {
    return true;
  }
  return ourIsJRockit_R27 && !ourIsJRockit_R27_1;
}

bool isFieldOrderBySpecification() {
  if (ourIsJRockit && !ourIsMustang) {
    return !ourIsJRockit_R27;
  }
  return false;
}

bool isInterfaceFieldsBeforeOther() { return ourIsIBM || ourIsJRockit_R27_1; }

bool isFlagUsed() { return ourIsIBM; }

jvmtiPhase currentPhase() {
  if (ourVMInitCalled && !ourVMDeathCalled) {
    return JVMTI_PHASE_LIVE;
  }
  jvmtiPhase phase;
  check_JVMTI_error(ourJVMTI->GetPhase(&phase));
  return phase;
}
