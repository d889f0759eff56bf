#ifndef KJP_CALLEECACHE_H
#define KJP_CALLEECACHE_H

#include <jni.h>
#include <stdint.h>

#include "db/records/CPUProfilingRecord.h"

// One thread's memory of the calls it traced: for a (caller frame, method) pair, the callee's
// frame in the call tree and the thread's row for it. A call made before from the same frame then
// needs neither the tree scan nor the row lookup, which is what lets the probes record it without
// ourLock. Direct-mapped: a pair that collides with another just takes its place.
//
// The frames never change, since the tree only grows. The rows stay where they are until the CPU
// data is cleared, which clears this cache first (ThreadInfo::clearCPUAndJ2EEInfo). The method
// flags kept beside them change only when CPU profiling starts, which clears it too.
class CalleeCache {
 public:
  struct Entry {
    jint myParent;
    jint myMethod;
    jint myFrame;
    // The method's flags as of the call.
    jint myFlags;
    // Null in an empty slot.
    CPUProfilingRecord* myRecord;
  };

  CalleeCache() : myEntries(nullptr) {}
  ~CalleeCache() { delete[] myEntries; }
  CalleeCache(const CalleeCache&) = delete;
  CalleeCache& operator=(const CalleeCache&) = delete;

  // The remembered callee of 'method' called from 'parent', or null.
  const Entry* find(jint parent, jint method) const {
    if (myEntries == nullptr) {
      return nullptr;
    }
    const Entry& entry = myEntries[slot(parent, method)];
    return entry.myRecord != nullptr && entry.myParent == parent && entry.myMethod == method ? &entry : nullptr;
  }

  // Made on first use: most threads never trace a call.
  void put(jint parent, jint method, jint frame, jint flags, CPUProfilingRecord* record);

  void clear();

 private:
  static const jint SIZE_BITS = 8;
  static const jint SIZE = 1 << SIZE_BITS;

  static jint slot(jint parent, jint method) {
    uint32_t hash = static_cast<uint32_t>(parent) * 0x9E3779B1u ^ static_cast<uint32_t>(method) * 0x85EBCA6Bu;
    return static_cast<jint>(hash >> (32 - SIZE_BITS));
  }

  Entry* myEntries;
};

#endif
