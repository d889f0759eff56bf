#ifndef KJP_CALLEECACHE_H
#define KJP_CALLEECACHE_H

#include <jni.h>
#include <stdint.h>

#include "db/records/CPUProfilingRecord.h"

// One thread's memory of the calls it traced: for a (caller frame, method) pair, the callee's
// frame in the call tree and the thread's row for it. A call made before from the same frame then
// needs neither the tree scan nor the row lookup, which is what lets the probes record it without
// ourLock. Direct-mapped: a pair that collides with another just takes its place. It starts small
// and grows while its thread keeps replacing pairs: a query engine or a compiler calls along
// thousands of pairs again and again, where most threads know a few dozen.
//
// The frames never change, since the tree only grows. The rows stay where they are until the CPU
// data is cleared, which clears this cache first (ThreadInfo::clearCPUAndJ2EEInfo). The method
// flags kept beside them change only when CPU profiling starts, which clears it too. Only its own
// thread fills it, and others clear it only while that thread records nothing (the gate closed).
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

  CalleeCache() : myEntries(nullptr), myBits(MIN_BITS), myPuts(0) {}
  ~CalleeCache() { delete[] myEntries; }
  CalleeCache(const CalleeCache&) = delete;
  CalleeCache& operator=(const CalleeCache&) = delete;

  // The remembered callee of 'method' called from 'parent', or null.
  const Entry* find(jint parent, jint method) const {
    if (myEntries == nullptr) {
      return nullptr;
    }
    const Entry& entry = myEntries[slot(parent, method, myBits)];
    return entry.myRecord != nullptr && entry.myParent == parent && entry.myMethod == method ? &entry : nullptr;
  }

  // Made on first use: most threads never trace a call.
  void put(jint parent, jint method, jint frame, jint flags, CPUProfilingRecord* record);

  // Forgets every pair; the size it grew to stays.
  void clear();

  jint capacity() const { return 1 << myBits; }

 private:
  static const jint MIN_BITS = 8;
  // 16,384 pairs, 384 KB, for the threads that call along that many.
  static const jint MAX_BITS = 14;

  static jint slot(jint parent, jint method, jint bits) {
    uint32_t hash = static_cast<uint32_t>(parent) * 0x9E3779B1u ^ static_cast<uint32_t>(method) * 0x85EBCA6Bu;
    return static_cast<jint>(hash >> (32 - bits));
  }

  Entry* myEntries;
  jint myBits;
  // Pairs stored since the entries were made: far more than there are slots means that pairs
  // keep pushing each other out.
  jint myPuts;
};

#endif
