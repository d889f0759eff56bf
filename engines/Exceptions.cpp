#include "engines/Exceptions.h"

#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"

extern "C" JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_clearExceptions(JNIEnv*, jclass) {
  LockHolder holder(&ourLock, "Exceptions(7)");
  // Exception telemetry keeps no data in this build; there is nothing to clear yet.
}

namespace {

const JNINativeMethod CORE_NATIVES[] = {
    nativeRow("clearExceptions", "()V", Java_com_kestrix_runtime_Core_clearExceptions),
};

}  // namespace

const Engine ourExceptionEngine = {
    "exceptions",
    nullptr,
    nullptr,
    EventList{nullptr, 0},
    nullptr,
    nullptr,
    nativeList(CORE_NATIVES),
    NativeList{nullptr, 0},
    nullptr,
    nullptr,
};
