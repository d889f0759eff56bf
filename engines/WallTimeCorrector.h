#ifndef KJP_WALLTIMECORRECTOR_H
#define KJP_WALLTIMECORRECTOR_H

#include <jni.h>

#include "agent/KVector.h"

class ThreadInfo;

// Mixing clocks lets a caller timed in CPU time come out smaller than a wall-timed callee.
// The corrector raises each frame of the scheduled threads to at least the sum of its
// children, bottom-up, so that inclusive times stay inclusive. Runs under ourLock.
class WallTimeCorrector {
 public:
  WallTimeCorrector() : myThreads(16) {}

  // Takes the thread into the batch when its tree had wall time added, and clears that mark.
  void scheduleForCorrection(ThreadInfo* threadInfo);

  // Corrects the trees of every scheduled thread in one walk of the call tree.
  void correctWallTimes();

 private:
  // TFI slots of the threads to correct.
  KVector<jint> myThreads;
};

#endif
