package com.kestrix.tools.snapshot;

import java.io.EOFException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;

/**
 * Reads a snapshot file: the header, then the table stream, forward only, since the format has
 * no directory and no end marker. Whatever is wrong with a file comes out as a
 * SnapshotFormatException that says what and where.
 */
public final class SnapshotReader {
    // Bounds no agent's table reaches, for telling a damaged count from a file cut short.
    private static final int MAX_PLAUSIBLE_ROWS = 1 << 28;
    private static final int MAX_PLAUSIBLE_STAMP = 1 << 28;
    private static final int MAX_PLAUSIBLE_STRING = 1 << 24;

    /** The bytes every snapshot starts with, matched in full. */
    public static final String MAGIC = "Kestrix Java Profiler snapshot, https://github.com/kestrix/kjpagent\u001A";
    public static final char FORMAT_VERSION = '9';

    static final int TABLE_TAG = 42;
    static final int HEAP_TAG = 25;
    static final int INDEX_TAG = 44;

    private static final byte[] MAGIC_BYTES = MAGIC.getBytes(StandardCharsets.ISO_8859_1);
    private static final String HPROF_MAGIC = "JAVA PROFILE ";

    private final Path myFile;
    private final long myFileSize;
    private final SnapshotInput myIn;
    /** What is being read, for messages about a file that ends there. */
    private String myPlace = "the header";

    private boolean myWithReferences;
    private long myIndexOffset = -1;
    private java.util.function.LongConsumer myProgress;

    private SnapshotReader(Path file, long fileSize, InputStream in) {
        myFile = file;
        myFileSize = fileSize;
        myIn = new SnapshotInput(in);
    }

    public static Snapshot read(Path file) throws IOException {
        return read(file, false, null);
    }

    /**
     * With 'withReferences', the heap dump keeps its references ({@link HeapDump#references()});
     * 'progress', if not null, hears how far into the file reading has come, in bytes.
     */
    public static Snapshot read(Path file, boolean withReferences, java.util.function.LongConsumer progress)
            throws IOException {
        long size;
        try {
            size = Files.size(file);
        } catch (NoSuchFileException e) {
            throw new SnapshotFormatException("no such file");
        }
        if (Files.isDirectory(file)) {
            throw new SnapshotFormatException("is a directory, not a snapshot file");
        }
        try (InputStream in = Files.newInputStream(file)) {
            SnapshotReader reader = new SnapshotReader(file, size, in);
            reader.myWithReferences = withReferences;
            reader.myProgress = progress;
            return reader.readSnapshot();
        }
    }

    private Snapshot readSnapshot() throws IOException {
        try {
            SnapshotHeader header = readHeader();
            Table[] tables = new Table[TableLayout.TABLE_COUNT];
            HeapDump heap = readSections(header, tables);
            return new Snapshot(myFile, header, tables, heap, myIndexOffset);
        } catch (EOFException e) {
            throw new SnapshotFormatException(
                    "the file is truncated: it ends after " + myFileSize + " bytes, in " + myPlace);
        } catch (RuntimeException e) {
            // Whatever a damaged file makes of the reader, the user hears where, not how.
            throw new SnapshotFormatException("the file is damaged: " + myPlace + " at offset " + myIn.offset()
                    + " cannot be read (" + e + ")");
        }
    }

    private SnapshotHeader readHeader() throws IOException {
        byte[] magic = new byte[MAGIC_BYTES.length];
        int available = (int) Math.min(magic.length, myFileSize);
        myIn.readFully(magic, available);
        for (int i = 0; i < available; i++) {
            if (magic[i] != MAGIC_BYTES[i]) {
                throw foreignFile(magic, available);
            }
        }
        if (available < MAGIC_BYTES.length) {
            if (available == 0) {
                throw new SnapshotFormatException("the file is empty");
            }
            throw new SnapshotFormatException(
                    "the file is truncated: it ends after " + myFileSize + " bytes, in the header");
        }
        myPlace = "the header (format version)";
        int version = myIn.readByte();
        if (version != FORMAT_VERSION) {
            throw new SnapshotFormatException("unsupported snapshot format version " + describeByte(version)
                    + "; this tool reads version " + FORMAT_VERSION);
        }
        myPlace = "the header (creator)";
        String creator = readString();
        myPlace = "the header (start time, snapshot number, flags)";
        long startTime = myIn.readLong();
        int number = myIn.readInt();
        int oidWidth = myIn.readInt();
        long reserved = myIn.readLong();
        long flags = myIn.readLong();
        long captureTime = myIn.readLong();
        myPlace = "the header (session name)";
        String sessionName = readString();
        if (oidWidth != 4 && oidWidth != 8) {
            throw new SnapshotFormatException("the header is damaged: object id width " + oidWidth
                    + " (expected 4 or 8)");
        }
        return new SnapshotHeader((char) version, creator == null ? "" : creator, startTime, number, oidWidth,
                reserved, flags, captureTime, sessionName == null ? "" : sessionName);
    }

    private SnapshotFormatException foreignFile(byte[] start, int length) {
        String text = new String(start, 0, length, StandardCharsets.ISO_8859_1);
        if (text.startsWith(HPROF_MAGIC)) {
            return new SnapshotFormatException("this is a JVM heap dump in HPROF format, not a Kestrix Java Profiler "
                    + "snapshot; open it with a heap dump analyzer");
        }
        return new SnapshotFormatException("not a Kestrix Java Profiler snapshot: the file does not start with the "
                + "snapshot signature \"Kestrix Java Profiler snapshot, \"");
    }

    /** The tables into 'tables'; the heap, or null when the file has none. */
    private HeapDump readSections(SnapshotHeader header, Table[] tables) throws IOException {
        HeapDump heap = null;
        while (true) {
            myPlace = "the table stream";
            if (myIn.atEnd()) {
                return heap;
            }
            long tagOffset = myIn.offset();
            int tag = myIn.readByte();
            if (tag == INDEX_TAG) {
                // The analysis index that ends a re-saved snapshot; the tables are complete here.
                myIndexOffset = myIn.offset();
                return heap;
            }
            if (tag == HEAP_TAG && heap == null) {
                myPlace = "the heap dump";
                HeapReader reader = new HeapReader(myIn, myFileSize, header.oidWidth(), myWithReferences, myProgress);
                heap = reader.read();
                if (!reader.endedAtTable()) {
                    return heap;
                }
                readTable(tables, myIn.offset() - 1);
                continue;
            }
            if (tag != TABLE_TAG) {
                throw new SnapshotFormatException("the file is damaged: byte " + describeByte(tag) + " at offset "
                        + tagOffset + " where a table (tag 42) was expected");
            }
            readTable(tables, tagOffset);
        }
    }

    private void readTable(Table[] tables, long tagOffset) throws IOException {
        myPlace = "the table stream (table id)";
        int id = myIn.readInt();
        TableLayout layout = TableLayout.byId(id);
        if (layout == null) {
            throw new SnapshotFormatException("the file is damaged: unknown table id " + id + " at offset "
                    + (tagOffset + 1));
        }
        myPlace = "table '" + layout.tableName + "' (row count)";
        int count = myIn.readInt();
        int rowBytes = 8;
        for (int width : layout.widths) {
            rowBytes += width;
        }
        if (layout == TableLayout.STRING) {
            rowBytes += 4;
        }
        long remaining = myFileSize - myIn.offset();
        if (count < 0) {
            throw new SnapshotFormatException("the file is damaged: table '" + layout.tableName + "' has a row count of "
                    + count + " at offset " + (myIn.offset() - 4));
        }
        if ((long) count * rowBytes > remaining) {
            // No agent writes that many rows of a table: the count itself was hit.
            String what = count > MAX_PLAUSIBLE_ROWS ? "the file is damaged" : "the file is truncated";
            throw new SnapshotFormatException(what + ": table '" + layout.tableName + "' announces "
                    + count + " rows at offset " + (myIn.offset() - 4) + ", but the file ends " + remaining
                    + " bytes later");
        }
        Table table = tables[id] != null ? tables[id] : new Table(layout, count);
        tables[id] = table;
        long[] values = new long[layout.widths.length];
        byte[] textBuffer = new byte[256];
        for (int row = 0; row < count; row++) {
            myPlace = "table '" + layout.tableName + "', row " + (row + 1) + " of " + count;
            long rowOffset = myIn.offset();
            int index = myIn.readInt();
            int stamp = myIn.readInt();
            // Out of step with the rows, the reader meets numbers no row has: say so here, where
            // the damage is, rather than when it runs off the end of the file much later.
            if (index < 0 || index > MAX_PLAUSIBLE_ROWS || Math.abs((long) stamp) > MAX_PLAUSIBLE_STAMP) {
                throw new SnapshotFormatException("the file is damaged: " + myPlace + " at offset " + rowOffset
                        + " has row number " + index + " and stamp " + stamp);
            }
            String text = null;
            if (layout == TableLayout.STRING) {
                int length = myIn.readInt();
                if (length < -1) {
                    throw new SnapshotFormatException("the file is damaged: string length " + length + " at offset "
                            + (myIn.offset() - 4));
                }
                if (length > myFileSize - myIn.offset()) {
                    if (length > MAX_PLAUSIBLE_STRING) {
                        throw new SnapshotFormatException("the file is damaged: string length " + length
                                + " at offset " + (myIn.offset() - 4));
                    }
                    throw new EOFException();
                }
                if (length >= 0) {
                    if (length > textBuffer.length) {
                        textBuffer = new byte[Math.max(length, textBuffer.length * 2)];
                    }
                    myIn.readFully(textBuffer, length);
                    text = SnapshotInput.decodeModifiedUtf8(textBuffer, length);
                }
            }
            for (int f = 0; f < values.length; f++) {
                values[f] = layout.widths[f] == 4 ? myIn.readInt() : myIn.readLong();
            }
            table.add(index, stamp, values, text);
        }
    }

    /** A length-prefixed text; null for length -1. */
    private String readString() throws IOException {
        int length = myIn.readInt();
        if (length == -1) {
            return null;
        }
        if (length < -1) {
            throw new SnapshotFormatException("the file is damaged: string length " + length + " at offset "
                    + (myIn.offset() - 4));
        }
        if (length > myFileSize - myIn.offset()) {
            throw new EOFException();
        }
        byte[] bytes = new byte[length];
        myIn.readFully(bytes, length);
        return SnapshotInput.decodeModifiedUtf8(bytes, length);
    }

    private static String describeByte(int value) {
        if (value >= 0x20 && value < 0x7F) {
            return String.format("'%c' (0x%02X)", (char) value, value);
        }
        return String.format("0x%02X", value);
    }
}
