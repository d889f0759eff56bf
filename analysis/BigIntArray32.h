#ifndef KJP_BIGINTARRAY32_H
#define KJP_BIGINTARRAY32_H

#include <jni.h>

#include "agent/KLock.h"
#include "agent/KVector.h"
#include "analysis/BigIntArray64.h"

// The mapping calls behind the file-backed arrays.
class MemAllocator {
 public:
  // Maps 'size' bytes of the file at 'offset', read and write. The offset is rounded down to the
  // system's page size: '*delta' gets the remainder, '*mappedSize' what must be unmapped. Null
  // on failure.
  static void* map(long handle, long offset, long size, int* delta, long* mappedSize, bool shared);
  static void unmap(void* address, long size);
};

class BigIntArray32;

// One mapped page of a BigIntArray32. All arrays share the 1400 descriptors of
// BigIntArray32::ourAllBuffers, so that the address space the mappings take stays bounded
// however many arrays a heap needs.
struct BufferDescriptor32 {
  void* myAddress;           // the page as readers see it; null while unmapped
  void* myBufferToUnmap;     // what mmap returned
  long myBufferToUnmapSize;  // length to unmap
  jint myPageIndex;          // page in the owner's file
  BigIntArray32* myOwner;    // null while free
  jlong myLastAccess;        // recency stamp for eviction

  // Maps page 'pageIndex' of the array's file into this descriptor, first evicting the array's
  // least recently used page when it holds as many as it may. A failed mmap leaves the
  // descriptor unmapped.
  void mapBuffer(BigIntArray32* array, jint pageIndex);
  void unmapBuffer();
};

// An int array on a file of the temporary directory, mapped a page of 512 KB at a time and
// evicted least recently used first, for arrays that would not fit into memory. The file is
// unlinked at once, so nothing stays behind when the process ends. Growing the file where the
// disk is full raises LowDiskSpaceException. Element access takes ourSwapLock, since the
// descriptors are shared by all arrays.
class BigIntArray32 {
 public:
  static const jint PAGE_SIZE_BYTES = 524288;
  static const jint PAGE_SHIFT = 17;  // ints per page: 131072
  static const jint DESCRIPTOR_COUNT = 1400;

  static BufferDescriptor32 ourAllBuffers[DESCRIPTOR_COUNT];
  static jlong ourPageMisses;
  static jint ourMappedBufferCount;

  // 'maxMappedPages' 0 means no limit of its own. The file goes into the directory the UI chose
  // (ourAlternateTempDirForBigIntArraysUtf8), else /tmp.
  explicit BigIntArray32(jint maxMappedPages);
  ~BigIntArray32();
  BigIntArray32(const BigIntArray32&) = delete;
  BigIntArray32& operator=(const BigIntArray32&) = delete;

  jint get(jlong index);
  void set(jlong index, jint value);

  long getHandle() const { return myHandle; }
  jint getMappedCount() const { return myMappedCount; }
  jint getMaxMapped() const { return myMaxMapped; }

 private:
  friend struct BufferDescriptor32;

  jint* pageFor(jlong index, bool write);
  void growFile(jlong pages);

  long myHandle;
  KVector<BufferDescriptor32*> myBuffers;  // by page index; null while unmapped
  jint myMappedCount;
  jint myMaxMapped;
  jlong myFilePages;
};

extern KLock ourSwapLock;

#endif
