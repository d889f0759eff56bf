package com.kestrix;

import java.io.File;

/**
 * The UI-side entry to the agent library. The profiler UI loads libkjpagent.so into its own
 * process for the natives that hold a snapshot's tables and object graph; this class is where
 * those natives are declared.
 */
public final class Natives {
    /** System property naming the agent library file; when absent, java.library.path is searched. */
    public static final String LIBRARY_PROPERTY = "kjp.agent.library";

    // Table ids of the record database: the position of a table, the bit of a table mask and
    // the number in a table stream.
    public static final int TABLE_STRING = 0;
    public static final int TABLE_THREAD = 1;
    public static final int TABLE_METHOD = 2;
    public static final int TABLE_THREADFRAME = 3;
    public static final int TABLE_J2EE = 4;
    public static final int TABLE_MONITOR = 5;
    public static final int TABLE_CPUPROFILING = 6;
    public static final int TABLE_INSTANCECOUNTS = 7;
    public static final int TABLE_FRAME = 8;
    public static final int TABLE_TABLEGENERATION = 9;
    public static final int TABLE_SNAPSHOT = 10;
    public static final int TABLE_ALLOCINFO = 11;
    public static final int TABLE_ALLOCATOR = 12;
    public static final int TABLE_GENERATION = 13;
    public static final int TABLE_PROPERTIES = 14;
    public static final int TABLE_TELE = 15;
    public static final int TABLE_THREADSTATE = 16;
    public static final int TABLE_EXCEPTION = 17;
    public static final int TABLE_COUNT = 18;

    // Field ids for dbNget/dbNset{Int,Long}FieldImpl. The 64-bit fields, marked, go through the
    // long natives; the others through the int natives.
    public static final int FIELD_STRING_TEXT = 0;  // 64-bit
    public static final int FIELD_THREAD_NAME_STR_ID = 1;
    public static final int FIELD_THREAD_GROUP_STR_ID = 2;
    public static final int FIELD_THREAD_INDEX_FOR_TFI = 3;
    public static final int FIELD_THREAD_RUNNING_NUMBER = 4;
    public static final int FIELD_THREAD_THREAD_ID = 5;  // 64-bit
    public static final int FIELD_METHOD_NAME_STR_ID = 6;
    public static final int FIELD_METHOD_SIGNATURE_STR_ID = 7;
    public static final int FIELD_METHOD_CLASS_NAME_STR_ID = 8;
    public static final int FIELD_METHOD_FLAGS = 9;
    public static final int FIELD_THREADFRAME_THREAD_INDEX_FOR_TFI = 10;
    public static final int FIELD_THREADFRAME_FRAME_ID = 11;
    public static final int FIELD_J2EE_THREAD = 12;
    public static final int FIELD_J2EE_FRAME = 13;
    public static final int FIELD_J2EE_STR_ID = 14;
    public static final int FIELD_J2EE_KIND = 15;
    public static final int FIELD_J2EE_TIME_NS = 16;  // 64-bit
    public static final int FIELD_J2EE_COUNT = 17;  // 64-bit
    public static final int FIELD_MONITOR_THREAD = 18;
    public static final int FIELD_MONITOR_FRAME = 19;
    public static final int FIELD_MONITOR_OWNER = 20;
    public static final int FIELD_MONITOR_CLASS_NAME_STR_ID = 21;
    public static final int FIELD_MONITOR_TIME_NS = 22;  // 64-bit
    public static final int FIELD_MONITOR_COUNT = 23;  // 64-bit
    public static final int FIELD_CPUPROFILING_TIME = 24;  // 64-bit
    public static final int FIELD_CPUPROFILING_COUNT = 25;  // 64-bit
    public static final int FIELD_INSTANCECOUNTS_CLASS_NAME_STR_ID = 26;
    public static final int FIELD_INSTANCECOUNTS_COUNT = 27;
    public static final int FIELD_INSTANCECOUNTS_SIZE = 28;  // 64-bit
    public static final int FIELD_FRAME_PARENT = 29;
    public static final int FIELD_FRAME_CALLEE = 30;
    public static final int FIELD_FRAME_FIRST_CHILD = 31;
    public static final int FIELD_FRAME_NEXT_SIBLING = 32;
    public static final int FIELD_SNAPSHOT_PATH_STR_ID = 33;
    public static final int FIELD_SNAPSHOT_FLAGS = 34;  // 64-bit
    public static final int FIELD_ALLOCINFO_COUNT = 35;  // 64-bit
    public static final int FIELD_ALLOCINFO_SIZE = 36;  // 64-bit
    public static final int FIELD_ALLOCATOR_THREAD = 37;
    public static final int FIELD_ALLOCATOR_FRAME = 38;
    public static final int FIELD_ALLOCATOR_OBJECT_INDEX = 39;
    public static final int FIELD_GENERATION_TYPE = 40;
    public static final int FIELD_GENERATION_DESCRIPTION_STR_ID = 41;
    public static final int FIELD_GENERATION_UPTIME_MS = 42;  // 64-bit
    public static final int FIELD_PROPERTIES_NAME_STR_ID = 43;
    public static final int FIELD_PROPERTIES_VALUE = 44;
    public static final int FIELD_THREADSTATE_THREAD = 45;
    public static final int FIELD_THREADSTATE_FRAME = 46;
    public static final int FIELD_THREADSTATE_STATE = 47;
    public static final int FIELD_THREADSTATE_CPU_TIME_NS = 48;  // 64-bit
    public static final int FIELD_EXCEPTION_THREAD = 49;
    public static final int FIELD_EXCEPTION_THROW_FRAME = 50;
    public static final int FIELD_EXCEPTION_CATCH_FRAME = 51;
    public static final int FIELD_EXCEPTION_CLASS_NAME_STR_ID = 52;
    public static final int FIELD_EXCEPTION_COUNT = 53;  // 64-bit
    public static final int FIELD_COUNT = 54;

    // Positions of the values of a telemetry row, for dbNget/dbNsetTeleValueImpl, and of the
    // property rows of the telemetry constants: the TELE_ and TELEC_ constants of
    // com.kestrix.api.TelemetryRecord, shared with the agent's runtime.

    private static boolean ourLoaded;

    private Natives() {
    }

    /**
     * Loads the agent library once. The file named by {@link #LIBRARY_PROPERTY} wins over the
     * library path, so that tools and tests can point at a build directory.
     */
    public static synchronized void load() {
        if (ourLoaded) {
            return;
        }
        String explicit = System.getProperty(LIBRARY_PROPERTY);
        if (explicit != null && !explicit.isEmpty()) {
            File file = new File(explicit);
            if (!file.isFile()) {
                throw new UnsatisfiedLinkError("Kestrix agent library not found: " + file.getAbsolutePath());
            }
            System.load(file.getAbsolutePath());
        } else {
            System.loadLibrary("kjpagent");
        }
        ourLoaded = true;
    }

    // The record database of an opened snapshot. A database is a native object named by the long
    // that dbNcreateNativeDatabaseImpl returns; it lives until dbNdeleteNativeDatabaseImpl. Rows
    // are filled field by field and become visible once stamped. None of these natives locks:
    // a database belongs to the one thread that uses it.

    /** A new, empty database; telemetry rows further apart than the limit are dropped, -1 keeps all. */
    public static native long dbNcreateNativeDatabaseImpl(int telemetryLimit);

    /** Frees the database; 0 is ignored. */
    public static native void dbNdeleteNativeDatabaseImpl(long db);

    /** The string's index in the string table, interning it when create is set; 0 for null or unknown. */
    public static native int dbNgetStrIDImpl(long db, String text, boolean create);

    /** Binds the string to a given index of the string table. */
    public static native void dbNsetStringImpl(long db, int index, String text);

    /** The text of a string row, or null when the row has none. */
    public static native String dbNgetStringImpl(long db, int index);

    public static native void dbNclearTableImpl(long db, int tableID);

    public static native void dbNsetRecordModificationStampImpl(long db, int tableID, int index, int stamp);

    /** The row's stamp: 0 for a row never stamped, negative for a deleted row. */
    public static native int dbNgetRecordModificationStampImpl(long db, int tableID, int index);

    /** The first index of the table's first allocated chunk of 256 rows, or -1. */
    public static native int dbNgetTableMinIndexImpl(long db, int tableID);

    /** Rows addressable without growing the table. */
    public static native int dbNgetTableCapacityImpl(long db, int tableID);

    public static native int dbNgetNextIndexFromPoolImpl(long db, int tableID);

    public static native void dbNsetIntFieldImpl(long db, int fieldID, int index, int value);

    public static native int dbNgetIntFieldImpl(long db, int fieldID, int index);

    public static native void dbNsetLongFieldImpl(long db, int fieldID, int index, long value);

    public static native long dbNgetLongFieldImpl(long db, int fieldID, int index);

    /** Rebuilds the j2ee event index from the j2ee table. */
    public static native void dbNfillJ2EEIndexImpl(long db);

    /** Rebuilds the thread-frame index from the threadframe table. */
    public static native void dbNfillThreadFrameIndexImpl(long db);

    /** The row of a (thread slot, frame) pair, made when create is set; -1 for an unknown pair. */
    public static native int dbNgetTFIImpl(long db, int threadIndexForTFI, int frame, boolean create);

    public static native void dbNsetTFIFrameIDImpl(long db, int index, int frame);

    public static native int dbNgetTFIFrameIDImpl(long db, int index);

    public static native void dbNsetTFIThreadIndexForTFIImpl(long db, int index, int value);

    public static native int dbNgetTFIThreadIndexForTFIImpl(long db, int index);

    public static native void dbNsetPropertyNameImpl(long db, int index, int nameStrID);

    public static native int dbNgetPropertyNameImpl(long db, int index);

    public static native void dbNsetPropertyValueImpl(long db, int index, int value);

    public static native int dbNgetPropertyValueImpl(long db, int index);

    /**
     * Sets one value of a telemetry row without stamping it. Rows are expected in ascending order,
     * value 0 first: at value 0 the database drops old telemetry exactly as the agent did.
     */
    public static native void dbNsetTeleValueImpl(long db, int index, int valueIndex, int value);

    /** One value of a telemetry row; 0 for a row that is absent, dropped or not stamped. */
    public static native int dbNgetTeleValueImpl(long db, int index, int valueIndex);

    /** A text describing the size and fill of every table. */
    public static native String dbNgetDatabaseStatisticsImpl(long db);

    /**
     * Writes the database to a snapshot file with the given flags, session start time (seconds
     * since 1970) and session name. Returns null on success, else the text of the failure.
     * objectStorage must be 0: re-saving a snapshot together with its object storage is not
     * available and throws a RuntimeException.
     */
    public static native String dbNwriteSnapshotImpl(long db, long objectStorage, String file, long flags,
            long startTime, String sessionName);
}
