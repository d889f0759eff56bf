#ifndef KJP_EVENTGATE_H
#define KJP_EVENTGATE_H

#include <atomic>

// Lets JVMTI event handlers finish before the JVM dies under them. Once the JVM has sent its
// death event it answers most questions with JVMTI_ERROR_WRONG_PHASE, and a handler that was
// half way through one (a class prepared on another thread, a monitor event of a daemon
// thread) would end the process on that error. The death handler closes the gate and waits
// for the handlers inside to leave; handlers that arrive later do nothing.
class EventGate {
 public:
  // One handler's passage: open() says whether it may do its work.
  class Passage {
   public:
    explicit Passage(EventGate& gate) : myGate(gate) {
      myGate.myInside.fetch_add(1, std::memory_order_seq_cst);
      myOpen = !myGate.myClosed.load(std::memory_order_seq_cst);
    }
    ~Passage() { myGate.myInside.fetch_sub(1, std::memory_order_release); }
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;
    bool open() const { return myOpen; }

   private:
    EventGate& myGate;
    bool myOpen;
  };

  // Turns away later handlers and waits up to 'timeoutMillis' for those inside to leave.
  // Returns whether they all left: a handler stuck on something the caller holds must not
  // hang the JVM's exit, so the wait is bounded.
  bool close(long timeoutMillis);

  // Opens the gate again (for tests).
  void reopen() { myClosed.store(false); }

  int inside() const { return myInside.load(); }

 private:
  std::atomic<int> myInside{0};
  std::atomic<bool> myClosed{false};
};

// The gate every engine event passes.
extern EventGate ourEngineEventGate;

#endif
