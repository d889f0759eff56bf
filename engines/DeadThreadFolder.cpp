#include "engines/DeadThreadFolder.h"

#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "agent/KSet.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/Engine.h"
#include "engines/ThreadFrameIndex.h"
#include "engines/ThreadInfo.h"

jint DeadThreadFolder::ourFirstDeadNumberToMerge = 0;
jint DeadThreadFolder::ourThreadEndCount = 0;

void DeadThreadFolder::threadEnded(ThreadInfo* info) {
  LockHolder holder(&ourLock, "DeadThreadFolder(20)");
  if (ourStatus == 0) {
    if (ourFirstDeadNumberToMerge == 0) {
      ourFirstDeadNumberToMerge = ourDeadThreadRunningNumbers.size();
    }
  } else {
    ourFirstDeadNumberToMerge = 0;
  }

  if (info != nullptr) {
    forEachEngine([&](const Engine& engine) {
      if (engine.threadEnded != nullptr) {
        engine.threadEnded(info);
      }
    });
    ourDeadThreadRunningNumbers.push(info->myRunningNumber);
    ourAllThreadInfos.remove(info);
    delete info;
  }

  if (ourDeadThreadRunningNumbers.size() > FOLD_THRESHOLD) {
    foldDeadThreads();
  }

  // Spaced out because a collection scans every table; the first thread end runs one too.
  if (ourThreadEndCount++ % STRING_COLLECTION_SPACING == 0) {
    ourDB->myStrPool->collectGarbageStrings();
  }
}

jint DeadThreadFolder::foldDeadThreads() {
  LockHolder holder(&ourLock, "DeadThreadFolder(45)");
  KSet<jint> folded(100);
  jint end = ourDeadThreadRunningNumbers.size() - KEPT_DEAD_THREADS;
  for (jint i = ourFirstDeadNumberToMerge; i < end; i++) {
    folded.add(ourDeadThreadRunningNumbers.get(i));
  }
  if (folded.size() == 0) {
    return 0;
  }

  // Engines that keep per-thread rows of their own fold them first.
  forEachEngine([&](const Engine& engine) {
    if (engine.foldThreads != nullptr) {
      engine.foldThreads(&folded);
    }
  });

  DB* db = ourDB;
  db->myThreadTable->forEachStampedRecord([&](jint, ThreadRecord* record) {
    if (!folded.contains(record->myRunningNumber)) {
      return;
    }
    KASSERT_TEXT(record->myIndexForTFI != 0, "record->myIndexForTFI");
    db->myThreadFrameIndex->changeThread(record->myIndexForTFI);
    ThreadInfo::ourIndexForTFIPool.releaseIndex(record->myIndexForTFI);
    // The row stays for good; a slot of 0 tells the client the thread's data has moved.
    record->myIndexForTFI = 0;
    record->myModificationStamp = db->myModificationStamp;
  });

  ourDeadThreadRunningNumbers.removeRange(ourFirstDeadNumberToMerge, ourFirstDeadNumberToMerge + folded.size());
  return folded.size();
}
