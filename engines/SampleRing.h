#ifndef KJP_SAMPLERING_H
#define KJP_SAMPLERING_H

#include <jni.h>

#include <atomic>
#include <cstdint>

// One frame as the JVM's asynchronous stack walk writes it: the line (for Java frames the
// bytecode index; -3 marks a native method) and the method. The layout is the JVM's.
struct AsyncFrame {
  jint myLine;
  jmethodID myMethod;
};

// One CPU sample of one thread, filled inside its signal handler.
template <int MaxFrames>
struct SampleEntryOf {
  // The thread CPU time the sample stands for.
  jlong myCPUTimeNs;
  // What the walk returned: the frames written, top first, or a code of 0 and below when it
  // found none.
  jint myFrameCount;
  AsyncFrame myFrames[MaxFrames];
};

// A bounded queue of samples between exactly one producer, the signal handler of one thread,
// and one consumer, the drainer. It takes no lock and never allocates: the producer writes an
// entry in place and publishes it by moving the head, the consumer reads it in place and gives
// it back by moving the tail. Only lock-free atomics are touched, so a signal handler may use it
// whatever the interrupted code was doing.
//
// A sample that finds the queue full is not lost: its time is carried into the next one the
// producer writes, so the thread's total stays true even when the drainer falls behind.
template <int Capacity, int MaxFrames>
class SampleRingOf {
 public:
  typedef SampleEntryOf<MaxFrames> Entry;
  static const int CAPACITY = Capacity;
  static const int MAX_FRAMES = MaxFrames;

  static_assert(std::atomic<uint32_t>::is_always_lock_free, "a signal handler needs lock-free atomics");
  static_assert(std::atomic<jlong>::is_always_lock_free, "a signal handler needs lock-free atomics");

  SampleRingOf() : myHead(0), myTail(0), myCarriedNs(0) {}

  SampleRingOf(const SampleRingOf&) = delete;
  SampleRingOf& operator=(const SampleRingOf&) = delete;

  // Producer: the entry to fill, or null when the queue is full, in which case 'ns' is kept
  // for the next entry. A filled entry must be published with commit().
  Entry* beginWrite(jlong ns) {
    uint32_t head = myHead.load(std::memory_order_relaxed);
    uint32_t tail = myTail.load(std::memory_order_acquire);
    if (head - tail >= static_cast<uint32_t>(Capacity)) {
      myCarriedNs.fetch_add(ns, std::memory_order_relaxed);
      return nullptr;
    }
    Entry* entry = &myEntries[head % Capacity];
    entry->myCPUTimeNs = ns + myCarriedNs.exchange(0, std::memory_order_relaxed);
    entry->myFrameCount = 0;
    return entry;
  }

  // Producer: publishes the entry beginWrite gave.
  void commit() { myHead.store(myHead.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

  // Consumer: the oldest published entry, or null when there is none.
  const Entry* peek() const {
    uint32_t tail = myTail.load(std::memory_order_relaxed);
    uint32_t head = myHead.load(std::memory_order_acquire);
    return head == tail ? nullptr : &myEntries[tail % Capacity];
  }

  // Consumer: gives the entry peek returned back to the producer.
  void pop() { myTail.store(myTail.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

  // Consumer, with the producer known to be silent (its timer deleted): drops what is queued
  // and carried.
  void reset() {
    myTail.store(myHead.load(std::memory_order_acquire), std::memory_order_release);
    myCarriedNs.store(0, std::memory_order_relaxed);
  }

  // Time of samples that found the queue full and wait for the next entry.
  jlong carriedNs() const { return myCarriedNs.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint32_t> myHead;
  std::atomic<uint32_t> myTail;
  std::atomic<jlong> myCarriedNs;
  Entry myEntries[Capacity];
};

#endif
