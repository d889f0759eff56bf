#include "engines/WallTimeCorrector.h"

#include "db/KIntChunkMap.h"

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

void WallTimeCorrector::correctThread(ThreadInfo* threadInfo) {
  KASSERT(threadInfo);
  if (!threadInfo->myNeedsWallTimeCorrection) {
    return;
  }
  threadInfo->myNeedsWallTimeCorrection = false;
  ThreadFrameIndex* index = ourDB->myThreadFrameIndex;
  DBTable<CPUProfilingRecord>* cpu = ourDB->myCPUProfilingTable;
  jint slot = threadInfo->myIndexForTFI;
  KIntChunkMap<jint>* frames = index->getFrameMap(slot);
  if (frames == nullptr) {
    return;
  }
  // A frame is made after its parent and frames are never freed, so a parent's index is below
  // its children's: visiting the thread's frames from the highest index down sees every child
  // before its parent, which is the post-order the correction needs. A caller without a row of
  // its own gets one when its callees sum to more than nothing, as in the whole-tree walk; the
  // new row lies below the frame being visited, so the walk still reaches it.
  for (jint c = frames->getChunkCount() - 1; c >= 0; c--) {
    for (jint i = KIntChunkMap<jint>::CHUNK_SIZE - 1; i >= 0; i--) {
      // Read again at each step: a row made for a caller may have added this chunk.
      jint* chunk = frames->getChunk(c);
      if (chunk == nullptr) {
        break;
      }
      if (chunk[i] == -1) {
        continue;
      }
      jint frame = (c << KIntChunkMap<jint>::CHUNK_SHIFT) + i;
      jlong sum = 0;
      for (jint child = ourFrameStorage.getFirstChild(frame); child != -1;
           child = ourFrameStorage.getNextSibling(child)) {
        KASSERT_TEXT(child > frame, "child > frame");
        jint tfi = index->getTFI(slot, child, false);
        if (tfi != -1) {
          sum += cpu->getRecord(tfi, true)->time;
        }
      }
      CPUProfilingRecord* own = cpu->getRecord(chunk[i], true);
      if (sum != 0) {
        if (own->time < sum) {
          own->time = sum;
        }
        own->myModificationStamp = ourDB->myModificationStamp;
      }
      jlong time = own->time;
      if (frame != 0 && time != 0) {
        // Makes the caller's row, so that the walk reaches it.
        index->getTFI(slot, ourFrameStorage.getParent(frame), true);
      }
    }
  }
}
