package com.kestrix.tools.snapshot;

import java.util.List;

/**
 * The tables of a snapshot by table id, with the fields of their rows after the modification
 * stamp, in stream order. The string table is special: its one field is a length-prefixed text.
 */
public enum TableLayout {
    STRING(0, "string"),
    THREAD(1, "thread", "nameStrID:4", "groupStrID:4", "indexForTFI:4", "runningNumber:4", "threadID:8"),
    METHOD(2, "method", "nameStrID:4", "signatureStrID:4", "classNameStrID:4", "flags:4"),
    THREADFRAME(3, "threadframe", "threadIndexForTFI:4", "frameID:4"),
    J2EE(4, "j2ee", "thread:4", "frame:4", "strID:4", "kind:4", "timeNs:8", "count:8"),
    MONITOR(5, "monitor", "thread:4", "frame:4", "owner:4", "classNameStrID:4", "timeNs:8", "count:8"),
    CPUPROFILING(6, "cpuprofiling", "time:8", "count:8"),
    INSTANCECOUNTS(7, "instancecounts", "classNameStrID:4", "count:4", "size:8"),
    FRAME(8, "frame", "parent:4", "callee:4", "firstChild:4", "nextSibling:4"),
    TABLEGENERATION(9, "tablegeneration"),
    SNAPSHOT(10, "snapshot", "pathStrID:4", "flags:8"),
    ALLOCINFO(11, "allocinfo", "count:8", "size:8"),
    ALLOCATOR(12, "allocator", "thread:4", "frame:4", "objectIndex:4"),
    GENERATION(13, "generation", "type:4", "descriptionStrID:4", "uptimeMs:8"),
    PROPERTIES(14, "properties", "nameStrID:4", "value:4"),
    TELE(15, "tele", "v0:4", "v1:4", "v2:4", "v3:4", "v4:4", "v5:4", "v6:4", "v7:4", "v8:4", "v9:4", "v10:4",
            "v11:4", "v12:4", "v13:4", "v14:4"),
    THREADSTATE(16, "threadstate", "thread:4", "frame:4", "state:4", "cpuTimeNs:8"),
    EXCEPTION(17, "exception", "thread:4", "throwFrame:4", "catchFrame:4", "classNameStrID:4", "count:8");

    public final int id;
    public final String tableName;
    /** Field names after the stamp. */
    public final List<String> fieldNames;
    /** Field widths in bytes, 4 or 8, parallel to {@link #fieldNames}. */
    public final int[] widths;

    TableLayout(int id, String tableName, String... fields) {
        this.id = id;
        this.tableName = tableName;
        this.widths = new int[fields.length];
        String[] names = new String[fields.length];
        for (int i = 0; i < fields.length; i++) {
            int colon = fields[i].indexOf(':');
            names[i] = fields[i].substring(0, colon);
            widths[i] = Integer.parseInt(fields[i].substring(colon + 1));
        }
        this.fieldNames = List.of(names);
    }

    public static final int TABLE_COUNT = 18;

    private static final TableLayout[] BY_ID = values();

    /** The layout of a table id, or null for an id no table has. */
    public static TableLayout byId(int id) {
        return id >= 0 && id < BY_ID.length ? BY_ID[id] : null;
    }

    /** The position of a field among the fields after the stamp. */
    public int field(String name) {
        int position = fieldNames.indexOf(name);
        if (position < 0) {
            throw new IllegalArgumentException("table " + tableName + " has no field " + name);
        }
        return position;
    }
}
