#include "engines/CalleeCache.h"

void CalleeCache::put(jint parent, jint method, jint frame, jint flags, CPUProfilingRecord* record) {
  if (myEntries != nullptr && ++myPuts > 2 * capacity() && myBits < MAX_BITS) {
    delete[] myEntries;
    myEntries = nullptr;
    myBits++;
  }
  if (myEntries == nullptr) {
    myEntries = new Entry[capacity()]();
    myPuts = 0;
  }
  Entry& entry = myEntries[slot(parent, method, myBits)];
  entry.myParent = parent;
  entry.myMethod = method;
  entry.myFrame = frame;
  entry.myFlags = flags;
  entry.myRecord = record;
}

void CalleeCache::clear() {
  delete[] myEntries;
  myEntries = nullptr;
}
