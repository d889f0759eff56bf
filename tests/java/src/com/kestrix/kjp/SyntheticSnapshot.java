package com.kestrix.kjp;

import com.kestrix.Natives;
import java.nio.file.Path;

/**
 * A snapshot with exactly the rows a test puts in, written by the agent library's own record
 * database and snapshot writer (the natives the profiler UI uses to re-save a snapshot), so the
 * file has the layout the agent gives it without a JVM having to produce those figures.
 */
final class SyntheticSnapshot implements AutoCloseable {
    private final long myDb;
    private int myNextMonitor = 1;
    private int myNextException = 1;
    private int myNextProperty = 1;
    private int myNextJ2EE = 1;

    SyntheticSnapshot() {
        Natives.load();
        myDb = Natives.dbNcreateNativeDatabaseImpl(1);
    }

    int string(String text) {
        return Natives.dbNgetStrIDImpl(myDb, text, true);
    }

    void thread(int runningNumber, String name) {
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_THREAD_NAME_STR_ID, runningNumber, string(name));
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_THREAD_GROUP_STR_ID, runningNumber, string("main"));
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_THREAD_RUNNING_NUMBER, runningNumber, runningNumber);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_THREAD_INDEX_FOR_TFI, runningNumber, runningNumber);
        stamp(Natives.TABLE_THREAD, runningNumber);
    }

    void method(int index, String className, String name, String descriptor) {
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_METHOD_CLASS_NAME_STR_ID, index, string(className));
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_METHOD_NAME_STR_ID, index, string(name));
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_METHOD_SIGNATURE_STR_ID, index, string(descriptor));
        stamp(Natives.TABLE_METHOD, index);
    }

    /** A node of the call tree: 'method' called from the node 'parent' (0 for the root). */
    void frame(int index, int parent, int method) {
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_FRAME_PARENT, index, parent);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_FRAME_CALLEE, index, method);
        stamp(Natives.TABLE_FRAME, index);
    }

    /**
     * CPU data of a thread (by its running number, which is also its slot here) at a frame: the
     * time with the callees', and the invocations. 'pair' numbers the thread-frame pair.
     */
    void cpu(int pair, int thread, int frame, long timeNs, long count) {
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_THREADFRAME_THREAD_INDEX_FOR_TFI, pair, thread);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_THREADFRAME_FRAME_ID, pair, frame);
        stamp(Natives.TABLE_THREADFRAME, pair);
        Natives.dbNsetLongFieldImpl(myDb, Natives.FIELD_CPUPROFILING_TIME, pair, timeNs);
        Natives.dbNsetLongFieldImpl(myDb, Natives.FIELD_CPUPROFILING_COUNT, pair, count);
        stamp(Natives.TABLE_CPUPROFILING, pair);
    }

    void monitor(int thread, int frame, int owner, String className, long timeNs, long count) {
        int row = myNextMonitor++;
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_MONITOR_THREAD, row, thread);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_MONITOR_FRAME, row, frame);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_MONITOR_OWNER, row, owner);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_MONITOR_CLASS_NAME_STR_ID, row, string(className));
        Natives.dbNsetLongFieldImpl(myDb, Natives.FIELD_MONITOR_TIME_NS, row, timeNs);
        Natives.dbNsetLongFieldImpl(myDb, Natives.FIELD_MONITOR_COUNT, row, count);
        stamp(Natives.TABLE_MONITOR, row);
    }

    /** A row as the agent leaves one behind when it folds a dead thread's rows: zeroed, stamp negated. */
    void foldedMonitor() {
        int row = myNextMonitor++;
        Natives.dbNsetRecordModificationStampImpl(myDb, Natives.TABLE_MONITOR, row, -1);
    }

    void exception(int thread, int throwFrame, int catchFrame, String className, long count) {
        int row = myNextException++;
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_EXCEPTION_THREAD, row, thread);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_EXCEPTION_THROW_FRAME, row, throwFrame);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_EXCEPTION_CATCH_FRAME, row, catchFrame);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_EXCEPTION_CLASS_NAME_STR_ID, row, string(className));
        Natives.dbNsetLongFieldImpl(myDb, Natives.FIELD_EXCEPTION_COUNT, row, count);
        stamp(Natives.TABLE_EXCEPTION, row);
    }

    /** A J2EE event row: 'text' is the SQL, URI or JNDI name, 'kind' the J2EE method type. */
    void j2ee(int thread, int frame, String text, int kind, long timeNs, long count) {
        int row = myNextJ2EE++;
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_J2EE_THREAD, row, thread);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_J2EE_FRAME, row, frame);
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_J2EE_STR_ID, row, string(text));
        Natives.dbNsetIntFieldImpl(myDb, Natives.FIELD_J2EE_KIND, row, kind);
        Natives.dbNsetLongFieldImpl(myDb, Natives.FIELD_J2EE_TIME_NS, row, timeNs);
        Natives.dbNsetLongFieldImpl(myDb, Natives.FIELD_J2EE_COUNT, row, count);
        stamp(Natives.TABLE_J2EE, row);
    }

    /** A property holding a plain number, as the agent stores the length of monitor recording. */
    void numberProperty(String name, int value) {
        int row = myNextProperty++;
        Natives.dbNsetPropertyNameImpl(myDb, row, string(name));
        Natives.dbNsetPropertyValueImpl(myDb, row, value);
        stamp(Natives.TABLE_PROPERTIES, row);
    }

    /** The two 32-bit halves under which the agent stores how long monitor profiling ran. */
    void monitorRecording(long durationNs) {
        numberProperty("kjp.monitor.profiling.duration.ns.low", (int) durationNs);
        numberProperty("kjp.monitor.profiling.duration.ns.high", (int) (durationNs >>> 32));
    }

    Path write(Path file) {
        return write(file, 0);
    }

    /** The same with more header flags, such as SNAPSHOT_WITH_COUNTS for a traced run. */
    Path write(Path file, long moreFlags) {
        String failure = Natives.dbNwriteSnapshotImpl(myDb, 0L, file.toString(), 32L | moreFlags, 1234567890L,
                "Synthetic");
        if (failure != null) {
            throw new IllegalStateException("writing " + file + ": " + failure);
        }
        return file;
    }

    private void stamp(int table, int index) {
        Natives.dbNsetRecordModificationStampImpl(myDb, table, index, 1);
    }

    @Override
    public void close() {
        Natives.dbNdeleteNativeDatabaseImpl(myDb);
    }
}
