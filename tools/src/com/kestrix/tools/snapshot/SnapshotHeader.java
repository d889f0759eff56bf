package com.kestrix.tools.snapshot;

import java.util.ArrayList;
import java.util.List;

/** The fixed fields at the start of a snapshot file. */
public record SnapshotHeader(
        char formatVersion,
        String creator,
        /** Session start, seconds since 1970. */
        long startTimeSeconds,
        int snapshotNumber,
        int oidWidth,
        long reserved,
        long flags,
        /** Capture time, milliseconds since 1970. */
        long captureTimeMillis,
        String sessionName) {

    public static final long SNAPSHOT_WITH_HEAP = 1;
    public static final long SNAPSHOT_CLR_2_0 = 4;
    public static final long SNAPSHOT_WITH_COUNTS = 8;
    public static final long SNAPSHOT_HPROF = 16;
    public static final long SNAPSHOT_CAUSE_SHUTDOWN = 32;
    public static final long SNAPSHOT_CAUSE_PERIODIC = 64;
    public static final long SNAPSHOT_CAUSE_LOW_MEMORY = 128;
    public static final long SNAPSHOT_CAUSE_OOME = 256;
    public static final long SNAPSHOT_OIDS_ARE_INDICES = 512;
    public static final long SNAPSHOT_CLR_1_1 = 1024;

    public boolean hasFlag(long flag) {
        return (flags & flag) != 0;
    }

    /** The set flags in words, lowest bit first; bits this tool doesn't know are left out. */
    public List<String> flagNames() {
        List<String> names = new ArrayList<>();
        addIf(names, SNAPSHOT_WITH_HEAP, "heap");
        addIf(names, SNAPSHOT_WITH_COUNTS, "invocation counts");
        addIf(names, SNAPSHOT_HPROF, "hprof");
        addIf(names, SNAPSHOT_CAUSE_SHUTDOWN, "shutdown");
        addIf(names, SNAPSHOT_CAUSE_PERIODIC, "periodic");
        addIf(names, SNAPSHOT_CAUSE_LOW_MEMORY, "low memory");
        addIf(names, SNAPSHOT_CAUSE_OOME, "out of memory");
        return names;
    }

    /** Why the snapshot was taken, in words. */
    public String cause() {
        if (hasFlag(SNAPSHOT_CAUSE_OOME)) {
            return "OutOfMemoryError";
        }
        if (hasFlag(SNAPSHOT_CAUSE_LOW_MEMORY)) {
            return "memory threshold";
        }
        if (hasFlag(SNAPSHOT_CAUSE_PERIODIC)) {
            return "periodic capture";
        }
        if (hasFlag(SNAPSHOT_CAUSE_SHUTDOWN)) {
            return "JVM exit";
        }
        return "on request";
    }

    private void addIf(List<String> names, long flag, String name) {
        if (hasFlag(flag)) {
            names.add(name);
        }
    }
}
