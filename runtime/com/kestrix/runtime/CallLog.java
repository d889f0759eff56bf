package com.kestrix.runtime;

/**
 * Each thread's log of traced calls, for tracing whose times come from samples. A traced call
 * then only needs its count, and the probes write entries and exits into an int array of the
 * thread instead of calling the agent: a call into native code costs more than the rest of the
 * call's recording. The agent reads the log back into the call tree when it fills up, when the
 * thread throws or ends, and before anyone reads the counts.
 *
 * A log's layout, shared with the agent: [0] the index of the next free slot, [1] non-zero
 * while the agent must see the next probe itself (the thread's call stack is not known), then
 * the events: a method index for an entry, its bitwise complement for an exit, and the method
 * index with bit 30 set for a whole call that made no traced call (an entry that its exit
 * rewrote in place).
 *
 * A thread finds its log in a table indexed by its identity hash, both intrinsics: a
 * thread-local would cost more than the rest of the probe. The agent fills a thread's place at
 * its first probe and empties it as the thread ends. A thread whose place another thread holds,
 * a virtual thread and the agent's own threads keep calling the agent for every probe.
 *
 * Nothing here may call a method that has probes: a probe would come back in here.
 */
final class CallLog {
    static final int SLOTS = 1 << 14;
    static final Thread[] OWNERS = new Thread[SLOTS];
    static final int[][] LOGS = new int[SLOTS][];
    /** Marks an entry whose call has ended without a traced call of its own. */
    static final int LEAF = 1 << 30;

    private CallLog() {
    }

    static void entry(short low, short high) {
        int method = (high << 16) | (low & 0xffff);
        Thread thread = Thread.currentThread();
        int slot = System.identityHashCode(thread) & (SLOTS - 1);
        int[] log = LOGS[slot];
        // The log before its owner: a log let go while this runs is still an array.
        if (log != null && OWNERS[slot] == thread) {
            int next = log[0];
            if (next < log.length && log[1] == 0) {
                log[next] = method;
                log[0] = next + 1;
                return;
            }
        }
        Callback.kjpCallLogEvent0(slot, method);
    }

    static void exit(short low, short high) {
        int method = (high << 16) | (low & 0xffff);
        Thread thread = Thread.currentThread();
        int slot = System.identityHashCode(thread) & (SLOTS - 1);
        int[] log = LOGS[slot];
        if (log != null && OWNERS[slot] == thread && log[1] == 0) {
            int next = log[0];
            // A call that made no traced call of its own: its entry becomes the whole call, one
            // event instead of two. The word before the first event is the zero just read.
            int last = next - 1;
            if (log[last] == method) {
                log[last] = method | LEAF;
                return;
            }
            if (next < log.length) {
                log[next] = ~method;
                log[0] = next + 1;
                return;
            }
        }
        Callback.kjpCallLogEvent0(slot, ~method);
    }
}
