#ifndef KJP_GRAPHWALKS_H
#define KJP_GRAPHWALKS_H

#include <jni.h>

#include "analysis/ObjectStorage.h"

// The whole-graph steps over a storage, apart from their natives so that tests run them on
// plain arrays.

// True when 'bits' has an int for every 32 objects of the storage; raises a Java exception
// otherwise.
bool checkBitSet(JNIEnv* env, ObjectStorage* storage, jintArray bits);

// The back-reference table: for each object, the objects whose bit is set that refer to it, in
// rising order. 'counts' has an element per object and must come in zeroed; it goes out zeroed.
RefTable* buildBackReferences(JNIEnv* env, ObjectStorage* storage, const jint* bits, jint* counts);

// Dominators, then retained sizes; the dominator computation's work areas are freed afterwards.
void computeDominatorsAndRetainedSizes(JNIEnv* env, ObjectStorage* storage, const jint* roots, jint rootCount,
                                       const jint* marks);

// Sets the bit of every object reachable from 'start' over forward references, stopping at set
// bits; 'start' itself must be unmarked.
void markReachable(JNIEnv* env, ObjectStorage* storage, jint start, jint* bits);

// The sum of the shallow sizes of the objects whose bit is set.
jlong sumShallowSizes(ObjectStorage* storage, const jint* bits);

#endif
