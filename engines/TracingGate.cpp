#include "engines/TracingGate.h"

#include <linux/membarrier.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "engines/CallLogs.h"

// Closed until init() finds membarrier.
std::atomic<bool> TracingGate::ourClosed(true);
bool TracingGate::ourUsable = false;
int TracingGate::ourClosureDepth = 0;

namespace {

long membarrier(int command) { return syscall(SYS_membarrier, command, 0, 0); }

// Waits for one thread to leave its lock-free section. A section is a handful of stores, but
// its thread may be preempted in the middle of one, so the wait yields after a while.
void waitUntilOutside(ThreadInfo* info) {
  for (int spins = 0; info->myInLockFreeSection.load(std::memory_order_acquire); spins++) {
    if (spins >= 64) {
      sched_yield();
    }
  }
}

}  // namespace

void TracingGate::init() {
  if (ourUsable) {
    return;
  }
  long supported = membarrier(MEMBARRIER_CMD_QUERY);
  if (supported < 0 || (supported & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) {
    return;
  }
  if (membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) != 0) {
    return;
  }
  ourUsable = true;
  ourClosed.store(false, std::memory_order_release);
}

TracingGate::Closure::Closure(bool close) : myClosing(close) {
  if (!myClosing || ourClosureDepth++ > 0) {
    return;
  }
  if (ourUsable) {
    ourClosed.store(true, std::memory_order_relaxed);
    // Registered in init(), so this cannot fail for lack of registration; the system call is also
    // a full barrier on this thread.
    long result = membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
    KASSERT_TEXT(result == 0, "membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0");
    forEachLiveThread([&](ThreadInfo* info) { waitUntilOutside(info); });
  }
  // Calls still in the threads' logs are calls made: whoever closes sees them.
  CallLogs::catchUpAll();
}

TracingGate::Closure::~Closure() {
  if (!myClosing || --ourClosureDepth > 0) {
    return;
  }
  // The closer may have dropped stacks that only the natives can rebuild.
  CallLogs::publishAll();
  if (ourUsable) {
    ourClosed.store(false, std::memory_order_release);
  }
}
