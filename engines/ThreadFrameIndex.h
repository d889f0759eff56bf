#ifndef KJP_THREADFRAMEINDEX_H
#define KJP_THREADFRAMEINDEX_H

#include <jni.h>

#include "agent/KAssert.h"
#include "agent/KVector.h"
#include "db/DB.h"
#include "db/KIntChunkMap.h"

class ThreadInfo;

// Gives each (thread slot, frame) pair that occurs a dense number, its TFI: the row number of
// the pair in the threadframe, cpuprofiling and allocinfo tables alike. The call tree is
// shared by all threads but figures are per thread, and this keeps those three tables dense
// however large the tree grows.
//
// A vector indexed by thread slot (ThreadInfo::myIndexForTFI) holds, per slot, a chunk map
// from frame to TFI with -1 for none. A lookup is two array reads and no hashing: it sits on
// the tracing hot path. All operations run under ourLock.
class ThreadFrameIndex {
 public:
  static const jint FRAME_MAP_CAPACITY = 2000;

  explicit ThreadFrameIndex(DB* db);
  ~ThreadFrameIndex();

  ThreadFrameIndex(const ThreadFrameIndex&) = delete;
  ThreadFrameIndex& operator=(const ThreadFrameIndex&) = delete;

  // The pair's TFI; with 'create', a new stamped threadframe row when the pair has none,
  // otherwise -1 for an unknown pair. Without 'create' nothing is allocated.
  jint getTFI(jint threadSlot, jint frame, bool create) {
    KASSERT_TEXT(threadSlot >= 0, "index >= 0");
    if (threadSlot < myMaps.size()) {
      KIntChunkMap<jint>* map = myMaps.get(threadSlot);
      if (map != nullptr) {
        jint* tfi = map->getPtr(frame, create);
        if (tfi != nullptr && *tfi != -1) {
          return *tfi;
        }
        if (!create) {
          return -1;
        }
        return createTFI(tfi, threadSlot, frame);
      }
    }
    if (!create) {
      return -1;
    }
    return createTFI(makeMap(threadSlot)->getPtr(frame, true), threadSlot, frame);
  }

  // The slot's map from frame to TFI, or null when the slot has no pairs. For walks over one
  // thread's frames; the map belongs to the index.
  KIntChunkMap<jint>* getFrameMap(jint threadSlot) {
    KASSERT_TEXT(threadSlot >= 0, "index >= 0");
    return threadSlot < myMaps.size() ? myMaps.get(threadSlot) : nullptr;
  }

  // Hands every pair of the slot over to "<Oldest dead threads>": their CPU and allocation
  // figures are added to that thread's pairs on the same frames, the slot's rows are zeroed
  // and marked deleted, and their TFIs go back to the pool. The caller gives the slot itself
  // back afterwards.
  void changeThread(jint threadSlot);

  // Drops every pair of the thread and its figures, with no heir.
  void clearThread(ThreadInfo* info);

  // Frees all maps; the rows stay as they are.
  void clearThreadFrameIndex();

  // Memory held by the index, for the database statistics.
  jlong getAllocatedBytes() const;

  // Rebuilds the index from the threadframe table, for a database loaded from a snapshot.
  // The table's pool ends above every row, so new pairs never reuse a row of the file.
  void fillIndexFromTable();

 private:
  KIntChunkMap<jint>* makeMap(jint threadSlot);
  jint createTFI(jint* slotInMap, jint threadSlot, jint frame);
  // Empties the pairs of one slot, folding their figures into heirSlot unless it is -1.
  void dropSlot(jint threadSlot, jint heirSlot);

  KVector<KIntChunkMap<jint>*> myMaps;
  DB* myDB;
};

#endif
