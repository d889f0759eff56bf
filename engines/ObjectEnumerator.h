#ifndef KJP_OBJECTENUMERATOR_H
#define KJP_OBJECTENUMERATOR_H

#include <jni.h>

#include "agent/KLock.h"
#include "db/DB.h"

class ThreadInfo;

// The allocation tag of an object on ourJVMTI: the low half is the row of its AllocatorRecord
// (0 when the object was not recorded; negative while a heap dump numbers objects), the high
// half the generation the object was first seen in (0 until the next mark).
inline jint getAllocatorRowOfTag(jlong tag) { return static_cast<jint>(static_cast<unsigned int>(tag)); }
inline jint getGenerationOfTag(jlong tag) {
  return static_cast<jint>(static_cast<unsigned int>(static_cast<unsigned long long>(tag) >> 32));
}
inline jlong makeAllocationTag(jint allocatorRow, jint generation) {
  return static_cast<jlong>((static_cast<unsigned long long>(static_cast<unsigned int>(generation)) << 32) |
                            static_cast<unsigned int>(allocatorRow));
}

// Hands out and takes back the AllocatorRecord rows that recorded objects carry as tags.
// Objects die on whatever thread the JVM reports their release on, which must not wait for
// ourLock, so these rows have a lock of their own. Whoever holds both takes ourLock first.
class ObjectEnumerator {
 public:
  ObjectEnumerator() {}
  ObjectEnumerator(const ObjectEnumerator&) = delete;
  ObjectEnumerator& operator=(const ObjectEnumerator&) = delete;

  // A new stamped row naming the thread and the allocating frame; its index is the tag.
  jint store_allocation_info(const ThreadInfo* info, jint frame);

  // The tagged object is gone: the row is marked deleted and its index is free again.
  void return_tag_to_pool(jint pureTag);

  // Remembers the heap dump's number for the object of a tag.
  void setObjectIndex(jint pureTag, jint objectIndex);

  // The row of a tag; null for a tag beyond the table.
  AllocatorRecord* getAllocator(jint pureTag);

  // Forgets who allocated what. Live objects still carry their tags, so every row keeps its
  // index and its stamp; only thread and frame read 0 afterwards.
  void clearAllocators();

 private:
  KLock myLock;
};

// Made by Agent_OnLoad before the database; lives to process end.
extern ObjectEnumerator* ourObjectEnumerator;

#endif
