#ifndef KJP_KFRAMESTORAGE_H
#define KJP_KFRAMESTORAGE_H

#include <jni.h>
#include <jvmti.h>

#include "agent/JVMTI_Agent.h"
#include "agent/KMap.h"
#include "agent/KVector.h"
#include "db/DB.h"

// A named local variable of a captured frame, for heap dumps that show locals as roots.
struct StackLocal {
  StackLocal(int slot, const char* name);

  jint mySlot;
  // String pool index of the name.
  jint myNameStrID;
};

// The one call tree shared by all threads, kept as rows of the frame table: a frame is a
// path from the root, so the same method reached two ways has two frames. Figures per thread
// hang on (thread, frame) pairs elsewhere; the tree holds none. Everything here runs under
// ourLock.
class KFrameStorage {
 public:
  // The deepest stack a walk records; a deeper one loses its outermost frames.
  static const jint MAX_STACK_DEPTH = 1024;

  KFrameStorage() : ourStartupAllocationsFrame(-1), myLastWalkWasWhole(false) {}

  jint getParent(jint frame) { return record(frame)->myParent; }
  jint getMethodIndex(jint frame) { return record(frame)->myCallee; }
  jint getFirstChild(jint frame) { return record(frame)->myFirstChild; }
  jint getNextSibling(jint frame) { return record(frame)->myNextSibling; }

  // The child of 'parent' for the method, appended behind its siblings when missing. Siblings
  // stand in the order of first call and are scanned linearly: most nodes have few children,
  // and this runs on every traced entry.
  jint getChild(jint parent, jint methodIndex);

  // A new linked-in-by-the-caller row under 'parent'; stamps it and the parent.
  jint addChildFrame(jint parent, jint methodIndex);

  // Walks the current thread's stack into the tree and returns the frame of its top, 0 for an
  // empty stack. Hidden and uninstrumented methods make no node. With 'filteredCalls', which
  // is refilled with one bit per frame walked, a run of filtered methods collapses into its
  // first one, as the tracing probes build it.
  jint fillCurrentFrameJVMTI(JNIEnv* env, bool skipNative, KVector<bool>* filteredCalls);

  // Whether the last fillCurrentFrameJVMTI saw the whole stack, down to its outermost frame.
  bool lastWalkWasWhole() const { return myLastWalkWasWhole; }

  // The one frame on the path from the root to 'frame' (itself included) whose method is
  // 'methodIndex'; 0 when there is none or more than one.
  jint onlyAncestorOf(jint frame, jint methodIndex);

  // The same for a stack that the current thread took of itself with GetStackTrace (top
  // first, at most MAX_STACK_DEPTH frames): it can do so before it takes ourLock.
  jint fillFrameFromStack(JNIEnv* env, const jvmtiFrameInfo* frames, jint count, bool skipNative,
                          KVector<bool>* filteredCalls);

  // The frame of a stack (top first) in the traced tree: the stack as the tracing probes see
  // calls, frames without probes skipped and filtered runs collapsed. What a sample of a traced
  // thread is charged to. Caller holds ourLock.
  jint fillTracedFrameFromStack(JNIEnv* env, const jvmtiFrameInfo* frames, jint count) {
    return fillFrameFromStack(env, frames, count, !canInstrumentNativeMethods(), &myScratchFilteredCalls);
  }

  // The same for a stack captured by GetAllStackTraces, keeping every frame. With 'locals',
  // the named local variables of each method are stored under its handle.
  jint fillCurrentFrameJVMTIFromStackInfo(JNIEnv* env, const jvmtiStackInfo& stackInfo,
                                          KMap<jmethodID, KVector<StackLocal*>*>* locals);

  // Frame under which allocations of the JVM start phase are booked; -1 until there is one.
  jint ourStartupAllocationsFrame;

 private:
  // The bits that fillTracedFrameFromStack's walks need and nobody reads.
  KVector<bool> myScratchFilteredCalls{64};

  bool myLastWalkWasWhole;

  static FrameRecord* record(jint frame) { return ourDB->myFrameTable->getRecord(frame, true); }
};

extern KFrameStorage ourFrameStorage;

#endif
