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
  // From here the bit of a node says that its bucket holds a set rather than a single node.
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
  // Two ints a level: the node, and the position of its next reference to look at.
  BigIntArray64 stack(env, "dfsd", 0);
  number(0, mySentinel);
  setMark(visited, 0);
  jint top = 0;
  stack.set(0, 0);
  stack.set(1, 0);
  while (top >= 0) {
    jint node = stack.get(2 * top);
    jint position = stack.get(2 * top + 1);
    jint count = node == 0 ? myRootCount : refs->getRefCount(node);
    jint target = 0;
    while (position < count) {
      jint candidate = node == 0 ? myRoots0[position] : refs->getRef(node, position);
      position++;
      if (takes(candidate)) {
        target = candidate;
        break;
      }
    }
    if (target == 0) {
      top--;
      continue;
    }
    stack.set(2 * top + 1, position);
    number(target, node);
    setMark(visited, target);
    top++;
    stack.set(2 * top, target);
    stack.set(2 * top + 1, 0);
  }
}

void DominatorComputer::addToBucket(jint bucketOwner, jint node) {
  jlong& word = myStorage->myDominatorBuckets[bucketOwner];
  if (word == 0) {
    word = node;
  } else if (!isMarked(myStorage->myVisited, bucketOwner)) {
    KSet<jint>* set = new KSet<jint>(2);
    set->add(static_cast<jint>(word));
    set->add(node);
    word = reinterpret_cast<jlong>(set);
    setMark(myStorage->myVisited, bucketOwner);
  } else {
    reinterpret_cast<KSet<jint>*>(word)->add(node);
  }
}

void DominatorComputer::processBucket(jint bucketOwner) {
  jlong& word = myStorage->myDominatorBuckets[bucketOwner];
  if (word == 0) {
    return;
  }
  BigIntArray64& dominators = myStorage->myDominators;
  if (!isMarked(myStorage->myVisited, bucketOwner)) {
    jint v = static_cast<jint>(word);
    jint u = eval(v);
    dominators.set(v, at(u, SEMI) < at(v, SEMI) ? u : bucketOwner);
  } else {
    KSet<jint>* set = reinterpret_cast<KSet<jint>*>(word);
    for (jint slot = 0; slot < set->_capacity; slot++) {
      if (set->_states[slot] != KMAP_FULL) {
        continue;
      }
      jint v = set->_keys[slot];
      jint u = eval(v);
      dominators.set(v, at(u, SEMI) < at(v, SEMI) ? u : bucketOwner);
    }
    delete set;
    clearMark(myStorage->myVisited, bucketOwner);
  }
  word = 0;
}

void DominatorComputer::computeSemidominators() {
  RefTable* backRefs = myStorage->myBackRefTable;
  BigIntArrayIterator referrers;
  for (jint i = myDFSCount; i >= 2; i--) {
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
