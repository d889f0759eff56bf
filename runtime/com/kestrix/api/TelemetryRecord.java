package com.kestrix.api;

/**
 * Layout of the two int arrays of one telemetry sample. The first holds slowly changing values,
 * which the agent stores as properties, and only when they change; the second one value of each
 * sample.
 */
public final class TelemetryRecord {
    public static final int TELEC_HEAP_MEMORY_MAX_KB_PROP_INDEX = 0;
    public static final int TELEC_NON_HEAP_MEMORY_MAX_KB_PROP_INDEX = 1;
    public static final int TELEC_UNLOADED_CLASS_COUNT_PROP_INDEX = 2;
    public static final int TELEC_PEAK_THREAD_COUNT_PROP_INDEX = 3;
    public static final int TELEC_CREATED_THREAD_COUNT_PROP_INDEX = 4;
    public static final int TELEC_DEADLOCK_FOUND_PROP_INDEX = 5;
    public static final int TELEC_FIELD_COUNT = 6;

    public static final String[] TELEC_PROPERTY_NAMES = {
        "telec.heap.memory.max.kb",
        "telec.non.heap.memory.max.kb",
        "telec.unloaded.class.count",
        "telec.peak.thread.count",
        "telec.created.thread.count",
        "telec.deadlock.found",
    };

    public static final int TELE_HEAP_MEMORY_USED_KB = 0;
    public static final int TELE_HEAP_MEMORY_COMMITTED_KB = 1;
    public static final int TELE_NON_HEAP_MEMORY_USED_KB = 2;
    public static final int TELE_NON_HEAP_MEMORY_COMMITTED_KB = 3;
    public static final int TELE_LOADED_CLASS_COUNT = 4;
    public static final int TELE_LIVE_THREAD_COUNT = 5;
    public static final int TELE_DAEMON_THREAD_COUNT = 6;
    public static final int TELE_GC_COLLECTION1_COUNT = 7;
    public static final int TELE_GC_COLLECTION2_COUNT = 8;
    public static final int TELE_GC_TOTAL_COLLECTION_TIME_MS = 9;
    public static final int TELE_CPU_TIME_MS = 10;
    public static final int TELE_PROCESSOR_COUNT = 11;
    // Filled in by the agent.
    public static final int TELE_UPTIME_DS = 12;
    public static final int TELE_THREAD_STATE_COUNT = 13;
    public static final int TELE_THREAD_STATE_START_INDEX = 14;
    public static final int TELE_FIELD_COUNT = 15;

    private TelemetryRecord() {
    }
}
