#ifndef KJP_TRACINGGATE_H
#define KJP_TRACINGGATE_H

#include <atomic>

#include "engines/ThreadInfo.h"

// Lets a traced call that needs nothing shared be recorded without ourLock: the thread already
// knows its frame and its row, and only its own ThreadInfo and rows change. Two locked bus
// operations per probe are most of what a traced call costs beyond its clock reads, so the probes
// avoid them whenever they can.
//
// Whoever reads or resets other threads' calls and rows (a table transfer, a snapshot, clearing
// CPU data, starting or stopping CPU profiling) takes ourLock and then closes the gate: no thread
// is inside a lock-free section from then until the gate opens again, and probes that come
// meanwhile take the locked path, which waits for ourLock. So for a holder of ourLock with the
// gate closed, every thread's tracing state stands still, as if every probe took ourLock.
//
// The probe side uses no atomic read-modify-write and no fence: it marks its ThreadInfo, then
// looks at the gate. The closing side pays for both sides with membarrier(2), which runs a full
// barrier on every CPU running a thread of this process: after it, a probe either sees the gate
// closed or its mark is visible to the closer, who waits for the mark to go. Without membarrier
// the gate stays closed for good and every probe takes ourLock.
class TracingGate {
 public:
  // Registers the process for expedited membarrier; opens the gate when that works. Idempotent.
  static void init();

  // True when the gate is usable at all.
  static bool isUsable() { return ourUsable; }

  // Marks the thread as inside a lock-free section and returns true, or returns false when the
  // gate is closed: the caller then takes the locked path. The thread must leave() after a
  // true answer, and must take no lock and call nothing that may block in between.
  static bool enter(ThreadInfo* info) {
    info->myInLockFreeSection.store(true, std::memory_order_relaxed);
    // The store must not move after the load below in the compiled code; the processor may
    // still reorder them, which the closer's membarrier undoes.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (ourClosed.load(std::memory_order_acquire)) {
      info->myInLockFreeSection.store(false, std::memory_order_release);
      return false;
    }
    return true;
  }

  static void leave(ThreadInfo* info) { info->myInLockFreeSection.store(false, std::memory_order_release); }

  // True when no lock-free section can run: a holder of ourLock may then touch any thread's
  // tracing state.
  static bool isClosed() { return ourClosed.load(std::memory_order_relaxed); }

  // Closes the gate for its lifetime and waits until no thread is inside a lock-free section;
  // with 'close' false it does nothing, for callers that need the gate closed only sometimes.
  // The caller holds ourLock, which also guards the nesting count.
  class Closure {
   public:
    explicit Closure(bool close = true);
    ~Closure();
    Closure(const Closure&) = delete;
    Closure& operator=(const Closure&) = delete;

   private:
    bool myClosing;
  };

 private:
  static std::atomic<bool> ourClosed;
  static bool ourUsable;
  static int ourClosureDepth;
};

#endif
