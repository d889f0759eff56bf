package com.kestrix.tools.snapshot;

import static com.kestrix.Constants.SNAPSHOT_CAUSE_LOW_MEMORY;
import static com.kestrix.Constants.SNAPSHOT_CAUSE_OOME;
import static com.kestrix.Constants.SNAPSHOT_CAUSE_PERIODIC;
import static com.kestrix.Constants.SNAPSHOT_CAUSE_SHUTDOWN;
import static com.kestrix.Constants.SNAPSHOT_HPROF;
import static com.kestrix.Constants.SNAPSHOT_WITH_COUNTS;
import static com.kestrix.Constants.SNAPSHOT_WITH_HEAP;

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
