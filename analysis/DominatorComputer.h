#ifndef KJP_DOMINATORCOMPUTER_H
#define KJP_DOMINATORCOMPUTER_H

#include <jni.h>
#include <stdint.h>

#include "agent/KSet.h"
#include "agent/KVector.h"
#include "analysis/BigIntArray64.h"
#include "analysis/ObjectStorage.h"

// The dominator tree of a storage's object graph by Lengauer and Tarjan's algorithm in its
// sophisticated form (balanced link, path-compressing eval), in near-linear time. It runs in
// the constructor and leaves each object's immediate dominator in the storage's "i" array: 0,
// the virtual root above all GC roots, for a root and for every object that no root reaches.
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
  void link(jint v, jint w);
  jint eval(jint v);
  void compress(jint v);

  jint getDFSCount() const { return myDFSCount; }
  // The node with DFS number 'number', from 1 (the virtual root) to getDFSCount(). A node's
  // immediate dominator always has a smaller number than the node.
  jint getVertex(jint number) { return at(number, VERTEX); }

 private:
  // The seven ints of a node lie together, so that each step of the algorithm touches one
  // cache line.
  enum Field { LABEL = 0, PARENT = 1, ANCESTOR = 2, CHILD = 3, VERTEX = 4, SEMI = 5, SIZE = 6, FIELDS = 7 };

  jint& at(jint node, Field field) { return myData.getBlock()[static_cast<jlong>(node) * FIELDS + field]; }
  jint semiOfLabel(jint node) { return at(at(node, LABEL), SEMI); }
  void number(jint node, jint parent);
  // The visited bits stand for "semi is not 0" here: a bit set of a few megabytes stays in the
  // cache where the nodes' own data, tens of bytes apiece, would be a miss per reference.
  bool takes(const jint* visited, jint target) {
    return target != 0 && !isMarked(visited, target) && isMarked(myMarks, target);
  }
  void prefetchNode(jint node) { __builtin_prefetch(&myData.getBlock()[static_cast<jlong>(node) * FIELDS]); }
  void addToBucket(jint bucketOwner, jint node);
  void processBucket(jint bucketOwner);
  void computeSemidominators();

  ObjectStorage* myStorage;
  BigIntArray64Presized myData;  // "da"
  jint mySentinel;
  jint myDFSCount;
  KSet<jint> myRoots;
  const jint* myRoots0;
  jint myRootCount;
  const jint* myMarks;
  KVector<jint> myCompressPath;
};

#endif
