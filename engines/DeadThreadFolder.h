#ifndef KJP_DEADTHREADFOLDER_H
#define KJP_DEADTHREADFOLDER_H

#include <jni.h>

class ThreadInfo;

// What happens to the data of threads that have died. The newest 50 dead threads keep their
// own rows; once more than 60 are waiting, the older ones are folded in one batch into the
// pseudo-thread "<Oldest dead threads>", so that an application that keeps starting threads
// holds a bounded number of per-thread rows.
class DeadThreadFolder {
 public:
  static const jint KEPT_DEAD_THREADS = 50;
  static const jint FOLD_THRESHOLD = 60;
  static const jint STRING_COLLECTION_SPACING = 100;

  // The database side of a thread's end, called from the ThreadEnd event once the JVM side
  // is done: the name refreshed and the thread-local slot cleared. 'info' may be null for a
  // thread that never had one; otherwise it is destroyed here. Folds when more than 60 dead
  // threads wait, and collects unused strings on every hundredth call, the first included.
  static void threadEnded(ThreadInfo* info);

  // Folds the waiting dead threads from ourFirstDeadNumberToMerge up to, not including, the
  // newest 50. Returns how many were folded.
  static jint foldDeadThreads();

  // Position in ourDeadThreadRunningNumbers where folding starts. While nothing is being
  // recorded it is pinned at the list's length, so threads that died during the last
  // recording keep their own rows; any active mode sets it back to 0.
  static jint ourFirstDeadNumberToMerge;
  // Thread ends handled so far.
  static jint ourThreadEndCount;
};

#endif
