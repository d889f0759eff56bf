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
     * since 1970) and session name. Returns null on success, else the text of the failure. With
     * an object storage (not 0) the file also holds the storage's object count and, at its end,
     * the index section with the storage's references and arrays, which {@link #osNreadArrayImpl}
     * loads back without recomputing anything.
     */
    public static native String dbNwriteSnapshotImpl(long db, long objectStorage, String file, long flags,
            long startTime, String sessionName);

    /** While an index section is written: the length the file will reach; 0 otherwise. */
    public static native long getIndexFileFullLength();

    // The object graph of a heap snapshot. A storage is a native object named by the long that
    // osNcreate returns; it lives until osNdelete. Objects are numbered from 1 (index 0 is no
    // object). Every object with a class keeps the class at reference position 0, its fields or
    // elements from position 1. The create natives raise a RuntimeException for an index out of
    // range, and "os::low-disk-space" when the storage's memory or temporary disk space runs out.
    // A storage belongs to one thread at a time.

    /** Array ids of osNreadArrayImpl and of the index section, in this order. */
    public static final int OS_ARRAY_REFS_START_AND_COUNT = 0;
    public static final int OS_ARRAY_REFS = 1;
    public static final int OS_ARRAY_DOMINATOR = 2;
    public static final int OS_ARRAY_SIZE = 3;
    public static final int OS_ARRAY_RETAINED = 4;
    public static final int OS_ARRAY_GENERATION = 5;
    public static final int OS_ARRAY_ALLOCATOR_FRAME = 6;
    public static final int OS_ARRAY_ALLOCATOR_THREAD = 7;
    public static final int OS_ARRAY_META_POSITION = 8;
    public static final int OS_ARRAY_META_LENGTH = 9;
    public static final int OS_ARRAY_ARRAY_LENGTH = 10;
    public static final int OS_ARRAY_PRIMITIVE_POSITION = 11;
    public static final int OS_ARRAY_OID_HIGH = 12;
    public static final int OS_ARRAY_COUNT = 13;

    /**
     * A storage for objectCount - 1 objects (the count includes index 0). forDominators adds the
     * work areas of osNcomputeDominatorsAndRetainedSizesImpl. tempDir, if not null, is where
     * file-backed arrays go.
     */
    public static native long osNcreate(int objectCount, boolean forDominators, String tempDir);

    /** Frees the storage; 0 is ignored. */
    public static native void osNdelete(long os);

    /** A class with refCount reference slots (statics, loader and the like). */
    public static native boolean osNcreateClassImpl(long os, int index, int size, int generation, int refCount);

    /** An instance: its class at position 0, then refCount field slots. */
    public static native boolean osNcreateObjectImpl(long os, int index, int classIndex, int size, int generation,
            int refCount);

    /** An object array: its class at position 0, then length element slots. */
    public static native boolean osNcreateObjectArrayImpl(long os, int index, int classIndex, int size,
            int generation, int length);

    /** A primitive array: its class at position 0 and nothing else. */
    public static native boolean osNcreatePrimArrayImpl(long os, int index, int classIndex, int size,
            int generation, int length);

    /** A multi-dimensional array: the class and the product of dims slots (2 slots without dims). */
    public static native boolean osNcreateArrayExtImpl(long os, int index, int classIndex, int size,
            int generation, int unused, int[] dims);

    public static native void osNsetRefImpl(long os, int object, int target, int position);

    public static native int osNgetRefImpl(long os, int object, int position);

    public static native int osNgetRefCountImpl(long os, int object);

    /** Whether an object was created at this index. */
    public static native boolean osNisObjectValidImpl(long os, int index);

    public static native void osNsetSizeImpl(long os, int index, int size);

    /** The shallow size; -1 where there is no object. */
    public static native int osNgetSizeImpl(long os, int index);

    public static native void osNsetRetainedSizeImpl(long os, int index, long size);

    public static native long osNgetRetainedSizeImpl(long os, int index);

    /** The immediate dominator; 0 for a GC root and for an object no root reaches. */
    public static native int osNgetDominatorImpl(long os, int index);

    public static native int osNgetGenerationImpl(long os, int index);

    public static native void osNsetAllocatorImpl(long os, int index, int thread, int frame);

    /** The allocating thread's running number; -1 for an object whose allocation wasn't recorded. */
    public static native int osNgetAllocatorThreadImpl(long os, int index);

    public static native int osNgetAllocatorFrameImpl(long os, int index);

    /** Where the object's record lies in the snapshot file, and its length. */
    public static native void osNsetMetaImpl(long os, int index, int position, int length);

    public static native int osNgetMetaPositionImpl(long os, int index);

    public static native int osNgetMetaLengthImpl(long os, int index);

    /** The array length; -1 for anything but an array. */
    public static native int osNgetArrayLengthImpl(long os, int index);

    public static native void osNsetPrimitiveDataPositionImpl(long os, int index, long position);

    public static native long osNgetPrimitiveDataPositionImpl(long os, int index);

    public static native void osNsetOIDHighPartImpl(long os, int index, int high);

    public static native int osNgetOIDHighPartImpl(long os, int index);

    /**
     * Bulk load of one of the storage's arrays (ids OS_ARRAY_*): data[k] goes to position from + k
     * for k below to - from. Values equal to the array's default are skipped, so pages holding
     * nothing else are never allocated. False for an unknown id.
     */
    public static native boolean osNreadArrayImpl(long os, int arrayId, int[] data, int from, int to);

    /** Debug output only. */
    public static native void osNunmapImpl(long os);

    /**
     * Builds the back references, which the dominators need: for each object, the objects whose
     * bit in bits is set that refer to it. counts must be zeroed, with an element per object.
     */
    public static native boolean osNcomputeBRTImpl(long os, int[] bits, int[] counts);

    /**
     * Dominators from the given GC roots over the objects whose bit in marks is set, then
     * retained sizes. The storage must have been made for dominators, and osNcomputeBRTImpl run.
     */
    public static native boolean osNcomputeDominatorsAndRetainedSizesImpl(long os, int[] roots, int[] marks);

    /** The sum of the shallow sizes of the objects whose bit is set. */
    public static native long s1(long os, int[] bits);

    /** Sets the bits of everything reachable from the listed objects whose bits are clear. */
    public static native boolean f(long os, int[] objects, int[] bits);

    /**
     * What the group b[from..to) holds exclusively, as bits. The walk from the listed objects
     * enters only objects whose bit is set in exclude (the objects in scope; all others count as
     * reached already). Without a, the group's bits are set first, so the walk cannot pass
     * through it, and the result is the group and what in scope the walk did not reach. With a,
     * a's bits are or-ed in, and the result is what the walk marked.
     */
    public static native boolean f0(long os, int[] a, int[] b, int from, int to, int[] objects, int[] exclude,
            int[] bits);

    // Object ids to dense indices: create with the number of ids, add exactly that many, convert
    // once, then look up. Ranks start at 1; 0 is an id never added.

    public static native long createOIDProcessor(boolean wide, int capacity);

    public static native void processOIDs(long processor, long[] oids, int count);

    public static native void convertOIDsToIndices(long processor);

    public static native int getIndex(long processor, long oid);

    public static native void deleteOIDProcessor(long processor);

    // Profiled applications on this machine, from the shared-memory markers of their agents.

    /** Marker type bits. */
    public static final int MARKER_TYPE_BIT_JAVA = 1;
    public static final int MARKER_TYPE_BIT_IIS = 4;

    /**
     * The ports of live processes whose marker has a bit of typeMask, ascending; entries of
     * processes that have gone are cleared on the way. Null without shared memory.
     */
    public static native int[] fillPorts(int typeMask);

    /** Clears the IIS bit of the port's marker. */
    public static native void clearIIS(int port);
}
