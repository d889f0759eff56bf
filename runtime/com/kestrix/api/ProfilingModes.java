package com.kestrix.api;

/** The measurements a client can start, and the kinds of snapshot it can ask for. */
public class ProfilingModes {
    public static final long CPU_SAMPLING = 4;
    public static final long CPU_TRACING = 12;
    /** Sampling by timers on each thread's CPU clock; agents of older versions refuse it. */
    public static final long CPU_ASYNC_SAMPLING = 4 | 1024;
    public static final long CPU_J2EE = 32;
    public static final long MONITOR_PROFILING = 128;
    public static final long ALLOCATION_RECORDING = 2;

    public static final long SNAPSHOT_WITHOUT_HEAP = 0;
    public static final long SNAPSHOT_WITH_HEAP = 1;
    public static final long SNAPSHOT_HPROF = 17;

    protected ProfilingModes() {
    }
}
