#ifndef KJP_OIDPROCESSOR_H
#define KJP_OIDPROCESSOR_H

#include <jni.h>

// Turns the sparse, possibly 64-bit object ids of a heap snapshot into dense indices from 1:
// all ids are collected, sorted once, and each lookup answers the id's rank. The caller
// declares how many ids come and must add exactly that many; nothing checks it, since the
// processor sits in the hot loop of reading a heap of millions of objects.
class OIDProcessor {
 public:
  // In narrow mode ids are cut to their low 32 bits on entry.
  OIDProcessor(bool wide, jint capacity);
  ~OIDProcessor();
  OIDProcessor(const OIDProcessor&) = delete;
  OIDProcessor& operator=(const OIDProcessor&) = delete;

  void processOID(jlong oid) {
    if (myNarrow != nullptr) {
      myNarrow[myCount++] = static_cast<jint>(oid);
    } else {
      myWide[myCount++] = oid;
    }
  }

  // Sorts the ids in rising signed order; lookups are only meaningful afterwards.
  void convertOIDsToIndices();

  // The id's position in sorted order plus 1; 0 when the id was never added.
  jint getIndex(jlong oid) const;

 private:
  jint* myNarrow;
  jlong* myWide;
  jint myCapacity;
  jint myCount;
};

#endif
