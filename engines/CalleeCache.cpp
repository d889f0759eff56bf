#include "engines/CalleeCache.h"

void CalleeCache::put(jint parent, jint method, jint frame, jint flags, CPUProfilingRecord* record) {
  if (myEntries == nullptr) {
    myEntries = new Entry[SIZE]();
  }
  Entry& entry = myEntries[slot(parent, method)];
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
