package com.kestrix.tools.kjp;

import com.kestrix.Natives;
import com.kestrix.tools.snapshot.HeapDump;
import com.kestrix.tools.snapshot.ReferenceGraph;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotFormatException;
import com.kestrix.tools.snapshot.SnapshotHeader;
import com.kestrix.tools.snapshot.SnapshotReader;
import java.io.DataInputStream;
import java.io.EOFException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

/**
 * Dominators and retained sizes of a heap dump, computed by the agent library's object storage
 * the way a profiler UI uses it: the objects, their sizes and references poured into the
 * storage, back references, then dominators and retained sizes from the GC roots (every class
 * is a root too). The result can be saved as an index file next to the snapshot, whose arrays a
 * later run loads back instead of computing them again.
 */
final class HeapAnalysis {
    /** Names the index file of a snapshot. */
    static final String INDEX_POSTFIX = ".index";

    final Snapshot mySnapshot;
    final HeapDump myHeap;
    /** Two ints an object: start and count of its slots in myRefs. */
    final int[] myStartAndCount;
    final int[] myRefs;
    /** Immediate dominators; 0 for roots and for what no root reaches. */
    final int[] myDominators;
    final long[] myRetained;
    /** GC roots and classes, each once. */
    final int[] myRoots;
    /** Whether the arrays came from an index file. */
    final boolean myFromIndex;

    private HeapAnalysis(Snapshot snapshot, int[] startAndCount, int[] refs, int[] dominators, long[] retained,
            int[] roots, boolean fromIndex) {
        mySnapshot = snapshot;
        myHeap = snapshot.heap();
        myStartAndCount = startAndCount;
        myRefs = refs;
        myDominators = dominators;
        myRetained = retained;
        myRoots = roots;
        myFromIndex = fromIndex;
    }

    static Path indexFile(Path snapshot) {
        return snapshot.resolveSibling(snapshot.getFileName() + INDEX_POSTFIX);
    }

    /** GC roots, then every class, each object once. */
    static int[] roots(HeapDump heap) {
        boolean[] seen = new boolean[heap.objectCount() + 1];
        int[] roots = new int[heap.roots().size() + heap.classes().size()];
        int count = 0;
        for (HeapDump.Root root : heap.roots()) {
            if (!seen[root.oid()]) {
                seen[root.oid()] = true;
                roots[count++] = root.oid();
            }
        }
        for (HeapDump.HeapClass c : heap.classes()) {
            if (!seen[c.oid()]) {
                seen[c.oid()] = true;
                roots[count++] = c.oid();
            }
        }
        return Arrays.copyOf(roots, count);
    }

    /**
     * Computes from a heap read with its references. With 'saveTo', the storage is written there
     * as a snapshot with an index section.
     */
    static HeapAnalysis compute(Snapshot snapshot, Path saveTo, Progress progress) throws IOException {
        HeapDump heap = snapshot.heap();
        ReferenceGraph graph = heap.references();
        int n = heap.objectCount();
        int[] roots = roots(heap);
        long os = createStorage(n);
        try {
            int[] sizes = new int[n + 1];
            for (int oid = 0; oid <= n; oid++) {
                sizes[oid] = heap.kind(oid) == HeapDump.NONE ? -1 : (int) Math.min(heap.size(oid), Integer.MAX_VALUE);
            }
            Natives.osNreadArrayImpl(os, Natives.OS_ARRAY_SIZE, sizes, 0, n + 1);
            Natives.osNreadArrayImpl(os, Natives.OS_ARRAY_REFS_START_AND_COUNT, graph.startAndCount(), 0,
                    2 * (n + 1));
            Natives.osNreadArrayImpl(os, Natives.OS_ARRAY_REFS, graph.refs(), 0, graph.refs().length);
            int[] all = new int[(n + 1 >> 5) + 1];
            Arrays.fill(all, -1);
            progress.phase("Computing dominators and retained sizes");
            Natives.osNcomputeBRTImpl(os, all, new int[n + 1]);
            Natives.osNcomputeDominatorsAndRetainedSizesImpl(os, roots, all);
            if (saveTo != null) {
                save(os, snapshot.header(), saveTo);
            }
            HeapAnalysis analysis = new HeapAnalysis(snapshot, graph.startAndCount(), graph.refs(), new int[n + 1],
                    new long[n + 1], roots, false);
            analysis.readResults(os);
            progress.done();
            return analysis;
        } finally {
            Natives.osNdelete(os);
        }
    }

    private static long createStorage(int objects) throws SnapshotFormatException {
        try {
            return Natives.osNcreate(objects + 1, true, System.getProperty("java.io.tmpdir"));
        } catch (RuntimeException e) {
            throw new SnapshotFormatException("cannot hold the object graph: " + e.getMessage());
        }
    }

    private void readResults(long os) {
        for (int oid = 1; oid < myDominators.length; oid++) {
            myDominators[oid] = Natives.osNgetDominatorImpl(os, oid);
            myRetained[oid] = Natives.osNgetRetainedSizeImpl(os, oid);
        }
    }

    private static void save(long os, SnapshotHeader header, Path file) throws IOException {
        long db = Natives.dbNcreateNativeDatabaseImpl(-1);
        try {
            String failure = Natives.dbNwriteSnapshotImpl(db, os, file.toString(), header.flags(), header.startTimeSeconds(),
                    header.sessionName());
            if (failure != null) {
                throw new IOException("cannot write " + file + ": " + failure);
            }
        } finally {
            Natives.dbNdeleteNativeDatabaseImpl(db);
        }
    }

    /**
     * Loads the arrays of an index file written for this heap; null when the file is missing,
     * older than the snapshot or made for another heap, so that the caller computes afresh.
     */
    static HeapAnalysis load(Snapshot snapshot, Path indexFile, Progress progress) throws IOException {
        if (!Files.isRegularFile(indexFile)
                || Files.getLastModifiedTime(indexFile).compareTo(Files.getLastModifiedTime(snapshot.file())) < 0) {
            return null;
        }
        HeapDump heap = snapshot.heap();
        Snapshot index;
        try {
            index = SnapshotReader.read(indexFile);
        } catch (SnapshotFormatException e) {
            return null;
        }
        if (index.indexOffset() < 0 || index.heap() == null || index.heap().objectCount() != heap.objectCount()) {
            return null;
        }
        progress.phase("Loading the index " + indexFile.getFileName());
        int n = heap.objectCount();
        long os = createStorage(n);
        try (InputStream in = Files.newInputStream(indexFile)) {
            in.skipNBytes(index.indexOffset());
            DataInputStream data = new DataInputStream(new java.io.BufferedInputStream(in, 1 << 20));
            if (Integer.reverseBytes(data.readInt()) != Natives.OS_ARRAY_COUNT) {
                return null;
            }
            int[] startAndCount = readArray(data, os, Natives.OS_ARRAY_REFS_START_AND_COUNT, 2 * (n + 1));
            long slots = 0;
            for (int oid = 0; oid <= n; oid++) {
                slots = Math.max(slots, (long) startAndCount[2 * oid] + startAndCount[2 * oid + 1]);
            }
            int[] refs = readArray(data, os, Natives.OS_ARRAY_REFS, (int) slots);
            for (int id = Natives.OS_ARRAY_DOMINATOR; id < Natives.OS_ARRAY_COUNT; id++) {
                readArray(data, os, id, -1);
            }
            HeapAnalysis analysis = new HeapAnalysis(snapshot, startAndCount, refs, new int[n + 1], new long[n + 1],
                    roots(heap), true);
            analysis.readResults(os);
            progress.done();
            return analysis.isConsistent() ? analysis : null;
        } catch (EOFException | RuntimeException e) {
            // A damaged index: what the storage refused, or numbers no index holds.
            return null;
        } finally {
            Natives.osNdelete(os);
        }
    }

    /**
     * One array of the index section into the storage; with 'keep' at or above 0, also returned
     * as a Java array of that length.
     */
    private static int[] readArray(DataInputStream in, long os, int id, int keep) throws IOException {
        // The first array is one segment of its known length, every other one pages of 1M ints.
        int longest = id == Natives.OS_ARRAY_REFS_START_AND_COUNT ? keep : 1 << 20;
        int[] kept = keep >= 0 ? new int[keep] : null;
        byte[] bytes = new byte[0];
        while (true) {
            int start = Integer.reverseBytes(in.readInt());
            int end = Integer.reverseBytes(in.readInt());
            if (start == -1 && end == -1) {
                return kept;
            }
            if (start < 0 || end < start || end - start > longest) {
                throw new EOFException();
            }
            int count = end - start;
            if (bytes.length < 4 * count) {
                bytes = new byte[4 * count];
            }
            in.readFully(bytes, 0, 4 * count);
            int[] values = new int[count];
            ByteBuffer.wrap(bytes, 0, 4 * count).order(ByteOrder.LITTLE_ENDIAN).asIntBuffer().get(values);
            Natives.osNreadArrayImpl(os, id, values, start, end);
            if (kept != null && start < kept.length) {
                // A page may reach beyond the last slot in use.
                System.arraycopy(values, 0, kept, start, Math.min(end, kept.length) - start);
            }
        }
    }

    /** Whether the loaded runs of references and the dominators stay within the heap. */
    private boolean isConsistent() {
        int n = myHeap.objectCount();
        for (int oid = 0; oid <= n; oid++) {
            int start = myStartAndCount[2 * oid];
            int count = myStartAndCount[2 * oid + 1];
            if (start < 0 || count < 0 || (long) start + count > myRefs.length || myDominators[oid] < 0
                    || myDominators[oid] > n) {
                return false;
            }
        }
        for (int target : myRefs) {
            if (target < 0 || target > n) {
                return false;
            }
        }
        return true;
    }

    boolean isClass(int oid) {
        return myHeap.kind(oid) == HeapDump.CLASS;
    }

    /** The references of an object: slots [start, start + count) of myRefs. */
    int slotStart(int oid) {
        return myStartAndCount[2 * oid];
    }

    int slotCount(int oid) {
        return myStartAndCount[2 * oid + 1];
    }
}
