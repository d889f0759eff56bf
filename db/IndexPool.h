#ifndef KJP_INDEXPOOL_H
#define KJP_INDEXPOOL_H

#include <jni.h>

#include "agent/KVector.h"

// Hands out row indices: released ones first, the last released first, then never-used ones
// counting up from the first index. The pool doesn't know which indices are in use; whoever
// draws an index owns it until it gives it back.
class IndexPool {
 public:
  explicit IndexPool(jint firstIndex);

  jint nextIndex();
  void releaseIndex(jint index);
  // Forgets every released index and starts counting from the first index again.
  void clearIndexPool();

  jint getFirstIndex() const { return myFirstIndex; }
  // The index that nextIndex() gives once no released index is left.
  jint getNextNewIndex() const { return myNextIndex; }
  jint getReleasedCount() const { return myReleasedIndices.size(); }

 private:
  KVector<jint> myReleasedIndices;
  jint myNextIndex;
  jint myFirstIndex;
};

#endif
