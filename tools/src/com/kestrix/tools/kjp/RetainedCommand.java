package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotFormatException;
import com.kestrix.tools.snapshot.SnapshotReader;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/**
 * kjp heap --retained: reads the snapshot with its references, unless a fresh index file of it
 * exists, and computes or loads dominators and retained sizes; with --save the result goes to
 * the index file for the next time.
 */
final class RetainedCommand {
    private RetainedCommand() {
    }

    static Snapshot read(Path file, Progress progress) throws IOException, AgentLibrary.Missing {
        AgentLibrary.load();
        Path index = HeapAnalysis.indexFile(file);
        boolean indexUsable = Files.isRegularFile(index) && Files.isRegularFile(file)
                && Files.getLastModifiedTime(index).compareTo(Files.getLastModifiedTime(file)) >= 0;
        return read(file, !indexUsable, progress);
    }

    private static Snapshot read(Path file, boolean withReferences, Progress progress) throws IOException {
        long size = Files.isRegularFile(file) ? Files.size(file) : 0;
        progress.phase("Reading the heap");
        try {
            return SnapshotReader.read(file, withReferences, offset -> progress.bytes(offset, size));
        } finally {
            progress.done();
        }
    }

    static HeapAnalysis analyse(Snapshot snapshot, boolean save, Progress progress) throws IOException {
        if (snapshot.heap() == null) {
            throw new SnapshotFormatException("has no heap dump: capture one with 'kjp connect HOST:PORT capture "
                    + "--heap', or start the JVM with -agentlib:kjpagent=onexit=memory");
        }
        Path index = HeapAnalysis.indexFile(snapshot.file());
        if (snapshot.heap().references() == null) {
            HeapAnalysis loaded = HeapAnalysis.load(snapshot, index, progress);
            if (loaded != null) {
                return loaded;
            }
            // A stale or foreign index: the references are needed after all.
            snapshot = read(snapshot.file(), true, progress);
        }
        try {
            return HeapAnalysis.compute(snapshot, save ? index : null, progress);
        } catch (RuntimeException e) {
            if ("os::low-disk-space".equals(e.getMessage())) {
                throw new SnapshotFormatException("not enough memory or temporary disk space for the object graph "
                        + "(temporary files go to " + System.getProperty("java.io.tmpdir") + ")");
            }
            throw e;
        } finally {
            progress.done();
        }
    }
}
