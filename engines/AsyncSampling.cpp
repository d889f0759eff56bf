#include "engines/AsyncSampling.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <ucontext.h>

#include <new>

#include "agent/AgentThread.h"
#include "agent/CPUTime.h"
#include "agent/Clock.h"
#include "agent/HotSpotFlags.h"
#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KLock.h"
#include "agent/KMap.h"
#include "agent/Options.h"
#include "db/DB.h"
#include "engines/KFrameStorage.h"
#include "engines/KMethod.h"
#include "engines/SampleTimer.h"
#include "engines/Sampling.h"
#include "engines/ThreadInfo.h"
#include "engines/TracingGate.h"

static_assert(ASYNC_SAMPLING_SIGNAL == SIGPROF, "the timers signal with SIGPROF");

namespace {

// The JVM's own view of a walk's request and result; the layout is the JVM's.
struct CallTrace {
  JNIEnv* myEnv;
  jint myFrameCount;
  AsyncFrame* myFrames;
};
typedef void (*StackWalk)(CallTrace* trace, jint depth, void* ucontext);

// Codes the walk returns instead of a frame count.
const jint WALK_NO_JAVA_FRAME = 0;
const jint WALK_NO_CLASS_LOAD = -1;
const jint WALK_GC_ACTIVE = -2;
const jint WALK_UNKNOWN_NOT_JAVA = -3;
const jint WALK_NOT_WALKABLE_NOT_JAVA = -4;
const jint WALK_UNKNOWN_JAVA = -5;
const jint WALK_NOT_WALKABLE_JAVA = -6;

const char* const TRUNCATED_STACK_FRAME = "<truncated stack>";
const char* const UNKNOWN_JAVA_FRAME = "<unknown Java>";
const char* const UNSAMPLED_FRAME = "<ended before its first sample>";

// More live threads than this sample the rest of the time without timers; each slot costs the
// address space of a ring, of which only the touched pages are memory.
const int MAX_SLOTS = 4096;

// What a timer's signal carries: a mark that tells the agent's timers from any other SIGPROF
// timer of the process, the slot's generation and the slot's index.
const uint64_t TOKEN_MARK = 0x4b4aULL << 48;
const uint64_t TOKEN_MARK_MASK = 0xffffULL << 48;

const jlong IDLE_POLL_MS = 100;
// The drainer comes every few sampling periods, soon enough that a thread burning CPU without
// pause fills no more than about half of its ring, and never faster than every 5 ms.
const jlong MIN_DRAIN_MS = 5;
const jlong MAX_DRAIN_MS = 50;
// Threads in wall-time methods are found by a walk of all stacks at a safepoint, at most this
// often: the price of that walk is what the timers avoid for everything else.
const jlong MIN_WALL_PASS_MS = 100;

// One profiled thread's timer and samples. Slots are made on first need and never freed, so a
// handler that runs late (a signal queued before its timer was deleted) writes to valid memory;
// the generation tells it that it no longer owns the slot.
struct ThreadSlot {
  std::atomic<uint32_t> myGeneration;
  // Set while a handler writes the ring; whoever hands the slot on waits for it to clear.
  std::atomic<bool> myBusy;
  // The thread the slot serves, read by its handler while tracing.
  std::atomic<ThreadInfo*> myInfo;
  // The rest belongs to ourLock.
  bool myInUse;
  SampleTimer myTimer;
  // Written by the thread's handler only (and before its timer exists, and after it is gone):
  // the thread's CPU clock where its last sample ended, and the state of the jitter's random
  // numbers.
  jlong myLastCPUNs;
  uint64_t myJitterState;
  SampleRing myRing;
  // Under ourLock: the path of the thread's latest sample, -1 before the first.
  jint myLastFrame;
};

std::atomic<ThreadSlot*> ourSlots[MAX_SLOTS];
// Under ourLock: the slot of each thread that has a timer, -1 for one whose timer was refused.
KMap<ThreadInfo*, jint> ourSlotOfThread(64);

std::atomic<bool> ourActive(false);
std::atomic<bool> ourTracing(false);
std::atomic<jlong> ourPeriodNs(20000000);
// Set once the asynchronous sampler has been asked for: from then on every class prepared gets
// its method handles at once, since the walk can only name methods that have them.
std::atomic<bool> ourWantsMethodIDs(false);

StackWalk ourStackWalk = nullptr;
// The kind of timer threads get, chosen when the sampler starts; a thread the kernel refuses a
// perf timer gets a POSIX one.
SampleTimer::Kind ourTimerKind = SampleTimer::PERF_TASK_CLOCK;
bool ourHandlerInstalled = false;
struct sigaction ourPreviousAction;

jrawMonitorID ourDrainerMonitor = nullptr;
jlong ourLastWallPassNs = 0;

// The thread's JNI environment, looked up by its first sample: the walk needs it, and the
// JVM's lookup reads only the thread's own state.
__thread JNIEnv* ourThreadEnv __attribute__((tls_model("initial-exec"))) = nullptr;

// --- the signal handler: lock-free atomics and the JVM's walk only ---

void passToPreviousHandler(int signo, siginfo_t* info, void* context) {
  if ((ourPreviousAction.sa_flags & SA_SIGINFO) != 0) {
    if (ourPreviousAction.sa_sigaction != nullptr) {
      ourPreviousAction.sa_sigaction(signo, info, context);
    }
    return;
  }
  // SIGPROF's default action ends the process: a stray one is dropped instead.
  if (ourPreviousAction.sa_handler != SIG_DFL && ourPreviousAction.sa_handler != SIG_IGN &&
      ourPreviousAction.sa_handler != nullptr) {
    ourPreviousAction.sa_handler(signo);
  }
}

jint walkFrom(JNIEnv* env, AsyncFrame* frames, void* context) {
  CallTrace trace = {env, 0, frames};
  ourStackWalk(&trace, SampleRing::MAX_FRAMES, context);
  return trace.myFrameCount;
}

#if defined(__x86_64__)
// Frames of the JVM's stubs (array copies, CRC and other intrinsics) and a compiled method's
// first and last instructions are places the walk gives up on, though the caller is one return
// address away. The walk is tried again as if the thread had just returned: first to the return
// address on top of the stack, as it is at a call's first instruction and in stubs without a
// frame; then from the frame that the frame pointer describes, as stubs that set one up leave
// it, when it points a little above the stack pointer. In that order, the known-truth benchmark
// puts every variant within 2 points; the other order lets a stale frame pointer in compiled
// code name a method that ran earlier. Only words of the thread's own stack between the stack
// pointer and 4 KiB above it are read.
const uintptr_t NEAR_STACK_TOP = 4096;
const uintptr_t PROLOGUE_WORDS = 16;

bool isNearStackTop(uintptr_t address, uintptr_t sp) {
  return address >= sp && address + 16 <= sp + NEAR_STACK_TOP && (address & 7) == 0;
}

jint walkFromCaller(JNIEnv* env, AsyncFrame* frames, void* context) {
  ucontext_t* original = static_cast<ucontext_t*>(context);
  uintptr_t sp = static_cast<uintptr_t>(original->uc_mcontext.gregs[REG_RSP]);
  uintptr_t fp = static_cast<uintptr_t>(original->uc_mcontext.gregs[REG_RBP]);
  ucontext_t caller = *original;
  jint result = WALK_UNKNOWN_JAVA;
  if (isNearStackTop(sp, sp)) {
    caller.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(*reinterpret_cast<const uintptr_t*>(sp));
    caller.uc_mcontext.gregs[REG_RSP] = static_cast<greg_t>(sp + 8);
    result = walkFrom(env, frames, &caller);
    if (result > 0) {
      return result;
    }
    caller = *original;
  }
  if (isNearStackTop(fp, sp)) {
    const uintptr_t* saved = reinterpret_cast<const uintptr_t*>(fp);
    caller.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(saved[1]);
    caller.uc_mcontext.gregs[REG_RSP] = static_cast<greg_t>(fp + 16);
    caller.uc_mcontext.gregs[REG_RBP] = static_cast<greg_t>(saved[0]);
    result = walkFrom(env, frames, &caller);
    if (result > 0) {
      return result;
    }
    caller = *original;
  }
  // Between its prologue and the point the JVM calls the frame complete (on JDK 25 a compiled
  // method's entry barrier lies there, and a third of a loop of tiny calls was lost to it), a
  // method has pushed the caller's frame pointer and made room for its frame, but the register
  // still holds the caller's value. The slot above the word equal to it is the return address;
  // other words that merely look like code addresses are stale and named methods that had run
  // long before, so only that slot is tried.
  for (uintptr_t slot = sp + 8; slot <= sp + 8 * PROLOGUE_WORDS; slot += 8) {
    const uintptr_t* words = reinterpret_cast<const uintptr_t*>(slot);
    if (fp == 0 || words[-1] != fp || words[0] == 0) {
      continue;
    }
    caller.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(words[0]);
    caller.uc_mcontext.gregs[REG_RSP] = static_cast<greg_t>(slot + 8);
    result = walkFrom(env, frames, &caller);
    if (result > 0) {
      return result;
    }
  }
  return result;
}
#endif

// The thread's Java frames, top first, into 'frames'; a code of 0 and below when there are none.
jint walkStack(JNIEnv* env, AsyncFrame* frames, void* context) {
  jint result = walkFrom(env, frames, context);
#if defined(__x86_64__)
  if ((result == WALK_UNKNOWN_JAVA || result == WALK_NOT_WALKABLE_JAVA) && context != nullptr) {
    jint retried = walkFromCaller(env, frames, context);
    if (retried > 0) {
      return retried;
    }
  }
#endif
  return result;
}

// The CPU time until a thread's next sample: the period, drawn uniformly from half of it to one
// and a half. A fixed interval meets work that repeats at a multiple of it in the same phase
// every time and charges the part of it that happens to be there; drawn intervals keep the
// mean and lose the phase.
jlong nextInterval(ThreadSlot* slot, jlong period) {
  uint64_t x = slot->myJitterState;
  x ^= x << 13;
  x ^= x >> 7;
  x ^= x << 17;
  slot->myJitterState = x;
  return period / 2 + static_cast<jlong>(x % static_cast<uint64_t>(period > 0 ? period : 1));
}

// Sets the timer's next expiry to a drawn interval (and the ones after it, should the thread
// run on before the signal is taken, to the period).
void rearm(ThreadSlot* slot, jlong period) { slot->myTimer.rearm(nextInterval(slot, period), period); }

jlong currentThreadCPUNs() {
  struct timespec now = {0, 0};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<jlong>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void takeSample(ThreadSlot* slot, void* context) {
  // A sample stands for the CPU the thread burned since the last one ended, read from its clock:
  // the kernel notices an expiry only at its next clock tick, often several periods late, and
  // the time until then belongs to this sample too. A sample that finds the ring full has its
  // time carried by the ring into the next entry.
  jlong now = currentThreadCPUNs();
  SampleRing::Entry* entry = slot->myRing.beginWrite(now > slot->myLastCPUNs ? now - slot->myLastCPUNs : 0);
  slot->myLastCPUNs = now;
  rearm(slot, ourPeriodNs.load(std::memory_order_relaxed));
  if (entry == nullptr) {
    return;
  }
  // Also while tracing: the probes may log their calls for the agent to read later, so the
  // thread's traced frame can lag behind where it is.
  JNIEnv* env = ourThreadEnv;
  if (env == nullptr) {
    void* found = nullptr;
    if (ourVM != nullptr && ourVM->GetEnv(&found, JNI_VERSION_1_6) == JNI_OK) {
      env = static_cast<JNIEnv*>(found);
      ourThreadEnv = env;
    }
  }
  entry->myFrameCount = env == nullptr ? WALK_UNKNOWN_NOT_JAVA : walkStack(env, entry->myFrames, context);
  slot->myRing.commit();
}

void onSignal(int signo, siginfo_t* info, void* context) {
  int savedErrno = errno;
  uint64_t token = SampleTimer::tokenOf(info);
  if ((token & TOKEN_MARK_MASK) != TOKEN_MARK) {
    if (!SampleTimer::isStale(info)) {
      passToPreviousHandler(signo, info, context);
    }
    errno = savedErrno;
    return;
  }
  uint32_t index = static_cast<uint32_t>(token & 0xffffffffULL);
  uint32_t generation = static_cast<uint32_t>((token >> 32) & 0xffffULL);
  ThreadSlot* slot = index < static_cast<uint32_t>(MAX_SLOTS) ? ourSlots[index].load(std::memory_order_acquire)
                                                               : nullptr;
  if (slot != nullptr && !slot->myBusy.exchange(true, std::memory_order_acquire)) {
    if ((slot->myGeneration.load(std::memory_order_acquire) & 0xffffU) == generation &&
        ourActive.load(std::memory_order_relaxed)) {
      takeSample(slot, context);
    }
    slot->myBusy.store(false, std::memory_order_release);
  }
  errno = savedErrno;
}

// --- set-up, under ourLock ---

bool installHandler() {
  if (ourHandlerInstalled) {
    return true;
  }
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_sigaction = onSignal;
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  if (sigaction(ASYNC_SAMPLING_SIGNAL, &action, &ourPreviousAction) != 0) {
    return false;
  }
  // The handler stays for the JVM's life: a signal still queued from a deleted timer must find it.
  ourHandlerInstalled = true;
  return true;
}

// Chooses the kind of timer from what was asked for and what the kernel gives; false when it
// gives neither.
bool chooseTimerKind() {
  bool perf = ourOptions.myAsyncTimer != Options::ASYNC_TIMER_POSIX && SampleTimer::perfTaskClockWorks();
  if (perf) {
    ourTimerKind = SampleTimer::PERF_TASK_CLOCK;
    return true;
  }
  if (!SampleTimer::posixTimerWorks()) {
    return false;
  }
  if (ourOptions.myAsyncTimer == Options::ASYNC_TIMER_PERF) {
    fprintf(stderr, KJP_LOG_PREFIX "*** Warning ***: the kernel refuses perf task clocks (perf_event_open); asynchronous sampling uses POSIX CPU timers, whose samples fall on the kernel's clock ticks\n");
    fflush(stderr);
  }
  ourTimerKind = SampleTimer::POSIX_CPU_TIMER;
  return true;
}

ThreadSlot* newSlot() {
  void* memory = mmap(nullptr, sizeof(ThreadSlot), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    return nullptr;
  }
  ThreadSlot* slot = new (memory) ThreadSlot();
  slot->myGeneration.store(0);
  slot->myBusy.store(false);
  slot->myInfo.store(nullptr);
  slot->myInUse = false;
  return slot;
}

// A free slot's index, making one when all are taken; -1 when none can be had.
jint takeFreeSlot() {
  for (jint i = 0; i < MAX_SLOTS; i++) {
    ThreadSlot* slot = ourSlots[i].load(std::memory_order_relaxed);
    if (slot == nullptr) {
      slot = newSlot();
      if (slot == nullptr) {
        return -1;
      }
      ourSlots[i].store(slot, std::memory_order_release);
    }
    if (!slot->myInUse) {
      return i;
    }
  }
  return -1;
}

// Gives the thread a slot and a timer that signals it every period of CPU time it burns.
void armThread(ThreadInfo* info) {
  jint index = takeFreeSlot();
  if (index == -1) {
    ourSlotOfThread.put(info, -1);
    return;
  }
  ThreadSlot* slot = ourSlots[index].load(std::memory_order_relaxed);
  uint32_t generation = slot->myGeneration.load() & 0xffffU;
  slot->myRing.reset();
  slot->myInfo.store(info, std::memory_order_release);
  slot->myLastCPUNs = getThreadCPUTimeNs(static_cast<long>(info->myThreadID));
  slot->myLastFrame = -1;
  uint64_t token = TOKEN_MARK | (static_cast<uint64_t>(generation) << 32) | static_cast<uint64_t>(index);
  int tid = static_cast<int>(info->myThreadID);
  jlong period = ourPeriodNs.load();
  // Each thread draws its own intervals; the seed only has to differ between threads.
  slot->myJitterState = (static_cast<uint64_t>(tid) << 32) ^ static_cast<uint64_t>(getTimeNs()) ^ 0x9e3779b97f4a7c15ULL;
  jlong first = nextInterval(slot, period);
  // A perf timer costs a descriptor, which a process with many threads may run out of: such a
  // thread gets a POSIX timer.
  bool armed = slot->myTimer.arm(ourTimerKind, tid, ASYNC_SAMPLING_SIGNAL, token, first, period) ||
               (ourTimerKind == SampleTimer::PERF_TASK_CLOCK &&
                slot->myTimer.arm(SampleTimer::POSIX_CPU_TIMER, tid, ASYNC_SAMPLING_SIGNAL, token, first, period));
  if (!armed) {
    // The thread has just ended, or the kernel ran out of timers: it goes unsampled.
    slot->myInfo.store(nullptr);
    ourSlotOfThread.put(info, -1);
    return;
  }
  slot->myInUse = true;
  ourSlotOfThread.put(info, index);
}

void armIfUnarmed(ThreadInfo* info) {
  if (!info->myIsAgentThread && info->myThreadID != 0 && !ourSlotOfThread.containsKey(info)) {
    armThread(info);
  }
}

void armNewThreads() { forEachLiveThread(armIfUnarmed); }

// Deletes the slot's timer and waits for a handler that may still be writing, so that the
// slot can serve another thread.
void disarmSlot(ThreadSlot* slot) {
  // The generation first: a handler from here on leaves the timer alone, and one already
  // inside (which may set the timer again) is waited for, so no handler touches the timer
  // after its id is given back to the kernel for another timer to take.
  slot->myGeneration.fetch_add(1);
  while (slot->myBusy.load(std::memory_order_acquire)) {
    sched_yield();
  }
  slot->myTimer.disarm();
}

// --- turning samples into the call tree, under ourLock ---

jint methodFlagsOfFrame(jint frame) {
  return ourDB->myMethodTable->getRecord(ourFrameStorage.getMethodIndex(frame), true)->myFlags;
}

jint pseudoMethod(const char* name) { return KMethod::getByName(name, "", ""); }

// The method row of a handle from the walk; 0 when the JVM no longer knows the handle (its
// class was unloaded since the sample).
jint methodIndexOf(JNIEnv* env, jmethodID method) {
  jint known = 0;
  if (ourMethodID2MethodIndex.get(method, &known) && known != 0) {
    return known;
  }
  char* name = nullptr;
  char* signature = nullptr;
  if (ourJVMTI->GetMethodName(method, &name, &signature, nullptr) != JVMTI_ERROR_NONE) {
    return 0;
  }
  jint index = 0;
  jclass declaring = nullptr;
  if (ourJVMTI->GetMethodDeclaringClass(method, &declaring) == JVMTI_ERROR_NONE && declaring != nullptr) {
    char* classSignature = nullptr;
    if (ourJVMTI->GetClassSignature(declaring, &classSignature, nullptr) == JVMTI_ERROR_NONE &&
        classSignature != nullptr) {
      index = getMethodByName(classSignature, name, signature);
      ourMethodID2MethodIndex.put(method, index);
      deallocate(classSignature);
    }
    env->DeleteLocalRef(declaring);
  }
  deallocate(name);
  deallocate(signature);
  return index;
}

// The call-tree frame of a walked sample: its Java frames from the root, or a pseudo-frame
// below the root when the walk found none.
jint frameOfWalk(JNIEnv* env, const SampleRing::Entry& entry) {
  if (entry.myFrameCount <= 0) {
    return ourFrameStorage.getChild(0, pseudoMethod(pseudoFrameName(entry.myFrameCount)));
  }
  jint count = entry.myFrameCount < SampleRing::MAX_FRAMES ? entry.myFrameCount : SampleRing::MAX_FRAMES;
  jint frame = 0;
  if (count == SampleRing::MAX_FRAMES) {
    frame = ourFrameStorage.getChild(0, pseudoMethod(TRUNCATED_STACK_FRAME));
  }
  for (jint i = count - 1; i >= 0; i--) {
    jmethodID method = entry.myFrames[i].myMethod;
    jint index = method == nullptr ? 0 : methodIndexOf(env, method);
    frame = ourFrameStorage.getChild(frame, index != 0 ? index : pseudoMethod(UNKNOWN_JAVA_FRAME));
  }
  return frame;
}

// Charges a sample's CPU time to 'frame' and its callers, as the safepoint sampler does, except
// that time from a wall-time method upwards is left to the wall pass.
void chargeCPU(ThreadInfo* info, jint frame, jlong ns) {
  frame = skipHiddenFrames(frame);
  if (frame == 0 || frame == -1 || ns < 1 || ns > MAX_SAMPLE_DELTA_NS) {
    return;
  }
  if ((methodFlagsOfFrame(frame) & MF_WAIT) != 0) {
    return;  // a wait that spins is still idle time
  }
  for (; frame != 0 && frame != -1; frame = ourFrameStorage.getParent(frame)) {
    if ((methodFlagsOfFrame(frame) & MF_WALL_TIME) != 0) {
      return;
    }
    CPUProfilingRecord* record = info->getCPUProfilingRecord(frame, true);
    record->time += ns;
    record->myModificationStamp = ourDB->myModificationStamp;
  }
}

// The traced tree's frame of a walked sample: the walk seen as the probes see calls (frames
// without probes skipped, filtered calls collapsed). A walk that found no Java frame, or too
// many, goes under its pseudo-frame below the root.
jint tracedFrameOfWalk(JNIEnv* env, const SampleRing::Entry& entry) {
  if (entry.myFrameCount <= 0 || entry.myFrameCount >= SampleRing::MAX_FRAMES) {
    const char* name = entry.myFrameCount <= 0 ? pseudoFrameName(entry.myFrameCount) : TRUNCATED_STACK_FRAME;
    return ourFrameStorage.getChild(0, pseudoMethod(name));
  }
  static jvmtiFrameInfo frames[SampleRing::MAX_FRAMES];  // one drainer, under ourLock
  jint count = 0;
  for (jint i = 0; i < entry.myFrameCount; i++) {
    if (entry.myFrames[i].myMethod != nullptr) {
      frames[count].method = entry.myFrames[i].myMethod;
      frames[count].location = 0;
      count++;
    }
  }
  jint frame = ourFrameStorage.fillTracedFrameFromStack(env, frames, count);
  return frame != 0 ? frame : ourFrameStorage.getChild(0, pseudoMethod(UNKNOWN_JAVA_FRAME));
}

void drainSlot(JNIEnv* env, ThreadSlot* slot, ThreadInfo* info) {
  for (const SampleRing::Entry* entry = slot->myRing.peek(); entry != nullptr; entry = slot->myRing.peek()) {
    jint frame = ourTracing.load() ? tracedFrameOfWalk(env, *entry) : frameOfWalk(env, *entry);
    chargeCPU(info, frame, entry->myCPUTimeNs);
    if (frame != -1) {
      slot->myLastFrame = frame;
    }
    slot->myRing.pop();
  }
}

void drainAll(JNIEnv* env) {
  for (jint i = 0; i < ourSlotOfThread._capacity; i++) {
    if (ourSlotOfThread._states[i] != KMAP_FULL || ourSlotOfThread._values[i] == -1) {
      continue;
    }
    drainSlot(env, ourSlots[ourSlotOfThread._values[i]].load(), ourSlotOfThread._keys[i]);
  }
}

// From the innermost wall-time frame at or above 'frame' upwards, the thread was busy for the
// whole interval, burning CPU or not.
void chargeWall(ThreadInfo* info, jint frame, jlong wall) {
  frame = skipHiddenFrames(frame);
  if (frame == 0 || frame == -1 || (methodFlagsOfFrame(frame) & MF_WAIT) != 0) {
    return;
  }
  bool inWallTime = false;
  for (; frame != 0 && frame != -1; frame = ourFrameStorage.getParent(frame)) {
    inWallTime = inWallTime || (methodFlagsOfFrame(frame) & MF_WALL_TIME) != 0;
    if (inWallTime) {
      CPUProfilingRecord* record = info->getCPUProfilingRecord(frame, true);
      record->time += wall;
      record->myModificationStamp = ourDB->myModificationStamp;
      info->myNeedsWallTimeCorrection = true;
    }
  }
}

bool hasWallTimeMethod(JNIEnv* env, const jvmtiStackInfo& stack) {
  for (jint i = 0; i < stack.frame_count; i++) {
    jint index = methodIndexOf(env, stack.frame_buffer[i].method);
    if (index != 0 && (ourDB->myMethodTable->getRecord(index, true)->myFlags & MF_WALL_TIME) != 0) {
      return true;
    }
  }
  return false;
}

// Charges 'wall' to the wall-time methods that threads are in, from their stacks taken at a
// safepoint.
void wallPass(JNIEnv* env, jlong wall) {
  if (wall < 1 || wall > MAX_SAMPLE_DELTA_NS) {
    return;
  }
  jvmtiStackInfo* stacks = nullptr;
  jint count = 0;
  if (ourJVMTI->GetAllStackTraces(SAMPLER_MAX_FRAMES, &stacks, &count) != JVMTI_ERROR_NONE) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    const jvmtiStackInfo& stack = stacks[i];
    ThreadInfo* info = (stack.state & JVMTI_THREAD_STATE_ALIVE) != 0 ? getThreadInfoJVMTI(stack.thread) : nullptr;
    if (info != nullptr && !info->myIsAgentThread && hasWallTimeMethod(env, stack)) {
      jint frame = ourTracing.load()
                       ? ourFrameStorage.fillTracedFrameFromStack(env, stack.frame_buffer, stack.frame_count)
                       : ourFrameStorage.fillCurrentFrameJVMTIFromStackInfo(env, stack, nullptr);
      chargeWall(info, frame, wall);
    }
    env->DeleteLocalRef(stack.thread);
  }
  deallocate(stacks);
}

jlong drainIntervalMs() {
  jlong ms = static_cast<jlong>(ourOptions.mySamplingPeriod) * 4;
  return ms < MIN_DRAIN_MS ? MIN_DRAIN_MS : ms > MAX_DRAIN_MS ? MAX_DRAIN_MS : ms;
}

// One round of the drainer. Caller holds ourLock.
void drainerPass(JNIEnv* env) {
  armNewThreads();
  drainAll(env);
  jlong now = getTimeNs();
  jlong wallPassMs = ourOptions.mySamplingPeriod > MIN_WALL_PASS_MS ? ourOptions.mySamplingPeriod : MIN_WALL_PASS_MS;
  if (now - ourLastWallPassNs >= wallPassMs * 1000000LL) {
    wallPass(env, now - ourLastWallPassNs);
    ourLastWallPassNs = now;
  }
}

void JNICALL drainerEntry(jvmtiEnv* jvmti, JNIEnv* env, void*) {
  // Held for good, as the safepoint sampler holds its own: a sleep the JVM knows about.
  check_JVMTI_error(jvmti->RawMonitorEnter(ourDrainerMonitor));
  for (;;) {
    jvmti->RawMonitorWait(ourDrainerMonitor, ourActive.load() ? drainIntervalMs() : IDLE_POLL_MS);
    if (!ourActive.load() || ourVMDeathCalled) {
      continue;
    }
    LockHolder holder(&ourLock, "AsyncSampling(360)");
    if (ourActive.load()) {
      // Traced calls move the threads' frames without ourLock.
      TracingGate::Closure framesStill(ourTracing.load());
      drainerPass(env);
    }
  }
}

void startDrainer(JNIEnv* env) {
  check_JVMTI_error(ourJVMTI->CreateRawMonitor("kjp_async_sampler", &ourDrainerMonitor));
  jthread thread = createAgentThread(env, "KJPAgent-AsyncSampler");
  check_JVMTI_error(ourJVMTI->RunAgentThread(thread, drainerEntry, nullptr, JVMTI_THREAD_MAX_PRIORITY));
  env->DeleteLocalRef(thread);
}

// Method handles of every class loaded so far; later classes get theirs as they are prepared.
void makeMethodIDsOfLoadedClasses(JNIEnv* env) {
  jint count = 0;
  jclass* classes = nullptr;
  if (ourJVMTI->GetLoadedClasses(&count, &classes) != JVMTI_ERROR_NONE) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    jint status = 0;
    if (ourJVMTI->GetClassStatus(classes[i], &status) == JVMTI_ERROR_NONE && (status & JVMTI_CLASS_STATUS_PREPARED) != 0) {
      jint methodCount = 0;
      jmethodID* methods = nullptr;
      if (ourJVMTI->GetClassMethods(classes[i], &methodCount, &methods) == JVMTI_ERROR_NONE) {
        deallocate(methods);
      }
    }
    if (env != nullptr) {
      env->DeleteLocalRef(classes[i]);
    }
  }
  deallocate(classes);
}

void JNICALL classPrepared(jvmtiEnv* jvmti, JNIEnv*, jthread, jclass klass) {
  if (!ourWantsMethodIDs.load(std::memory_order_relaxed)) {
    return;
  }
  jint count = 0;
  jmethodID* methods = nullptr;
  if (jvmti->GetClassMethods(klass, &count, &methods) == JVMTI_ERROR_NONE) {
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(methods));
  }
}

// The JVM's walk answers only while some environment hears of class loads (otherwise every
// sample shows as "<class loading>"): the allocation engine handles them for the agent's whole
// life, so this engine adds no handler of its own to every class load.
void setEventHandlers(jvmtiEventCallbacks* callbacks) { callbacks->ClassPrepare = classPrepared; }

const jvmtiEvent EVENTS_AT_LOAD[] = {JVMTI_EVENT_CLASS_PREPARE};

// The kernel looks at a thread's CPU timer only at its clock tick (every 4 ms on a kernel of
// 250 Hz), so the CPU a thread burns after its last sample is never signalled: threads that live
// a few milliseconds lost more than half of their time. The ending thread books that rest to the
// path of its last sample, the best guess there is, or, when it ended before its first sample,
// under UNSAMPLED_FRAME, so that its total stays its own CPU time. Runs on the ending thread.
void bookUnsampledTail(ThreadSlot* slot, ThreadInfo* info) {
  jlong rest = currentThreadCPUNs() - slot->myLastCPUNs + slot->myRing.carriedNs();
  if (rest <= 0) {
    return;
  }
  jint frame = slot->myLastFrame;
  if (frame == -1 || frame == 0) {
    frame = ourFrameStorage.getChild(0, pseudoMethod(UNSAMPLED_FRAME));
  }
  chargeCPU(info, frame, rest);
}

// A thread that starts while the sampler runs gets its timer at once, before it burns anything:
// the drainer's round would come too late for threads that live a few milliseconds, and their
// time would be missing from the totals.
void threadStarted(ThreadInfo* info) {
  if (ourActive.load()) {
    armIfUnarmed(info);
  }
}

// A thread's queued samples are booked while its ThreadInfo still exists, and its slot is
// handed back. Runs on the ending thread, so its own handler can't be running.
void threadEnded(ThreadInfo* info) {
  jint index = -1;
  if (!ourSlotOfThread.get(info, &index)) {
    return;
  }
  ourSlotOfThread.remove(info);
  if (index == -1) {
    return;
  }
  ThreadSlot* slot = ourSlots[index].load();
  disarmSlot(slot);
  JNIEnv* env = nullptr;
  if (ourVM->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK && env != nullptr) {
    drainSlot(env, slot, info);
  }
  bookUnsampledTail(slot, info);
  slot->myRing.reset();
  slot->myInfo.store(nullptr);
  slot->myInUse = false;
}

// Samples still queued belong in the tables about to be written.
void beforeTablesWritten(JNIEnv* env, jint tableMask) {
  if (ourActive.load() && (tableMask & (1 << CPUPROFILING_TABLE_ID)) != 0) {
    drainAll(env);
  }
}

}  // namespace

const char* asyncSamplingUnavailableReason(bool haveStackWalk, bool timersWork, bool handlerInstalled) {
  if (!haveStackWalk) {
    return "this JVM does not export AsyncGetCallTrace";
  }
  if (!timersWork) {
    return "the kernel refuses timers on a thread's CPU clock";
  }
  if (!handlerInstalled) {
    return "the handler of SIGPROF cannot be installed";
  }
  return nullptr;
}

const char* pseudoFrameName(jint walkResult) {
  switch (walkResult) {
    case WALK_GC_ACTIVE:
      return "<GC>";
    case WALK_UNKNOWN_NOT_JAVA:
    case WALK_NOT_WALKABLE_NOT_JAVA:
    case WALK_NO_JAVA_FRAME:
      return "<native>";
    case WALK_UNKNOWN_JAVA:
    case WALK_NOT_WALKABLE_JAVA:
      return UNKNOWN_JAVA_FRAME;
    case WALK_NO_CLASS_LOAD:
      return "<class loading>";
    default:
      return "<VM>";
  }
}

bool startAsyncSampling(JNIEnv* env) {
  if (ourStackWalk == nullptr) {
    ourStackWalk = reinterpret_cast<StackWalk>(dlsym(RTLD_DEFAULT, "AsyncGetCallTrace"));
  }
  bool haveWalk = ourStackWalk != nullptr;
  bool timers = haveWalk && chooseTimerKind();
  bool handler = timers && installHandler();
  const char* reason = asyncSamplingUnavailableReason(haveWalk, timers, handler);
  if (reason != nullptr) {
    fprintf(stderr, KJP_LOG_PREFIX "*** Warning ***: asynchronous sampling is not available (%s); CPU sampling at safepoints is used\n",
            reason);
    fflush(stderr);
    return false;
  }
  if (!ourWantsMethodIDs.exchange(true)) {
    makeMethodIDsOfLoadedClasses(env);
  }
  // Compiled code describes its inlined methods only at calls and safepoint polls, and the walk
  // names the method of the next such place after the sampled instruction, which is often
  // another method inlined into the same code: a loop of calls was charged a fifth of its time
  // short, to the method after it. With this flag the compiler describes every instruction;
  // code compiled before stays as it was.
  if (!enableHotSpotBoolFlag("DebugNonSafepoints")) {
    fprintf(stderr, KJP_LOG_PREFIX "*** Warning ***: this JVM's compiled code cannot be told to describe every instruction: samples in inlined methods may be charged to a neighbour\n");
    fflush(stderr);
  }
  ourPeriodNs.store(static_cast<jlong>(ourOptions.mySamplingPeriod) * 1000000LL);
  ourTracing.store((ourStatus & CPU_COUNTS_BIT) != 0);
  ourLastWallPassNs = getTimeNs();
  ourActive.store(true);
  armNewThreads();
  return true;
}

void stopAsyncSampling(JNIEnv* env) {
  if (!ourActive.load()) {
    return;
  }
  for (jint i = 0; i < ourSlotOfThread._capacity; i++) {
    if (ourSlotOfThread._states[i] == KMAP_FULL && ourSlotOfThread._values[i] != -1) {
      disarmSlot(ourSlots[ourSlotOfThread._values[i]].load());
    }
  }
  drainAll(env);
  ourActive.store(false);
  for (jint i = 0; i < ourSlotOfThread._capacity; i++) {
    if (ourSlotOfThread._states[i] == KMAP_FULL && ourSlotOfThread._values[i] != -1) {
      ThreadSlot* slot = ourSlots[ourSlotOfThread._values[i]].load();
      slot->myRing.reset();
      slot->myInfo.store(nullptr);
      slot->myInUse = false;
    }
    if (ourSlotOfThread._states[i] == KMAP_FULL) {
      ourSlotOfThread.remove(ourSlotOfThread._keys[i]);  // a tombstone: the walk goes on
    }
  }
}

bool isAsyncSamplingActive() { return ourActive.load(std::memory_order_relaxed); }

jlong asyncSamplingPeriodNs() { return ourPeriodNs.load(); }

const Engine ourAsyncSamplingEngine = {
    "asyncsampling",
    nullptr,
    setEventHandlers,
    eventList(EVENTS_AT_LOAD),
    nullptr,
    startDrainer,
    NativeList{nullptr, 0},
    NativeList{nullptr, 0},
    threadStarted,
    threadEnded,
    nullptr,
    beforeTablesWritten,
};
