#include "engines/WallTimeCorrector.h"

#include "agent/KAssert.h"
#include "db/DB.h"
#include "engines/KFrameStorage.h"
#include "engines/ThreadFrameIndex.h"
#include "engines/ThreadInfo.h"

void WallTimeCorrector::scheduleForCorrection(ThreadInfo* threadInfo) {
  KASSERT(threadInfo);
  if (threadInfo->myNeedsWallTimeCorrection) {
    myThreads.push(threadInfo->myIndexForTFI);
    threadInfo->myNeedsWallTimeCorrection = false;
  }
}

void WallTimeCorrector::correctWallTimes() {
  if (myThreads.isEmpty()) {
    return;
  }
  ThreadFrameIndex* index = ourDB->myThreadFrameIndex;
  DBTable<CPUProfilingRecord>* cpu = ourDB->myCPUProfilingTable;
  // Post-order without recursion: trees can be thousands of frames deep. Each stack entry is
  // a frame and the child of it visited last (0 before the first).
  KVector<jint> frames(10);
  KVector<jint> children(10);
  frames.push(0);
  children.push(0);
  while (!frames.isEmpty()) {
    jint frame = frames.pop();
    jint child = children.pop();
    jint next = child == 0 ? ourFrameStorage.getFirstChild(frame) : ourFrameStorage.getNextSibling(child);
    if (next != -1) {
      frames.push(frame);
      children.push(next);
      frames.push(next);
      children.push(0);
      continue;
    }
    if (child == 0) {
      continue;  // a leaf has nothing to sum
    }
    for (jint t = 0; t < myThreads.size(); t++) {
      jint slot = myThreads[t];
      jlong sum = 0;
      for (jint c = ourFrameStorage.getFirstChild(frame); c != -1; c = ourFrameStorage.getNextSibling(c)) {
        jint tfi = index->getTFI(slot, c, false);
        if (tfi != -1) {
          sum += cpu->getRecord(tfi, true)->time;
        }
      }
      if (sum != 0) {
        CPUProfilingRecord* own = cpu->getRecord(index->getTFI(slot, frame, true), true);
        if (own->time < sum) {
          own->time = sum;
        }
        own->myModificationStamp = ourDB->myModificationStamp;
      }
    }
  }
  myThreads.clear();
}
