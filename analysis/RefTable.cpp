#include "analysis/RefTable.h"

#include <stdio.h>
#include <stdlib.h>

#include "agent/Options.h"

RefTable::RefTable(JNIEnv* env, const char* name, jint objectCount)
    : myStartAndCount(static_cast<jint*>(allocateAnalysisMemory(2 * static_cast<size_t>(objectCount) * sizeof(jint),
                                                                true))),
      myStartAndCountLength(2 * objectCount),
      myRefs(env, KString(name), 0),
      myNextFree(0) {
  KASSERT(objectCount > 0);
}

RefTable::~RefTable() { free(myStartAndCount); }

void RefTable::createRefs(jint object, jint count) {
  KASSERT(count >= 0);
  // Slots are addressed by int: a heap with more references than that needs a wider table.
  KASSERT_TEXT(static_cast<jlong>(myNextFree) + count <= 0x7FFFFFFF, "myNextFree + count <= 0x7FFFFFFF");
  myStartAndCount[2 * object] = myNextFree;
  myStartAndCount[2 * object + 1] = count;
  myNextFree += count;
}

void RefTable::recomputeNextFreeSlot() {
  jint end = 0;
  for (jint i = 0; i + 1 < myStartAndCountLength; i += 2) {
    jint runEnd = myStartAndCount[i] + myStartAndCount[i + 1];
    end = runEnd > end ? runEnd : end;
  }
  myNextFree = end;
}

void RefTable::unmapRefTable(const char* reason) const {
  if (ourOptions.myDebugPageFile) {
    printf("unmapping array %s %s\n", myRefs.getName().get(), reason);
    printf("unmapping array %s-sc %s\n", myRefs.getName().get(), reason);
  }
}
