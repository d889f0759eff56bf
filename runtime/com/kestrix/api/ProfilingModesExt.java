package com.kestrix.api;

/** The single bits of the agent's status word, of which the public modes are made. */
public class ProfilingModesExt extends ProfilingModes {
    public static final long ALLOCATION_RECORDING_BIT = 2;
    public static final long CPU_TIMES_BIT = 4;
    public static final long CPU_COUNTS_BIT = 8;
    public static final long CPU_J2EE_BIT = 32;
    public static final long MONITORS_BIT = 128;
    public static final long INTERNAL_ERROR_BIT = 256;
    public static final long STACK_TELEMETRY = 512;
    /** CPU samples from timers on each thread's CPU clock instead of stacks taken at safepoints. */
    public static final long CPU_ASYNC_BIT = 1024;
    /** Tracing takes its times from samples. */
    public static final long CPU_SAMPLED_TIMES_BIT = 2048;
    /** Tracing reads the thread CPU clock at every call. */
    public static final long CPU_CLOCK_TIMES_BIT = 4096;
    /** Every bit that belongs to CPU profiling. */
    public static final long CPU_PROFILING = CPU_TIMES_BIT | CPU_COUNTS_BIT | CPU_J2EE_BIT;

    protected ProfilingModesExt() {
    }
}
