#include "analysis/DominatorComputer.h"

#include <string.h>

DominatorComputer::DominatorComputer(JNIEnv* env, ObjectStorage* storage, const jint* roots, jint rootCount,
                                     const jint* marks)
    : myStorage(storage),
      myData(env, "da", (static_cast<jlong>(storage->myObjectCount) + 1) * FIELDS),
      mySentinel(0),
      myDFSCount(0),
      myRoots0(roots),
      myRootCount(rootCount),
      myMarks(marks),
      myCompressPath(64) {
  KASSERT(storage->myVisited);
  KASSERT(storage->myDominatorBuckets);
  // A second computation starts from a clean tree.
  storage->myDominators.reset(0);
  size_t visitedBytes = static_cast<size_t>(storage->getBitSetLength()) * sizeof(jint);
  memset(storage->myVisited, 0, visitedBytes);
  at(mySentinel, ANCESTOR) = mySentinel;
  at(mySentinel, LABEL) = mySentinel;
  depthFirstSearchDom(env, storage->myVisited, &storage->myRefs);
  storage->myRefs.unmapRefTable("AFTER depthFirstSearchDom");
  // The visited bits serve again, as the bits of the roots' numbers: the semidominator pass goes
  // through the numbers in a row and tests them at no cost, where a set of roots would cost a
  // hash lookup for each node.
  memset(storage->myVisited, 0, visitedBytes);
  for (jint r = 0; r < rootCount; r++) {
    jint root = roots[r] == 0 ? 0 : storage->myDominators.get(roots[r]);
    if (root != 0) {
      setMark(storage->myVisited, root);
    }
  }
  KASSERT_TEXT(storage->myBackRefTable, "backRefTable");
  computeSemidominators();
  // By rising number a node's dominator is final before the node's own turn comes. The objects
  // get their dominators in the same pass, each replacing the object's number in "i", and the
  // slots of the retained size start at 0.
  BigIntArray64& dominators = myStorage->myDominators;
  dominators.set(0, 0);
  at(1, RETAINED_HIGH) = 0;
  at(1, RETAINED_LOW) = 0;
  for (jint i = 2; i <= myDFSCount; i++) {
    if (i + 16 <= myDFSCount) {
      prefetchSlot(dominators, at(i + 16, VERTEX));
    }
    jint& dominator = at(i, DOMINATOR);
    if (dominator != at(i, SEMI)) {
      dominator = at(dominator, DOMINATOR);
    }
    dominators.set(at(i, VERTEX), at(dominator, VERTEX));
    at(i, RETAINED_HIGH) = 0;
    at(i, RETAINED_LOW) = 0;
  }
  storage->myRefs.unmapRefTable("FINISH DOMINATOR COMPUTING");
}

DominatorComputer::~DominatorComputer() {}

jint DominatorComputer::number(jint node, jint parentNumber) {
  jint n = ++myDFSCount;
  at(n, PARENT) = parentNumber;
  at(n, SEMI) = n;
  at(n, VERTEX) = node;
  at(n, LABEL) = n;
  at(n, ANCESTOR) = mySentinel;
  at(n, CHILD) = mySentinel;
  at(n, SIZE) = 1;
  myStorage->myDominators.set(node, n);
  return n;
}

void DominatorComputer::depthFirstSearchDom(JNIEnv* env, jint* visited, RefTable* refs) {
  // Two stacks. A frame is a node on the search's path, by its number, with the height the stack
  // of candidates had when the node was entered. Entering a node reads its references once, in a
  // row, and pushes those not visited yet as its candidates, the first on top, asking for their
  // entries of the reference table as it goes; returning to a node then costs no second look at
  // its references, long out of the cache after a deep subtree. A candidate that a subtree
  // visited in the meantime is passed over when it comes up, so the numbering is that of a
  // recursive search taking references in their order.
  BigIntArray64 frames(env, "dfsd", 0);
  BigIntArray64 candidates(env, "dfsc", 0);
  BigIntArray64& targets = refs->getRefs();
  const jint* startAndCount = refs->getStartAndCount();
  jint frameTop = 0;
  jint candidateTop = 0;
  frames.set(0, number(0, mySentinel));
  frames.set(1, 0);
  setMark(visited, 0);
  for (jint r = myRootCount - 1; r >= 0; r--) {
    if (takes(visited, myRoots0[r])) {
      candidates.set(candidateTop++, myRoots0[r]);
    }
  }
  BigIntArrayIterator run;
  while (frameTop >= 0) {
    if (candidateTop == frames.get(2 * frameTop + 1)) {
      frameTop--;
      continue;
    }
    jint target = candidates.get(--candidateTop);
    if (isMarked(visited, target)) {
      continue;
    }
    jint targetNumber = number(target, frames.get(2 * frameTop));
    setMark(visited, target);
    frameTop++;
    frames.set(2 * frameTop, targetNumber);
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
    // The candidate below this node's own comes next when this node's subtree is done, often
    // soon, as most subtrees are small; its entry of the table was asked for when it was pushed
    // and is here by now, so its references can be asked for too.
    if (first > 0) {
      prefetchSlot(targets, startAndCount[2 * candidates.get(first - 1)]);
    }
  }
}

// A bucket is a list threaded through the bucket words, indexed by number like the rest: the low
// half of a word is the first number in that number's bucket, 0 for an empty bucket; the high
// half is the next number in the bucket the number itself waits in. A node waits in one bucket at
// most, so the lists need no memory beyond the word a node has anyway, and no allocation at all.
void DominatorComputer::addToBucket(jint bucketOwner, jint number) {
  jlong* words = myStorage->myDominatorBuckets;
  uint32_t head = static_cast<uint32_t>(words[bucketOwner]);
  words[number] = (static_cast<jlong>(head) << 32) | static_cast<uint32_t>(words[number]);
  words[bucketOwner] = (words[bucketOwner] & ~0xFFFFFFFFLL) | static_cast<uint32_t>(number);
}

void DominatorComputer::processBucket(jint bucketOwner) {
  jlong* words = myStorage->myDominatorBuckets;
  uint32_t entry = static_cast<uint32_t>(words[bucketOwner]);
  while (entry != 0) {
    jint v = static_cast<jint>(entry);
    jint u = eval(v);
    at(v, DOMINATOR) = at(u, SEMI) < at(v, SEMI) ? u : bucketOwner;
    entry = static_cast<uint32_t>(static_cast<unsigned long long>(words[v]) >> 32);
  }
  words[bucketOwner] &= ~0xFFFFFFFFLL;
}

void DominatorComputer::computeSemidominators() {
  RefTable* backRefs = myStorage->myBackRefTable;
  BigIntArray64& numbers = myStorage->myDominators;
  // The nodes come by falling number, their own data in a row; what lies elsewhere is asked for
  // ahead, in stages, so that the misses overlap: 24 nodes ahead the entry of the table of
  // referrers, 16 ahead the run of referrers, 8 ahead the referrers' numbers, 4 ahead the
  // referrers' data.
  const jint* startAndCount = backRefs->getStartAndCount();
  BigIntArray64& referrerSlots = backRefs->getRefs();
  // Calls visit(referrer) for each referrer of the node numbered i. A run mostly lies in one page
  // of the table, and is then read straight from it.
  auto forEachReferrer = [&](jint i, auto visit) {
    jint w = at(i, VERTEX);
    jint start = startAndCount[2 * w];
    jint count = startAndCount[2 * w + 1];
    const jint* page = count == 0 ? nullptr : referrerSlots.getBuffer(start, false);
    jint offset = start & BigIntArray64::PAGE_MASK;
    if (page != nullptr && offset + count <= BigIntArray64::PAGE_SIZE) {
      for (const jint* run = page + offset; run < page + offset + count; run++) {
        visit(*run);
      }
    } else if (count > 0) {
      BigIntArrayIterator run;
      run.init(&referrerSlots, start, start + count);
      while (run.hasNext()) {
        visit(run.next());
      }
    }
  };
  for (jint i = myDFSCount; i >= 2; i--) {
    if (i - 24 >= 2) {
      __builtin_prefetch(&startAndCount[2 * at(i - 24, VERTEX)]);
    }
    if (i - 16 >= 2) {
      jint w = at(i - 16, VERTEX);
      if (startAndCount[2 * w + 1] > 0) {
        prefetchSlot(referrerSlots, startAndCount[2 * w]);
      }
    }
    if (i - 8 >= 2) {
      forEachReferrer(i - 8, [&numbers](jint v) { prefetchSlot(numbers, v); });
    }
    if (i - 4 >= 2) {
      forEachReferrer(i - 4, [this, &numbers](jint v) { prefetchNode(numbers.get(v)); });
    }
    jint& semiW = at(i, SEMI);
    if (!isMarked(myStorage->myVisited, i)) {
      forEachReferrer(i, [&](jint referrer) {
        // A referrer that the search never reached, left out by the marks or not, has no
        // number: it is no predecessor in the graph computed.
        jint v = numbers.get(referrer);
        if (v != 0) {
          jint u = eval(v);
          if (at(u, SEMI) < semiW) {
            semiW = at(u, SEMI);
          }
        }
      });
    } else {
      // The virtual root stands in front of every root.
      jint u = eval(1);
      if (at(u, SEMI) < semiW) {
        semiW = at(u, SEMI);
      }
    }
    addToBucket(semiW, i);
    jint parent = at(i, PARENT);
    link(parent, i);
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

void DominatorComputer::addUpRetainedSizes() {
  // Going down the numbers meets every node after all those it dominates, as a dominator's number
  // is below those of the nodes it dominates: no counts of children and no frontier are needed.
  // What a node holds beyond itself waits in its own slots until its turn.
  BigIntArray64& sizes = myStorage->mySizes;
  BigIntArray64& retainedSizes = myStorage->myRetainedSizes;
  auto getHeld = [this](jint number) {
    return (static_cast<jlong>(at(number, RETAINED_HIGH)) << 32) |
           static_cast<jlong>(static_cast<uint32_t>(at(number, RETAINED_LOW)));
  };
  for (jint i = myDFSCount; i >= 2; i--) {
    if (i - 16 >= 2) {
      jint ahead = at(i - 16, VERTEX);
      prefetchSlot(sizes, ahead);
      prefetchSlot(retainedSizes, 2 * ahead);
    }
    jint object = at(i, VERTEX);
    jint size = sizes.get(object);
    jlong retained = getHeld(i) + (size == -1 ? 0 : size);
    myStorage->setRetainedSize(object, retained);
    jint d = at(i, DOMINATOR);
    jlong held = getHeld(d) + retained;
    at(d, RETAINED_HIGH) = static_cast<jint>(held >> 32);
    at(d, RETAINED_LOW) = static_cast<jint>(held);
  }
}
