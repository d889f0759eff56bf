#include "analysis/BigIntArray32.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "agent/FileUtil.h"

KLock ourSwapLock;

BufferDescriptor32 BigIntArray32::ourAllBuffers[BigIntArray32::DESCRIPTOR_COUNT];
jlong BigIntArray32::ourPageMisses = 0;
jint BigIntArray32::ourMappedBufferCount = 0;

namespace {

// Advances with every page access, so that eviction can tell old pages from new ones.
jlong ourAccessClock = 0;

}  // namespace

void* MemAllocator::map(long handle, long offset, long size, int* delta, long* mappedSize, bool shared) {
  KASSERT(handle != -1);
  long pageSize = sysconf(_SC_PAGESIZE);
  long aligned = offset - offset % pageSize;
  *delta = static_cast<int>(offset - aligned);
  *mappedSize = size + *delta;
  void* address = mmap(nullptr, static_cast<size_t>(*mappedSize), PROT_READ | PROT_WRITE,
                       shared ? MAP_SHARED : MAP_PRIVATE, static_cast<int>(handle), aligned);
  return address == MAP_FAILED ? nullptr : address;
}

void MemAllocator::unmap(void* address, long size) {
  KASSERT(address);
  int result = munmap(address, static_cast<size_t>(size));
  KASSERT(result == 0);
}

void BufferDescriptor32::mapBuffer(BigIntArray32* array, jint pageIndex) {
  if (array->myMaxMapped > 0) {
    while (array->myMappedCount >= array->myMaxMapped) {
      BufferDescriptor32* descriptorToUnmap = nullptr;
      for (jint p = 0; p < array->myBuffers.size(); p++) {
        BufferDescriptor32* d = array->myBuffers.getArray()[p];
        if (d != nullptr && (descriptorToUnmap == nullptr || d->myLastAccess < descriptorToUnmap->myLastAccess)) {
          descriptorToUnmap = d;
        }
      }
      KASSERT(descriptorToUnmap);
      descriptorToUnmap->unmapBuffer();
    }
  }
  int delta = 0;
  long mappedSize = 0;
  void* address = MemAllocator::map(array->myHandle, static_cast<long>(pageIndex) << 19,
                                    BigIntArray32::PAGE_SIZE_BYTES, &delta, &mappedSize, true);
  if (address == nullptr) {
    return;
  }
  myBufferToUnmap = address;
  myBufferToUnmapSize = mappedSize;
  KASSERT(delta == 0);
  KASSERT(myBufferToUnmapSize == BigIntArray32::PAGE_SIZE_BYTES);
  myPageIndex = pageIndex;
  myAddress = address;
  myOwner = array;
  while (array->myBuffers.size() <= pageIndex) {
    array->myBuffers.push(nullptr);
  }
  array->myBuffers.getArray()[pageIndex] = this;
  array->myMappedCount++;
  BigIntArray32::ourMappedBufferCount++;
}

void BufferDescriptor32::unmapBuffer() {
  if (myAddress == nullptr) {
    return;
  }
  myOwner->myBuffers.getArray()[myPageIndex] = nullptr;
  myOwner->myMappedCount--;
  MemAllocator::unmap(myBufferToUnmap, myBufferToUnmapSize);
  myAddress = nullptr;
  myBufferToUnmap = nullptr;
  myOwner = nullptr;
  BigIntArray32::ourMappedBufferCount--;
}

BigIntArray32::BigIntArray32(jint maxMappedPages)
    : myHandle(-1), myBuffers(16), myMappedCount(0), myMaxMapped(maxMappedPages), myFilePages(0) {
  KString path = getTempFilePath("kjp-array-");
  int fd = path.isEmpty() ? -1 : open(path.get(), O_RDWR | O_CLOEXEC);
  if (!path.isEmpty()) {
    // Gone from the directory at once: nothing is left behind, however the process ends.
    unlink(path.get());
  }
  if (fd == -1) {
    throw LowDiskSpaceException("cannot create a temporary file for an analysis array");
  }
  myHandle = fd;
}

BigIntArray32::~BigIntArray32() {
  {
    LockHolder holder(&ourSwapLock, "BigIntArray32(118)");
    for (jint p = 0; p < myBuffers.size(); p++) {
      BufferDescriptor32* d = myBuffers.getArray()[p];
      if (d != nullptr) {
        d->unmapBuffer();
      }
    }
  }
  close(static_cast<int>(myHandle));
}

void BigIntArray32::growFile(jlong pages) {
  // The blocks are reserved now: a full disk must show here, as an exception, and not later as a
  // SIGBUS on a write into the mapping.
  int error = posix_fallocate(static_cast<int>(myHandle), static_cast<off_t>(myFilePages) * PAGE_SIZE_BYTES,
                              static_cast<off_t>(pages - myFilePages) * PAGE_SIZE_BYTES);
  if (error != 0) {
    throw LowDiskSpaceException(error == ENOSPC ? "the temporary directory is full"
                                                : "cannot grow a temporary file of an analysis array");
  }
  myFilePages = pages;
}

jint* BigIntArray32::pageFor(jlong index, bool write) {
  KASSERT(index >= 0);
  jlong page = index >> PAGE_SHIFT;
  KASSERT(page < 0x7FFFFFFF);
  ourAccessClock++;
  BufferDescriptor32* d = page < myBuffers.size() ? myBuffers.getArray()[page] : nullptr;
  if (d == nullptr) {
    if (page >= myFilePages) {
      if (!write) {
        return nullptr;
      }
      growFile(page + 1);
    }
    ourPageMisses++;
    d = nullptr;
    jint oldest = -1;
    for (jint i = 0; i < DESCRIPTOR_COUNT; i++) {
      if (ourAllBuffers[i].myOwner == nullptr) {
        d = &ourAllBuffers[i];
        break;
      }
      if (oldest == -1 || ourAllBuffers[i].myLastAccess < ourAllBuffers[oldest].myLastAccess) {
        oldest = i;
      }
    }
    if (d == nullptr) {
      // Every descriptor is taken: the oldest page of all arrays makes room.
      d = &ourAllBuffers[oldest];
      d->unmapBuffer();
    }
    d->mapBuffer(this, static_cast<jint>(page));
    if (d->myAddress == nullptr) {
      throw LowDiskSpaceException("cannot map a page of an analysis array");
    }
  }
  d->myLastAccess = ourAccessClock;
  return static_cast<jint*>(d->myAddress);
}

jint BigIntArray32::get(jlong index) {
  LockHolder holder(&ourSwapLock, "BigIntArray32(176)");
  jint* page = pageFor(index, false);
  return page == nullptr ? 0 : page[index & ((1 << PAGE_SHIFT) - 1)];
}

void BigIntArray32::set(jlong index, jint value) {
  LockHolder holder(&ourSwapLock, "BigIntArray32(182)");
  pageFor(index, true)[index & ((1 << PAGE_SHIFT) - 1)] = value;
}
