package com.kestrix.bench;

/**
 * The floor of a traced call, two reads of the thread CPU clock by the same system call as the
 * tracing probes, made in C (bench/clock-floor.c) by the calling thread itself.
 */
final class ClockFloor {
    private ClockFloor() {
    }

    /** Loads the library named by the system property "kjp.bench.floor"; false when not set. */
    static boolean load() {
        String path = System.getProperty("kjp.bench.floor");
        if (path == null) {
            return false;
        }
        System.load(path);
        return true;
    }

    static native void readPairs(long pairs);

    /** Reads the clock and keeps nothing: a probe that does no bookkeeping at all. */
    static native void probe(short low, short high);
}
