package com.kestrix.db;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.Natives;
import com.kestrix.api.TelemetryRecord;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Set;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The UI's own record database, driven through the natives of the agent library. */
class DBNativesTest {
    private static final Set<Integer> LONG_FIELDS = Set.of(
            Natives.FIELD_THREAD_THREAD_ID, Natives.FIELD_J2EE_TIME_NS, Natives.FIELD_J2EE_COUNT,
            Natives.FIELD_MONITOR_TIME_NS, Natives.FIELD_MONITOR_COUNT, Natives.FIELD_CPUPROFILING_TIME,
            Natives.FIELD_CPUPROFILING_COUNT, Natives.FIELD_INSTANCECOUNTS_SIZE, Natives.FIELD_SNAPSHOT_FLAGS,
            Natives.FIELD_ALLOCINFO_COUNT, Natives.FIELD_ALLOCINFO_SIZE, Natives.FIELD_GENERATION_UPTIME_MS,
            Natives.FIELD_THREADSTATE_CPU_TIME_NS, Natives.FIELD_EXCEPTION_COUNT);

    private long db;

    @BeforeAll
    static void loadLibrary() {
        Natives.load();
    }

    @BeforeEach
    void createDatabase() {
        db = Natives.dbNcreateNativeDatabaseImpl(3600);
        assertNotEquals(0L, db);
    }

    @AfterEach
    void deleteDatabase() {
        Natives.dbNdeleteNativeDatabaseImpl(db);
        Natives.dbNdeleteNativeDatabaseImpl(0L);
    }

    @Test
    void rowsAreFilledFieldByFieldReadBackAndAppearOnceStamped() {
        for (int table = 0; table < Natives.TABLE_COUNT; table++) {
            int expectedCapacity = table == Natives.TABLE_METHOD ? 10486016 : 1280;
            assertEquals(expectedCapacity, Natives.dbNgetTableCapacityImpl(db, table), "table " + table);
            assertEquals(-1, Natives.dbNgetTableMinIndexImpl(db, table), "table " + table);
        }
        // A plain database has no pseudo-threads and no telemetry constant rows.
        assertEquals(1, Natives.dbNgetNextIndexFromPoolImpl(db, Natives.TABLE_THREAD));
        assertEquals(0, Natives.dbNgetNextIndexFromPoolImpl(db, Natives.TABLE_PROPERTIES));

        for (int field = 1; field < Natives.FIELD_COUNT; field++) {
            if (LONG_FIELDS.contains(field)) {
                long value = ((long) field << 40) | 0x5A5A;
                Natives.dbNsetLongFieldImpl(db, field, 300, value);
                assertEquals(value, Natives.dbNgetLongFieldImpl(db, field, 300), "field " + field);
            } else {
                Natives.dbNsetIntFieldImpl(db, field, 300, 1000 + field);
                assertEquals(1000 + field, Natives.dbNgetIntFieldImpl(db, field, 300), "field " + field);
            }
        }
        // Fields of one table don't overlap: every value is still there after all were written.
        assertEquals(1000 + Natives.FIELD_EXCEPTION_CLASS_NAME_STR_ID,
                Natives.dbNgetIntFieldImpl(db, Natives.FIELD_EXCEPTION_CLASS_NAME_STR_ID, 300));
        assertEquals(1000 + Natives.FIELD_THREAD_RUNNING_NUMBER,
                Natives.dbNgetIntFieldImpl(db, Natives.FIELD_THREAD_RUNNING_NUMBER, 300));
        for (int table = 0; table < Natives.TABLE_COUNT; table++) {
            assertEquals(0, Natives.dbNgetRecordModificationStampImpl(db, table, 300), "table " + table);
        }
        // Row 300 lies in the second chunk of 256 rows.
        assertEquals(256, Natives.dbNgetTableMinIndexImpl(db, Natives.TABLE_THREAD));

        // An int write into a 64-bit field replaces its low half only.
        Natives.dbNsetLongFieldImpl(db, Natives.FIELD_THREAD_THREAD_ID, 1, 0x1111111122222222L);
        Natives.dbNsetIntFieldImpl(db, Natives.FIELD_THREAD_THREAD_ID, 1, 0x33333333);
        assertEquals(0x1111111133333333L, Natives.dbNgetLongFieldImpl(db, Natives.FIELD_THREAD_THREAD_ID, 1));

        Natives.dbNsetRecordModificationStampImpl(db, Natives.TABLE_THREAD, 300, 7);
        assertEquals(7, Natives.dbNgetRecordModificationStampImpl(db, Natives.TABLE_THREAD, 300));
        Natives.dbNsetRecordModificationStampImpl(db, Natives.TABLE_THREAD, 2000, -3);
        assertEquals(-3, Natives.dbNgetRecordModificationStampImpl(db, Natives.TABLE_THREAD, 2000));
        assertEquals(2048, Natives.dbNgetTableCapacityImpl(db, Natives.TABLE_THREAD));
        assertEquals(0, Natives.dbNgetRecordModificationStampImpl(db, Natives.TABLE_THREAD, 99999));

        // The frame table's links start at -1.
        assertEquals(-1, Natives.dbNgetIntFieldImpl(db, Natives.FIELD_FRAME_PARENT, 5));
        assertEquals(0, Natives.dbNgetIntFieldImpl(db, Natives.FIELD_FRAME_CALLEE, 5));

        Natives.dbNsetPropertyNameImpl(db, 2, 17);
        Natives.dbNsetPropertyValueImpl(db, 2, -8);
        assertEquals(17, Natives.dbNgetPropertyNameImpl(db, 2));
        assertEquals(-8, Natives.dbNgetPropertyValueImpl(db, 2));
        assertEquals(17, Natives.dbNgetIntFieldImpl(db, Natives.FIELD_PROPERTIES_NAME_STR_ID, 2));

        Natives.dbNclearTableImpl(db, Natives.TABLE_THREAD);
        assertEquals(-1, Natives.dbNgetTableMinIndexImpl(db, Natives.TABLE_THREAD));
        assertEquals(2048, Natives.dbNgetTableCapacityImpl(db, Natives.TABLE_THREAD));
        assertEquals(0, Natives.dbNgetRecordModificationStampImpl(db, Natives.TABLE_THREAD, 300));
        assertEquals(1, Natives.dbNgetNextIndexFromPoolImpl(db, Natives.TABLE_THREAD));
    }

    @Test
    void stringsAreInternedBoundToIndicesAndReadBack() {
        assertEquals(0, Natives.dbNgetStrIDImpl(db, "main", false));
        assertEquals(0, Natives.dbNgetStrIDImpl(db, null, true));
        int main = Natives.dbNgetStrIDImpl(db, "main", true);
        assertEquals(1, main);
        assertEquals(main, Natives.dbNgetStrIDImpl(db, "main", true));
        assertEquals(main, Natives.dbNgetStrIDImpl(db, new String("main"), false));
        assertEquals("main", Natives.dbNgetStringImpl(db, main));
        assertEquals(2, Natives.dbNgetStrIDImpl(db, "", true));
        assertEquals("", Natives.dbNgetStringImpl(db, 2));

        String text = "Gr\u00fc\u00dfe \u2603 \ud83d\ude00 nul\u0000end";
        Natives.dbNsetStringImpl(db, 40, text);
        assertEquals(text, Natives.dbNgetStringImpl(db, 40));
        assertEquals(40, Natives.dbNgetStrIDImpl(db, text, false));
        Natives.dbNsetStringImpl(db, 40, "replaced");
        assertEquals(0, Natives.dbNgetStrIDImpl(db, text, false));
        assertEquals(40, Natives.dbNgetStrIDImpl(db, "replaced", false));
        Natives.dbNsetStringImpl(db, 40, null);
        assertEquals("replaced", Natives.dbNgetStringImpl(db, 40));

        assertNull(Natives.dbNgetStringImpl(db, 41));
        // Loading strings by index doesn't move the pool: new texts still start at its next index.
        assertEquals(3, Natives.dbNgetStrIDImpl(db, "next", true));
    }

    @Test
    void statisticsDescribeEveryTable() {
        Natives.dbNgetStrIDImpl(db, "abc", true);
        Natives.dbNgetStrIDImpl(db, "hello", true);
        String expected = ""
                + "              string records=      2/   1280 allocated=   0.0 M\n"
                + "              thread records=      0/   1280 allocated=   0.0 M\n"
                + "              method records=      0/10486016 allocated=   0.3 M\n"
                + "         threadframe records=      0/   1280 allocated=   0.0 M\n"
                + "                j2ee records=      0/   1280 allocated=   0.0 M\n"
                + "             monitor records=      0/   1280 allocated=   0.0 M\n"
                + "        cpuprofiling records=      0/   1280 allocated=   0.0 M\n"
                + "      instancecounts records=      0/   1280 allocated=   0.0 M\n"
                + "               frame records=      0/   1280 allocated=   0.0 M\n"
                + "     tablegeneration records=      0/   1280 allocated=   0.0 M\n"
                + "            snapshot records=      0/   1280 allocated=   0.0 M\n"
                + "           allocinfo records=      0/   1280 allocated=   0.0 M\n"
                + "           allocator records=      0/   1280 allocated=   0.0 M\n"
                + "          generation records=      0/   1280 allocated=   0.0 M\n"
                + "          properties records=      0/   1280 allocated=   0.0 M\n"
                + "                tele records=      0/   1280 allocated=   0.0 M\n"
                + "         threadstate records=      0/   1280 allocated=   0.0 M\n"
                + "           exception records=      0/   1280 allocated=   0.0 M\n"
                + "\n"
                + "telemetryLimit=3600\n"
                + "\n"
                + "String bodies:    0.0 M\n"
                + "TFI:    0.0 M\n"
                + "\n"
                + "Total size:    0.3 M\n";
        assertEquals(expected, Natives.dbNgetDatabaseStatisticsImpl(db));

        long unlimited = Natives.dbNcreateNativeDatabaseImpl(-1);
        try {
            String text = Natives.dbNgetDatabaseStatisticsImpl(unlimited);
            assertEquals(true, text.contains("\ntelemetryLimit=-1\n"), text);
        } finally {
            Natives.dbNdeleteNativeDatabaseImpl(unlimited);
        }
    }

    @Test
    void telemetryTrimIsReplayedWhileTheTableIsRebuiltInOrder() {
        for (int i = 0; i < 8000; i++) {
            Natives.dbNsetRecordModificationStampImpl(db, Natives.TABLE_THREADSTATE, i, 1);
        }
        for (int i = 0; i <= 3860; i++) {
            Natives.dbNsetTeleValueImpl(db, i, 0, i + 1);
            Natives.dbNsetTeleValueImpl(db, i, TelemetryRecord.TELE_THREAD_STATE_START_INDEX, 2 * i);
            // Not stamped yet: the row reads as absent.
            assertEquals(0, Natives.dbNgetTeleValueImpl(db, i, 0));
            Natives.dbNsetRecordModificationStampImpl(db, Natives.TABLE_TELE, i, 1);
            if (i == 3859) {
                assertEquals(1, Natives.dbNgetTeleValueImpl(db, 0, 0));
                assertEquals(0, Natives.dbNgetTableMinIndexImpl(db, Natives.TABLE_TELE));
            }
        }
        // Row 3860 is the first multiple of 20 a whole chunk beyond the limit of 3600 rows.
        assertEquals(256, Natives.dbNgetTableMinIndexImpl(db, Natives.TABLE_TELE));
        assertEquals(0, Natives.dbNgetTeleValueImpl(db, 0, 0));
        assertEquals(0, Natives.dbNgetTeleValueImpl(db, 255, 0));
        assertEquals(257, Natives.dbNgetTeleValueImpl(db, 256, 0));
        assertEquals(3861, Natives.dbNgetTeleValueImpl(db, 3860, 0));
        assertEquals(512, Natives.dbNgetTableMinIndexImpl(db, Natives.TABLE_THREADSTATE));
        // Reading never allocates: a row far beyond the table stays out of it.
        assertEquals(0, Natives.dbNgetTeleValueImpl(db, 100000, 3));
        assertEquals(4096, Natives.dbNgetTableCapacityImpl(db, Natives.TABLE_TELE));
    }

    @Test
    void threadFrameIndexIsRebuiltFromItsTable() {
        int[][] rows = {{0, 1, 0}, {1, 1, 40}, {3, 2, 40}, {700, 9, 12345}};
        for (int[] row : rows) {
            Natives.dbNsetTFIThreadIndexForTFIImpl(db, row[0], row[1]);
            Natives.dbNsetTFIFrameIDImpl(db, row[0], row[2]);
            Natives.dbNsetRecordModificationStampImpl(db, Natives.TABLE_THREADFRAME, row[0], 1);
        }
        assertEquals(9, Natives.dbNgetTFIThreadIndexForTFIImpl(db, 700));
        assertEquals(12345, Natives.dbNgetTFIFrameIDImpl(db, 700));
        assertEquals(12345, Natives.dbNgetIntFieldImpl(db, Natives.FIELD_THREADFRAME_FRAME_ID, 700));
        assertEquals(-1, Natives.dbNgetTFIImpl(db, 2, 40, false));

        Natives.dbNfillThreadFrameIndexImpl(db);
        for (int[] row : rows) {
            assertEquals(row[0], Natives.dbNgetTFIImpl(db, row[1], row[2], false));
        }
        assertEquals(-1, Natives.dbNgetTFIImpl(db, 2, 41, false));
        assertEquals(-1, Natives.dbNgetTFIImpl(db, 50, 40, false));
        // A new pair takes a row above the loaded table, never the empty row 2 inside it.
        int created = Natives.dbNgetTFIImpl(db, 2, 41, true);
        assertEquals(1280, created);
        assertEquals(created, Natives.dbNgetTFIImpl(db, 2, 41, false));
        assertEquals(2, Natives.dbNgetTFIThreadIndexForTFIImpl(db, created));
        assertEquals(41, Natives.dbNgetTFIFrameIDImpl(db, created));
        assertEquals(1, Natives.dbNgetRecordModificationStampImpl(db, Natives.TABLE_THREADFRAME, created));
    }

    @Test
    void j2eeIndexRebuildTakesEveryRowOfTheTableFromThePool() {
        Natives.dbNsetIntFieldImpl(db, Natives.FIELD_J2EE_THREAD, 4, 3);
        Natives.dbNsetIntFieldImpl(db, Natives.FIELD_J2EE_STR_ID, 4, 1);
        Natives.dbNsetRecordModificationStampImpl(db, Natives.TABLE_J2EE, 4, 1);
        Natives.dbNfillJ2EEIndexImpl(db);
        assertEquals(1280, Natives.dbNgetNextIndexFromPoolImpl(db, Natives.TABLE_J2EE));
    }

    @Test
    void aDatabaseFilledThroughTheNativesIsSavedAsASnapshotAndReadBack(@TempDir Path dir) throws Exception {
        int name = Natives.dbNgetStrIDImpl(db, "worker", true);
        int group = Natives.dbNgetStrIDImpl(db, "main", true);
        Natives.dbNsetIntFieldImpl(db, Natives.FIELD_THREAD_NAME_STR_ID, 1, name);
        Natives.dbNsetIntFieldImpl(db, Natives.FIELD_THREAD_GROUP_STR_ID, 1, group);
        Natives.dbNsetIntFieldImpl(db, Natives.FIELD_THREAD_RUNNING_NUMBER, 1, 3);
        Natives.dbNsetLongFieldImpl(db, Natives.FIELD_THREAD_THREAD_ID, 1, 4242L);
        Natives.dbNsetRecordModificationStampImpl(db, Natives.TABLE_THREAD, 1, 2);
        // Filled but never stamped: not part of the file.
        Natives.dbNsetIntFieldImpl(db, Natives.FIELD_THREAD_RUNNING_NUMBER, 2, 4);

        Path file = dir.resolve("copy.snapshot");
        assertNull(Natives.dbNwriteSnapshotImpl(db, 0L, file.toString(), 32L, 1234567890L, "session \u00e9"));
        Snapshot snapshot = SnapshotReader.read(file);
        assertEquals(1234567890L, snapshot.header().startTimeSeconds());
        assertEquals("session \u00e9", snapshot.header().sessionName());
        assertEquals(32L | 512L, snapshot.header().flags());
        assertEquals(4, snapshot.header().oidWidth());
        Table threads = snapshot.table(TableLayout.THREAD);
        assertEquals(1, threads.size());
        assertEquals(1, threads.index(0));
        assertEquals(2, threads.stamp(0));
        assertEquals("worker", snapshot.string(threads.getInt(0, 0)));
        assertEquals("main", snapshot.string(threads.getInt(0, 1)));
        assertEquals(4242L, threads.getLong(0, 4));
        assertTrue(snapshot.hasTable(TableLayout.TELE));

        assertEquals("Cannot open file to write snapshot",
                Natives.dbNwriteSnapshotImpl(db, 0L, dir.resolve("missing/dir/x.snapshot").toString(), 0L, 0L, ""));
    }
}
