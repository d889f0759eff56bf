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

  // Corrects one thread's tree, if it is marked, and clears the mark, with the same result as
  // scheduling it alone and correcting. For a thread that ends: its figures outlive its
  // ThreadInfo and its mark, and the whole tree may be far larger than the part it touched, so
  // this visits only the frames the thread has rows on and their callers.
  static void correctThread(ThreadInfo* threadInfo);

 private:
  // TFI slots of the threads to correct.
  KVector<jint> myThreads;
};

#endif
