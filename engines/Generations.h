#ifndef KJP_GENERATIONS_H
#define KJP_GENERATIONS_H

#include <jni.h>

#include "agent/KString.h"

// Generations of the heap: a mark gives every live object that has none yet the new
// generation, in the high half of its allocation tag. So a generation holds the objects that
// first became visible at its mark, and an object made after the last mark has none until the
// next one. Each mark is a row of the generation table, whose index is the generation's id.
namespace Generations {

// The id of the last mark; 0 before the first.
jint getCurrentGenerationID();

// A new generation of 'type' with 'description', marked on every live object without one.
// Takes ourLock, and walks the heap under it.
void markMemory(JNIEnv* env, jint type, const KString& description);

// The row of a new generation, now the current one, without marking any object: for a caller
// that visits every object itself anyway (a heap dump) and marks them as it goes. Caller holds
// ourLock.
jint startGeneration(jint type, const KString& description);

}  // namespace Generations

#endif
