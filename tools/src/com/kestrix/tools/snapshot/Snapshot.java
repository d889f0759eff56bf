package com.kestrix.tools.snapshot;

import java.nio.file.Path;

/** A snapshot file as read: its header and the tables it holds. */
public final class Snapshot {
    private final Path myFile;
    private final SnapshotHeader myHeader;
    private final Table[] myTables;
    private final HeapDump myHeap;
    private final long myIndexOffset;

    Snapshot(Path file, SnapshotHeader header, Table[] tables, HeapDump heap, long indexOffset) {
        myFile = file;
        myHeader = header;
        myTables = tables;
        myHeap = heap;
        myIndexOffset = indexOffset;
    }

    /** Where the body of the index section starts (after its tag), or -1 for a file without one. */
    public long indexOffset() {
        return myIndexOffset;
    }

    /** The heap dump, or null for a snapshot without heap. */
    public HeapDump heap() {
        return myHeap;
    }

    public Path file() {
        return myFile;
    }

    public SnapshotHeader header() {
        return myHeader;
    }

    /** The table, or an empty one when the file doesn't hold it. */
    public Table table(TableLayout layout) {
        Table table = myTables[layout.id];
        return table != null ? table : new Table(layout, 1);
    }

    public boolean hasTable(TableLayout layout) {
        return myTables[layout.id] != null;
    }

    /** The text of a string index; null for 0, for an index the file lacks and for a deleted string. */
    public String string(int index) {
        if (index == 0) {
            return null;
        }
        Table strings = table(TableLayout.STRING);
        int row = strings.rowOf(index);
        return row < 0 ? null : strings.text(row);
    }
}
