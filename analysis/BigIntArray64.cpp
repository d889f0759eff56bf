#include "analysis/BigIntArray64.h"

#include <string.h>
#include <sys/mman.h>

#include "agent/Options.h"
#include "snapshot/AbstractWriter.h"

void* allocateAnalysisMemory(size_t bytes, bool zeroed) {
  void* memory = zeroed ? calloc(1, bytes) : malloc(bytes);
  if (memory == nullptr) {
    throw LowDiskSpaceException("out of memory for an analysis array");
  }
  return memory;
}

BigIntArray64::BigIntArray64(JNIEnv*, const KString& name, jint defaultValue)
    : myPages(16), myDefaultValue(defaultValue), myName(ourOptions.myDebugPageFile ? name : KString()) {}

BigIntArray64::~BigIntArray64() {
  for (jint p = 0; p < myPages.size(); p++) {
    free(myPages.getArray()[p]);
  }
}

jint* BigIntArray64::createPage(jint page) {
  KASSERT(page >= 0);
  while (myPages.size() <= page) {
    myPages.push(nullptr);
  }
  jint* buffer;
  if (myDefaultValue == 0) {
    // calloc hands out pages of the system that are zero already, touched only when written.
    buffer = static_cast<jint*>(allocateAnalysisMemory(PAGE_SIZE * sizeof(jint), true));
  } else {
    buffer = static_cast<jint*>(allocateAnalysisMemory(PAGE_SIZE * sizeof(jint), false));
    for (jint i = 0; i < PAGE_SIZE; i++) {
      buffer[i] = myDefaultValue;
    }
  }
  myPages.getArray()[page] = buffer;
  return buffer;
}

jint BigIntArray64::getAllocatedPageCount() const {
  jint count = 0;
  for (jint p = 0; p < myPages.size(); p++) {
    count += myPages.getArray()[p] != nullptr ? 1 : 0;
  }
  return count;
}

void BigIntArray64::reset(jint value) {
  for (jint p = 0; p < myPages.size(); p++) {
    free(myPages.getArray()[p]);
    myPages.getArray()[p] = nullptr;
  }
  myDefaultValue = value;
}

void BigIntArray64::writeArray(AbstractWriter& writer) const {
  for (jint p = 0; p < myPages.size(); p++) {
    const jint* buffer = myPages.getArray()[p];
    if (buffer == nullptr) {
      continue;
    }
    writer.writeInt(p << PAGE_SHIFT);
    writer.writeInt((p + 1) << PAGE_SHIFT);
    // The file is little-endian like this machine: the page goes out as it lies in memory.
    writer.writeBytes(buffer, static_cast<jlong>(PAGE_SIZE) * sizeof(jint));
  }
  writer.writeInt(-1);
  writer.writeInt(-1);
}

// The block is a mapping of its own, zero from the start and filled in at once: all of it is
// written soon anyway, and the system fills it faster in one go than in a page fault for every
// 4 KB as the computation first touches them.
BigIntArray64Presized::BigIntArray64Presized(JNIEnv*, const KString& name, jlong length)
    : myBlock(nullptr), myLength(length), myName(ourOptions.myDebugPageFile ? name : KString()) {
  KASSERT(length > 0);
  void* block =
      mmap(nullptr, mappedBytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  if (block == MAP_FAILED) {
    throw LowDiskSpaceException("out of memory for an analysis array");
  }
  myBlock = static_cast<jint*>(block);
}

BigIntArray64Presized::~BigIntArray64Presized() { munmap(myBlock, mappedBytes()); }
