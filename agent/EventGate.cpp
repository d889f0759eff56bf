#include "agent/EventGate.h"

#include <time.h>

EventGate ourEngineEventGate;

bool EventGate::close(long timeoutMillis) {
  myClosed.store(true, std::memory_order_seq_cst);
  // A handler that entered before the store sees the gate open and is counted in myInside;
  // one that enters after sees it closed. Both orders are sequentially consistent, so no
  // handler works unseen once myInside reads 0.
  const long stepMillis = 1;
  for (long waited = 0; myInside.load(std::memory_order_acquire) != 0; waited += stepMillis) {
    if (waited >= timeoutMillis) {
      return false;
    }
    struct timespec pause = {0, stepMillis * 1000000L};
    nanosleep(&pause, nullptr);
  }
  return true;
}
