#ifndef KJP_DOMINATORCOMPUTER_H
#define KJP_DOMINATORCOMPUTER_H

#include <jni.h>
#include <stdint.h>

#include "agent/KVector.h"
#include "analysis/BigIntArray64.h"
#include "analysis/ObjectStorage.h"

// The dominator tree of a storage's object graph by Lengauer and Tarjan's algorithm in its
// sophisticated form (balanced link, path-compressing eval), in near-linear time. It runs in
// the constructor and leaves each object's immediate dominator in the storage's "i" array: 0,
// the virtual root above all GC roots, for a root and for every object that no root reaches.
//
// The search numbers the nodes once, and from then on every step works on the numbers: a node's
// data lies at its number, so the passes that go through the nodes by number read their own data
// in a row instead of jumping over memory by object index; only a node's referrers are looked up
// by object, through the number the search left in "i" until the dominators replace it.
//
// Nothing recurses: the depth-first search and the path compression run on explicit stacks, so
// a chain of ten million objects needs no more stack than a single object. The back-reference
// table must have been built (osNcomputeBRTImpl) before.
class DominatorComputer {
 public:
  // 'marks' is a bit set over objects: an object whose bit is clear is left out of the graph,
  // both as a node and as a referrer.
  DominatorComputer(JNIEnv* env, ObjectStorage* storage, const jint* roots, jint rootCount, const jint* marks);
  ~DominatorComputer();
  DominatorComputer(const DominatorComputer&) = delete;
  DominatorComputer& operator=(const DominatorComputer&) = delete;

  void depthFirstSearchDom(JNIEnv* env, jint* visited, RefTable* refs);
  // These three take and give DFS numbers.
  void link(jint v, jint w);
  jint eval(jint v);
  void compress(jint v);

  jint getDFSCount() const { return myDFSCount; }
  // The node with DFS number 'number', from 1 (the virtual root) to getDFSCount(). A node's
  // immediate dominator always has a smaller number than the node.
  jint getVertex(jint number) { return at(number, VERTEX); }

  // The retained sizes of the objects the search reached, into the storage's "rs", summed in the
  // data that the computation needs no longer; the others' are left as they are. Once only.
  void addUpRetainedSizes();

 private:
  // The seven ints of a number lie together, so that each step of the algorithm touches one
  // cache line. Number 0 is the algorithm's null node, the sentinel. A node's parent is no longer
  // needed once the node is linked, and its slot takes the node's dominator from then on; the
  // label and ancestor take the retained size once the dominators are done.
  enum Field { LABEL = 0, PARENT = 1, ANCESTOR = 2, CHILD = 3, VERTEX = 4, SEMI = 5, SIZE = 6, FIELDS = 7 };
  static const Field DOMINATOR = PARENT;
  static const Field RETAINED_HIGH = LABEL;
  static const Field RETAINED_LOW = ANCESTOR;

  jint& at(jint number, Field field) { return myData.getBlock()[static_cast<jlong>(number) * FIELDS + field]; }
  jint semiOfLabel(jint number) { return at(at(number, LABEL), SEMI); }
  // Gives 'node' the next number, under the parent's number.
  jint number(jint node, jint parentNumber);
  // The visited bits stand for "has a number" here: a bit set of a few megabytes stays in the
  // cache where the nodes' own data, tens of bytes apiece, would be a miss per reference.
  bool takes(const jint* visited, jint target) {
    return target != 0 && !isMarked(visited, target) && isMarked(myMarks, target);
  }
  static void prefetchSlot(BigIntArray64& array, jint index) {
    const jint* page = array.getBuffer(index, false);
    if (page != nullptr) {
      __builtin_prefetch(&page[index & BigIntArray64::PAGE_MASK]);
    }
  }
  void prefetchNode(jint number) { __builtin_prefetch(&myData.getBlock()[static_cast<jlong>(number) * FIELDS]); }
  void addToBucket(jint bucketOwner, jint number);
  void processBucket(jint bucketOwner);
  void computeSemidominators();

  ObjectStorage* myStorage;
  BigIntArray64Presized myData;  // "da"
  jint mySentinel;
  jint myDFSCount;
  const jint* myRoots0;
  jint myRootCount;
  const jint* myMarks;
  KVector<jint> myCompressPath;
};

#endif
