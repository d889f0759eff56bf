// The engines of the library. A new engine is its own files and one row here.
#include "agent/Options.h"
#include "db/DB.h"
#include "engines/AllocationRecording.h"
#include "engines/AsyncSampling.h"
#include "engines/CPUProfiling.h"
#include "engines/Engine.h"
#include "engines/Exceptions.h"
#include "engines/J2EERecording.h"
#include "engines/Monitors.h"

// Allocations first, then CPU, then monitors: the options start them at VM Init in this
// order, and a class's preparation is counted as an allocation before it is checked for J2EE.
const Engine* const ourEngines[] = {
    &ourAllocationEngine,
    &ourCPUEngine,
    &ourAsyncSamplingEngine,
    &ourJ2EEEngine,
    &ourMonitorEngine,
    &ourExceptionEngine,
};
const int ourEngineCount = static_cast<int>(sizeof(ourEngines) / sizeof(ourEngines[0]));

void (*ourRedefineCallback)(JNIEnv* env) = nullptr;

bool exceptionEventsWanted() { return !ourOptions.myDisableExceptions; }

void redefineCallbackAfterStatusChange(JNIEnv* env) {
  if (ourRedefineCallback != nullptr) {
    ourRedefineCallback(env);
  }
}

void clearTableAndNote(jint tableID) {
  ourDB->getTable(tableID)->clearTable();
  ourDB->noteTableCleared(tableID);
}
