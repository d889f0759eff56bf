package com.kestrix.tools.snapshot;

import java.util.Arrays;
import java.util.HashMap;
import java.util.Map;

/**
 * The rows of one table as the snapshot holds them, in stream order (ascending row index). Kept
 * column by column, because the tables of a long profile run to millions of rows and a row object
 * each would cost several times the file's size in memory.
 */
public final class Table {
    private final TableLayout myLayout;
    private int mySize;
    private int[] myIndices;
    private int[] myStamps;
    /** Per field: the int column of a 4-byte field, else null. */
    private final int[][] myInts;
    /** Per field: the long column of an 8-byte field, else null. */
    private final long[][] myLongs;
    private String[] myTexts;
    private int[] myRowByIndex;
    private Map<Integer, Integer> mySparseRowByIndex;

    Table(TableLayout layout, int capacity) {
        myLayout = layout;
        int initial = Math.max(1, capacity);
        myIndices = new int[initial];
        myStamps = new int[initial];
        int fields = layout.widths.length;
        myInts = new int[fields][];
        myLongs = new long[fields][];
        for (int f = 0; f < fields; f++) {
            if (layout.widths[f] == 4) {
                myInts[f] = new int[initial];
            } else {
                myLongs[f] = new long[initial];
            }
        }
        if (layout == TableLayout.STRING) {
            myTexts = new String[initial];
        }
    }

    public TableLayout layout() {
        return myLayout;
    }

    public int size() {
        return mySize;
    }

    /** The row index (the record's number in the agent's table) of the row at this position. */
    public int index(int row) {
        return myIndices[row];
    }

    /** Positive: changed at that stamp; negative: deleted at it. */
    public int stamp(int row) {
        return myStamps[row];
    }

    public boolean isDeleted(int row) {
        return myStamps[row] < 0;
    }

    public int getInt(int row, int field) {
        if (myInts[field] == null) {
            throw new IllegalArgumentException(myLayout.fieldNames.get(field) + " is a 64-bit field");
        }
        return myInts[field][row];
    }

    /** Any field, widened to long. */
    public long getLong(int row, int field) {
        return myInts[field] != null ? myInts[field][row] : myLongs[field][row];
    }

    /** The text of a string row; null once the string was deleted. */
    public String text(int row) {
        return myTexts[row];
    }

    /** The position of the row with this index, or -1 if the table has no such row. */
    public int rowOf(int index) {
        if (myRowByIndex == null && mySparseRowByIndex == null) {
            buildIndex();
        }
        if (myRowByIndex != null) {
            return index >= 0 && index < myRowByIndex.length ? myRowByIndex[index] : -1;
        }
        Integer row = mySparseRowByIndex.get(index);
        return row == null ? -1 : row;
    }

    private void buildIndex() {
        int max = -1;
        for (int i = 0; i < mySize; i++) {
            max = Math.max(max, myIndices[i]);
        }
        // Indices are dense in every table the agent writes; a map guards against odd files.
        if (max < 4L * mySize + 1024) {
            int[] rows = new int[max + 1];
            Arrays.fill(rows, -1);
            for (int i = 0; i < mySize; i++) {
                rows[myIndices[i]] = i;
            }
            myRowByIndex = rows;
        } else {
            Map<Integer, Integer> rows = new HashMap<>();
            for (int i = 0; i < mySize; i++) {
                rows.put(myIndices[i], i);
            }
            mySparseRowByIndex = rows;
        }
    }

    void add(int index, int stamp, long[] values, String text) {
        if (mySize == myIndices.length) {
            grow();
        }
        myIndices[mySize] = index;
        myStamps[mySize] = stamp;
        for (int f = 0; f < values.length; f++) {
            if (myInts[f] != null) {
                myInts[f][mySize] = (int) values[f];
            } else {
                myLongs[f][mySize] = values[f];
            }
        }
        if (myTexts != null) {
            myTexts[mySize] = text;
        }
        mySize++;
        myRowByIndex = null;
        mySparseRowByIndex = null;
    }

    private void grow() {
        int capacity = myIndices.length * 2;
        myIndices = Arrays.copyOf(myIndices, capacity);
        myStamps = Arrays.copyOf(myStamps, capacity);
        for (int f = 0; f < myInts.length; f++) {
            if (myInts[f] != null) {
                myInts[f] = Arrays.copyOf(myInts[f], capacity);
            } else {
                myLongs[f] = Arrays.copyOf(myLongs[f], capacity);
            }
        }
        if (myTexts != null) {
            myTexts = Arrays.copyOf(myTexts, capacity);
        }
    }
}
