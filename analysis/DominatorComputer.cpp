#include "analysis/DominatorComputer.h"

#include <string.h>

DominatorComputer::DominatorComputer(JNIEnv* env, ObjectStorage* storage, const jint* roots, jint rootCount,
                                     const jint* marks)
    : myStorage(storage),
      myData(env, "da", (static_cast<jlong>(storage->myObjectCount) + 1) * FIELDS),
      mySentinel(storage->myObjectCount),
      myDFSCount(0),
      myRoots(rootCount * 2 + 16),
      myRoots0(roots),
      myRootCount(rootCount),
      myMarks(marks),
      myCompressPath(64) {
  KASSERT(storage->myVisited);
  KASSERT(storage->myDominatorBuckets);
  for (jint r = 0; r < rootCount; r++) {
    if (roots[r] != 0) {
      myRoots.add(roots[r]);
    }
  }
  // A second computation starts from a clean tree.
  storage->myDominators.reset(0);
  size_t visitedBytes = static_cast<size_t>(storage->getBitSetLength()) * sizeof(jint);
  memset(storage->myVisited, 0, visitedBytes);
  at(mySentinel, ANCESTOR) = mySentinel;
  at(mySentinel, LABEL) = mySentinel;
  depthFirstSearchDom(env, storage->myVisited, &storage->myRefs);
  storage->myRefs.unmapRefTable("AFTER depthFirstSearchDom");
  memset(storage->myVisited, 0, visitedBytes);
  KASSERT_TEXT(storage->myBackRefTable, "backRefTable");
  computeSemidominators();
  BigIntArray64& dominators = storage->myDominators;
  for (jint i = 2; i <= myDFSCount; i++) {
    jint w = at(i, VERTEX);
    jint d = dominators.get(w);
    if (d != at(at(w, SEMI), VERTEX)) {
      dominators.set(w, dominators.get(d));
    }
  }
  storage->myRefs.unmapRefTable("FINISH DOMINATOR COMPUTING");
}

DominatorComputer::~DominatorComputer() {}

void DominatorComputer::number(jint node, jint parent) {
  myDFSCount++;
  at(node, PARENT) = parent;
  at(node, SEMI) = myDFSCount;
  at(myDFSCount, VERTEX) = node;
  at(node, LABEL) = node;
  at(node, ANCESTOR) = mySentinel;
  at(node, CHILD) = mySentinel;
  at(node, SIZE) = 1;
}

void DominatorComputer::depthFirstSearchDom(JNIEnv* env, jint* visited, RefTable* refs) {
  // Two stacks. A frame is a node on the search's path, with the height the stack of candidates
  // had when the node was entered. Entering a node reads its references once, in a row, and
  // pushes those not visited yet as its candidates, the first on top, asking for their entries
  // of the reference table as it goes; returning to a node then costs no second look at its
  // references, long out of the cache after a deep subtree. A candidate that a subtree visited
  // in the meantime is passed over when it comes up, so the numbering is that of a recursive
  // search taking references in their order.
  BigIntArray64 frames(env, "dfsd", 0);
  BigIntArray64 candidates(env, "dfsc", 0);
  BigIntArray64& targets = refs->getRefs();
  const jint* startAndCount = refs->getStartAndCount();
  jint frameTop = 0;
  jint candidateTop = 0;
  number(0, mySentinel);
  setMark(visited, 0);
  frames.set(0, 0);
  frames.set(1, 0);
  for (jint r = myRootCount - 1; r >= 0; r--) {
    if (takes(visited, myRoots0[r])) {
      candidates.set(candidateTop++, myRoots0[r]);
    }
  }
  BigIntArrayIterator run;
  while (frameTop >= 0) {
    jint node = frames.get(2 * frameTop);
    if (candidateTop == frames.get(2 * frameTop + 1)) {
      frameTop--;
      continue;
    }
    jint target = candidates.get(--candidateTop);
    if (isMarked(visited, target)) {
      continue;
    }
    number(target, node);
    setMark(visited, target);
    frameTop++;
    frames.set(2 * frameTop, target);
    frames.set(2 * frameTop + 1, candidateTop);
    jint first = candidateTop;
    jint start = startAndCount[2 * target];
    run.init(&targets, start, start + startAndCount[2 * target + 1]);
    while (run.hasNext()) {
      jint candidate = run.next();
      if (takes(visited, candidate)) {
        __builtin_prefetch(&startAndCount[2 * candidate]);
        candidates.set(candidateTop++, candidate);
      }
    }
    // The first reference goes on top.
    for (jint low = first, high = candidateTop - 1; low < high; low++, high--) {
      jint swap = candidates.get(low);
      candidates.set(low, candidates.get(high));
      candidates.set(high, swap);
    }
  }
}

// A bucket is a list threaded through the nodes' bucket words: the low half of a node's word is
// the first node of its bucket, plus one (0 for an empty bucket); the high half is the next node
// in the bucket the node itself waits in, plus one. A node waits in one bucket at most, so the
// lists need no memory beyond the word a node has anyway, and no allocation at all.
void DominatorComputer::addToBucket(jint bucketOwner, jint node) {
  jlong* words = myStorage->myDominatorBuckets;
  uint32_t head = static_cast<uint32_t>(words[bucketOwner]);
  words[node] = (static_cast<jlong>(head) << 32) | static_cast<uint32_t>(words[node]);
  words[bucketOwner] = (words[bucketOwner] & ~0xFFFFFFFFLL) | static_cast<uint32_t>(node + 1);
}

void DominatorComputer::processBucket(jint bucketOwner) {
  jlong* words = myStorage->myDominatorBuckets;
  BigIntArray64& dominators = myStorage->myDominators;
  uint32_t entry = static_cast<uint32_t>(words[bucketOwner]);
  while (entry != 0) {
    jint v = static_cast<jint>(entry - 1);
    jint u = eval(v);
    dominators.set(v, at(u, SEMI) < at(v, SEMI) ? u : bucketOwner);
    entry = static_cast<uint32_t>(static_cast<unsigned long long>(words[v]) >> 32);
  }
  words[bucketOwner] &= ~0xFFFFFFFFLL;
}

void DominatorComputer::computeSemidominators() {
  RefTable* backRefs = myStorage->myBackRefTable;
  BigIntArrayIterator referrers;
  // The nodes come in DFS order, scattered over memory. What each needs is asked for ahead, in
  // stages, so that the misses overlap: 16 nodes ahead its data and its entry of the table of
  // referrers, 8 ahead the run of its referrers, 4 ahead the data of its first referrer.
  const jint* startAndCount = backRefs->getStartAndCount();
  BigIntArray64& referrerSlots = backRefs->getRefs();
  for (jint i = myDFSCount; i >= 2; i--) {
    if (i - 16 >= 2) {
      jint ahead = at(i - 16, VERTEX);
      prefetchNode(ahead);
      __builtin_prefetch(&startAndCount[2 * ahead]);
    }
    if (i - 8 >= 2) {
      jint ahead = at(i - 8, VERTEX);
      if (startAndCount[2 * ahead + 1] > 0) {
        jint* page = referrerSlots.getBuffer(startAndCount[2 * ahead], false);
        if (page != nullptr) {
          __builtin_prefetch(&page[startAndCount[2 * ahead] & BigIntArray64::PAGE_MASK]);
        }
      }
    }
    if (i - 4 >= 2) {
      jint ahead = at(i - 4, VERTEX);
      if (startAndCount[2 * ahead + 1] > 0) {
        prefetchNode(referrerSlots.get(startAndCount[2 * ahead]));
      }
    }
    jint w = at(i, VERTEX);
    jint& semiW = at(w, SEMI);
    if (!myRoots.contains(w)) {
      backRefs->initReferenceIterator(&referrers, w);
      while (referrers.hasNext()) {
        jint v = referrers.next();
        // A referrer that the search never reached is no predecessor in the graph computed.
        if (v == 0 || !isMarked(myMarks, v) || at(v, SEMI) == 0) {
          continue;
        }
        jint u = eval(v);
        if (at(u, SEMI) < semiW) {
          semiW = at(u, SEMI);
        }
      }
    } else {
      // The virtual root stands in front of every root.
      jint u = eval(0);
      if (at(u, SEMI) < semiW) {
        semiW = at(u, SEMI);
      }
    }
    addToBucket(at(semiW, VERTEX), w);
    jint parent = at(w, PARENT);
    link(parent, w);
    processBucket(parent);
  }
}

void DominatorComputer::link(jint v, jint w) {
  jint s = w;
  jint semiLabelW = semiOfLabel(w);
  while (semiLabelW < semiOfLabel(at(s, CHILD))) {
    jint childS = at(s, CHILD);
    if (at(s, SIZE) + at(at(childS, CHILD), SIZE) >= 2 * at(childS, SIZE)) {
      at(childS, ANCESTOR) = s;
      at(s, CHILD) = at(childS, CHILD);
    } else {
      at(childS, SIZE) = at(s, SIZE);
      at(s, ANCESTOR) = childS;
      s = childS;
    }
  }
  at(s, LABEL) = at(w, LABEL);
  at(v, SIZE) += at(w, SIZE);
  if (at(v, SIZE) < 2 * at(w, SIZE)) {
    jint t = s;
    s = at(v, CHILD);
    at(v, CHILD) = t;
  }
  while (s != mySentinel) {
    at(s, ANCESTOR) = v;
    s = at(s, CHILD);
  }
}

jint DominatorComputer::eval(jint v) {
  if (at(v, ANCESTOR) == mySentinel) {
    return at(v, LABEL);
  }
  compress(v);
  jint labelOfAncestor = at(at(v, ANCESTOR), LABEL);
  jint labelV = at(v, LABEL);
  return at(labelOfAncestor, SEMI) < at(labelV, SEMI) ? labelOfAncestor : labelV;
}

void DominatorComputer::compress(jint v) {
  // The nodes a recursive compress would update, nearest first; they are then updated from the
  // one nearest the forest root downwards, as the recursion would unwind.
  myCompressPath.clear();
  jint x = v;
  while (at(at(x, ANCESTOR), ANCESTOR) != mySentinel) {
    myCompressPath.push(x);
    x = at(x, ANCESTOR);
  }
  for (jint k = myCompressPath.size() - 1; k >= 0; k--) {
    jint y = myCompressPath.getArray()[k];
    jint a = at(y, ANCESTOR);
    if (semiOfLabel(a) < semiOfLabel(y)) {
      at(y, LABEL) = at(a, LABEL);
    }
    at(y, ANCESTOR) = at(a, ANCESTOR);
  }
}
