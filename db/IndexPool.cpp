#include "db/IndexPool.h"

IndexPool::IndexPool(jint firstIndex) : myReleasedIndices(10), myNextIndex(firstIndex), myFirstIndex(firstIndex) {}

jint IndexPool::nextIndex() {
  if (!myReleasedIndices.isEmpty()) {
    return myReleasedIndices.pop();
  }
  return myNextIndex++;
}

void IndexPool::releaseIndex(jint index) { myReleasedIndices.push(index); }

void IndexPool::clearIndexPool() {
  myReleasedIndices.clear();
  myNextIndex = myFirstIndex;
}
