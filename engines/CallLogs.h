#ifndef KJP_CALLLOGS_H
#define KJP_CALLLOGS_H

#include <jni.h>

class ThreadInfo;

// The agent's side of the threads' call logs (com.kestrix.runtime.CallLog). While tracing takes
// its times from samples, the probes of a platform thread write its entries and exits into an
// int array of its own and call the agent only when the array is full or when the agent asked
// to see the next probe (the thread's stack is not known). The agent reads the calls back into
// the call tree, in the order they happened, before anything that needs them: the thread's next
// native probe, its throws and its end, and every closure of the tracing gate, after which the
// counts of every thread are as if each probe had called in.
//
// A log is read by one reader at a time, under ourLock; its thread writes on meanwhile. The
// write position is the array's first word, which the thread moves after writing the event,
// and only the thread itself, inside the native it calls when the log is full, ever moves it
// back. The read position is the agent's own. The one event the thread changes after writing it
// is its last, an entry that its exit turns into a whole call; a reader that found an entry last
// reads it again next time.
class CallLogs {
 public:
  // Words before the first event: the write position and the "see the next probe" word.
  static const jint HEADER = 2;
  // Events in a new log: 16 KB a thread. A thread whose log fills up gets one twice as big, up
  // to MAX_CAPACITY (64 KB), so that a busy thread calls in once per 16 K events, not per 4 K.
  static const jint CAPACITY = 4096;
  static const jint MAX_CAPACITY = 16384;
  // The bit of an event that stands for a whole call without traced calls of its own
  // (CallLog.LEAF).
  static const jint LEAF = 1 << 30;
  // Places in the log table (CallLog.SLOTS).
  static const jint SLOTS = 1 << 14;

  // Finds the log table of the call log class, initializing the class, before a probe can
  // reach it. False when the class is missing; the probes then keep calling the natives.
  static bool prepare(JNIEnv* env);

  // A call that the current thread's log could not take, recorded natively ('event' as the log
  // holds it). A thread without a log that may have one gets it here, in the place 'slot' of
  // the log table, when no other thread holds that place.
  static void callNotLogged(JNIEnv* env, jint slot, jint event);

  // Reads the calls of 'info' that are not read yet; when 'info' is the current thread, also
  // empties its log. Caller holds ourLock, and has the gate closed unless it is the thread.
  static void catchUp(JNIEnv* env, ThreadInfo* info, bool isCurrentThread = true);
  // Tells the thread's probes whether the agent must see the next one: while its stack is not
  // known, only a native probe can find it. Caller holds ourLock or is the thread.
  static void publish(JNIEnv* env, ThreadInfo* info);

  // catchUp for every live thread, as the gate closes; publish for every one, as it opens.
  // Caller holds ourLock.
  static void catchUpAll();
  static void publishAll();

  // The thread ends: its last calls are read and its log and its place are let go. Caller holds
  // ourLock.
  static void release(ThreadInfo* info);
  // The same for every live thread, as counting stops: a later start may take its times from
  // the clock, whose probes must not find logs. Caller holds ourLock with the gate closed.
  static void releaseAll();

 private:
  // Gives the current thread a log in place 'slot' unless another thread holds it.
  static void claim(JNIEnv* env, ThreadInfo* info, jint slot);
  // Replaces the current thread's log, read to its end, by an empty one of 'capacity' events;
  // false when there is no memory for it.
  static bool grow(JNIEnv* env, ThreadInfo* info, jint capacity);
};

extern "C" {
JNIEXPORT void JNICALL Java_com_kestrix_runtime_Callback_kjpCallLogEvent0(JNIEnv* env, jclass, jint slot, jint event);
}

#endif
