#ifndef KJP_KINTCHUNKMAP_H
#define KJP_KINTCHUNKMAP_H

#include <jni.h>
#include <string.h>

#include <type_traits>

#include "agent/KAssert.h"

// An int-keyed sparse array in chunks of 256 elements. Chunks are allocated whole, on first
// touch with 'create', and never move: a pointer to an element stays valid until its chunk is
// deleted, which is what lets engines keep plain record pointers across calls. Only the array
// of chunk pointers is ever reallocated, and it grows exactly to the chunk asked for.
//
// Whether an element "exists" is decided by its first 32-bit word alone: an element whose
// first word equals that of the default value reads as absent. For records that word is the
// modification stamp; for plain ints it is the value itself.
template <class T>
class KIntChunkMap {
 public:
  static const jint CHUNK_SHIFT = 8;
  static const jint CHUNK_SIZE = 1 << CHUNK_SHIFT;
  static const jint CHUNK_MASK = CHUNK_SIZE - 1;

  static_assert(std::is_trivially_copyable<T>::value, "chunk elements are copied as bytes");
  static_assert(sizeof(T) >= sizeof(jint), "an element's first word tells whether it exists");

  KIntChunkMap(jint capacity, const T& defaultValue)
      : myChunks(nullptr), myCapacity(0), myChunkCount(0), myDefaultValue(defaultValue) {
    KASSERT(capacity > 0);
    myChunkCount = (capacity >> CHUNK_SHIFT) + 1;
    myCapacity = myChunkCount << CHUNK_SHIFT;
    myChunks = new T*[myChunkCount];
    memset(static_cast<void*>(myChunks), 0, sizeof(T*) * static_cast<size_t>(myChunkCount));
    myDefaultFirstWord = firstWord(myDefaultValue);
  }

  ~KIntChunkMap() {
    deleteAllChunks();
    delete[] myChunks;
  }

  KIntChunkMap(const KIntChunkMap&) = delete;
  KIntChunkMap& operator=(const KIntChunkMap&) = delete;

  // The element's address. Without 'create': null when its chunk is missing or the element
  // still has the default first word. With 'create': always an address, allocating the chunk
  // (and growing the chunk array) as needed; the element itself is left as it is.
  T* getPtr(jint index, bool create) {
    KASSERT(index >= 0);
    jint chunkNumber = index >> CHUNK_SHIFT;
    if (chunkNumber >= myChunkCount) {
      if (!create) {
        return nullptr;
      }
      growChunkArray(chunkNumber + 1);
    }
    T* chunk = myChunks[chunkNumber];
    if (chunk != nullptr) {
      T* element = chunk + (index & CHUNK_MASK);
      if (create || firstWord(*element) != myDefaultFirstWord) {
        return element;
      }
      return nullptr;
    }
    if (!create) {
      return nullptr;
    }
    chunk = allocateChunk();
    myChunks[chunkNumber] = chunk;
    return chunk + (index & CHUNK_MASK);
  }

  // The element's address whenever its chunk exists, whatever its content; null otherwise.
  // For rebuilding indices from rows that were filled but never stamped.
  T* getExistingPtr(jint index) const {
    KASSERT(index >= 0);
    jint chunkNumber = index >> CHUNK_SHIFT;
    if (chunkNumber >= myChunkCount || myChunks[chunkNumber] == nullptr) {
      return nullptr;
    }
    return myChunks[chunkNumber] + (index & CHUNK_MASK);
  }

  // True when the element at this address holds the default first word.
  bool isDefault(const T& element) const { return firstWord(element) == myDefaultFirstWord; }

  jint getCapacity() const { return myCapacity; }
  jint getChunkCount() const { return myChunkCount; }
  const T& getDefaultValue() const { return myDefaultValue; }

  // The chunk's elements, or null when it isn't allocated.
  T* getChunk(jint chunkNumber) const {
    KASSERT(chunkNumber >= 0);
    return chunkNumber < myChunkCount ? myChunks[chunkNumber] : nullptr;
  }

  jint getAllocatedChunkCount() const {
    jint count = 0;
    for (jint i = 0; i < myChunkCount; i++) {
      if (myChunks[i] != nullptr) {
        count++;
      }
    }
    return count;
  }

  // The first index of the first allocated chunk, or -1 when there is none. Whole chunks:
  // the element there may still be a default.
  jint getMinIndex() const {
    for (jint i = 0; i < myChunkCount; i++) {
      if (myChunks[i] != nullptr) {
        return i << CHUNK_SHIFT;
      }
    }
    return -1;
  }

  // Frees one chunk; its elements read as absent again. The chunk array keeps its length.
  void deleteChunk(jint chunkNumber) {
    KASSERT(chunkNumber >= 0);
    if (chunkNumber < myChunkCount && myChunks[chunkNumber] != nullptr) {
      delete[] myChunks[chunkNumber];
      myChunks[chunkNumber] = nullptr;
    }
  }

  void deleteAllChunks() {
    for (jint i = 0; i < myChunkCount; i++) {
      deleteChunk(i);
    }
  }

 private:
  static jint firstWord(const T& element) {
    jint word;
    memcpy(&word, static_cast<const void*>(&element), sizeof(jint));
    return word;
  }

  // Growth is exact, never doubling: tables grow a chunk at a time and a sparse table costs
  // just its pointer array.
  void growChunkArray(jint newChunkCount) {
    T** chunks = new T*[newChunkCount];
    memset(static_cast<void*>(chunks), 0, sizeof(T*) * static_cast<size_t>(newChunkCount));
    memcpy(static_cast<void*>(chunks), static_cast<const void*>(myChunks), sizeof(T*) * static_cast<size_t>(myChunkCount));
    delete[] myChunks;
    myChunks = chunks;
    myChunkCount = newChunkCount;
    myCapacity = newChunkCount << CHUNK_SHIFT;
  }

  T* allocateChunk() {
    T* chunk = new T[CHUNK_SIZE];
    for (jint i = 0; i < CHUNK_SIZE; i++) {
      chunk[i] = myDefaultValue;
    }
    return chunk;
  }

  T** myChunks;
  jint myCapacity;
  jint myChunkCount;
  T myDefaultValue;
  jint myDefaultFirstWord;
};

#endif
