package com.kestrix.monitors;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import com.kestrix.test.SnapshotPaths;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Monitor profiling and exception telemetry on real JVMs: blocks, waits and parks on
 * java.util.concurrent locks with their times and owners, exceptions with exact counts and
 * paths, dead threads folded without losing a row, and clearing over the wire.
 */
class LocksAndExceptionsTest {
    static final String PROGRAM = "com.kestrix.programs.LocksAndExceptions";
    static final String P = "com.kestrix.programs.LocksAndExceptions.";

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    /** One monitor or exception row, with its thread's name and its paths as method names, outermost first. */
    record Row(String thread, String owner, String className, List<String> path, List<String> catchPath, long timeNs,
            long count, int threadId, int ownerId) {
        String leaf() {
            return path.isEmpty() ? "" : path.get(path.size() - 1);
        }

        String catchLeaf() {
            return catchPath.isEmpty() ? "" : catchPath.get(catchPath.size() - 1);
        }
    }

    static final class Tables {
        final Snapshot snapshot;
        final Map<Integer, String> threadNames = new HashMap<>();

        Tables(Path file) throws Exception {
            snapshot = SnapshotReader.read(file);
            Table threads = snapshot.table(TableLayout.THREAD);
            for (int row = 0; row < threads.size(); row++) {
                threadNames.put(threads.getInt(row, TableLayout.THREAD.field("runningNumber")),
                        snapshot.string(threads.getInt(row, TableLayout.THREAD.field("nameStrID"))));
            }
        }

        List<String> path(int frame) {
            return SnapshotPaths.methods(snapshot, frame);
        }

        List<Row> monitors() {
            TableLayout l = TableLayout.MONITOR;
            Table t = snapshot.table(l);
            List<Row> rows = new ArrayList<>();
            for (int r = 0; r < t.size(); r++) {
                if (!t.isDeleted(r) && t.getInt(r, l.field("thread")) != 0) {
                    rows.add(new Row(threadNames.get(t.getInt(r, l.field("thread"))),
                            threadNames.get(t.getInt(r, l.field("owner"))),
                            snapshot.string(t.getInt(r, l.field("classNameStrID"))), path(t.getInt(r, l.field("frame"))),
                            List.of(), t.getLong(r, l.field("timeNs")), t.getLong(r, l.field("count")),
                            t.getInt(r, l.field("thread")), t.getInt(r, l.field("owner"))));
                }
            }
            return rows;
        }

        List<Row> exceptions() {
            TableLayout l = TableLayout.EXCEPTION;
            Table t = snapshot.table(l);
            List<Row> rows = new ArrayList<>();
            for (int r = 0; r < t.size(); r++) {
                if (!t.isDeleted(r) && t.getInt(r, l.field("thread")) != 0) {
                    rows.add(new Row(threadNames.get(t.getInt(r, l.field("thread"))), null,
                            snapshot.string(t.getInt(r, l.field("classNameStrID"))),
                            path(t.getInt(r, l.field("throwFrame"))), path(t.getInt(r, l.field("catchFrame"))), 0,
                            t.getLong(r, l.field("count")), t.getInt(r, l.field("thread")), 0));
                }
            }
            return rows;
        }

        String property(String name) {
            Table t = snapshot.table(TableLayout.PROPERTIES);
            for (int r = 0; r < t.size(); r++) {
                if (name.equals(snapshot.string(t.getInt(r, TableLayout.PROPERTIES.field("nameStrID"))))) {
                    return String.valueOf(t.getInt(r, TableLayout.PROPERTIES.field("value")));
                }
            }
            return null;
        }
    }

    static Tables run(Path jdk, Path dir, String options, String... args) throws Exception {
        List<String> command = new ArrayList<>(List.of(Jvm.agentArgument(options + ",dir=" + dir), "-cp",
                Jvm.programs().toString(), PROGRAM));
        command.addAll(List.of(args));
        Jvm.Result result = Jvm.run(jdk, 180, command.toArray(new String[0]));
        assertEquals(0, result.exitCode, result.toString());
        try (Stream<Path> files = Files.list(dir)) {
            List<Path> snapshots = files.filter(f -> f.toString().endsWith(".snapshot")).toList();
            assertEquals(1, snapshots.size(), result.toString());
            return new Tables(snapshots.get(0));
        }
    }

    /** Counts by thread kind and class, for messages that stay readable. */
    static String summary(List<Row> rows) {
        Map<String, Long> counts = new java.util.TreeMap<>();
        for (Row row : rows) {
            String thread = row.thread() == null ? "?" : row.thread().replaceAll("-\\d+$", "-N");
            counts.merge(thread + " " + row.className() + " " + row.leaf(), row.count(), Long::sum);
        }
        return counts.toString();
    }

    static long printed(Jvm.Result result, String label) {
        Matcher m = Pattern.compile(label + " (\\d+)").matcher(result.stdout);
        assertTrue(m.find(), label + " in " + result);
        return Long.parseLong(m.group(1));
    }

    static Row only(List<Row> rows, java.util.function.Predicate<Row> which, String what) {
        List<Row> found = rows.stream().filter(which).toList();
        assertEquals(1, found.size(), what + " in " + rows);
        return found.get(0);
    }

    /** Within 10% of what the blocked thread measured itself, and never more than it. */
    static void assertNear(long expected, long actual, String what) {
        assertTrue(actual <= expected && actual >= expected * 0.9, what + ": " + actual + " ns against " + expected);
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void blocksWaitsAndParksCarryTheirTimeOwnerAndClass(Path jdk, @TempDir Path dir) throws Exception {
        List<String> command = List.of(Jvm.agentArgument("monitors,dir=" + dir), "-cp", Jvm.programs().toString(),
                PROGRAM, "locks");
        Jvm.Result result = Jvm.run(jdk, 180, command.toArray(new String[0]));
        assertEquals(0, result.exitCode, result.toString());
        Tables tables;
        try (Stream<Path> files = Files.list(dir)) {
            tables = new Tables(files.filter(f -> f.toString().endsWith(".snapshot")).findFirst().orElseThrow());
        }
        List<Row> rows = tables.monitors();

        Row block = only(rows, r -> r.leaf().equals(P + "blockOnMonitor"), "the synchronized block");
        assertEquals("monitor-blocked", block.thread());
        assertEquals("monitor-holder", block.owner());
        assertEquals("java.lang.Object", block.className());
        assertEquals(1, block.count());
        assertNear(printed(result, "blocked monitor"), block.timeNs(), "synchronized");

        Row wait = only(rows, r -> r.path().contains(P + "waitHalfSecond"), "the wait");
        assertEquals("main", wait.thread());
        assertEquals("main", wait.owner(), "a waiting thread owns what it waits on");
        assertEquals("java.lang.Object.wait", wait.leaf().replace("wait0", "wait"));
        assertNear(printed(result, "waited"), wait.timeNs(), "wait");

        // Parks on java.util.concurrent locks: the lock's class, its owner, and LockSupport on top.
        for (String[] park : new String[][] {{"blockOnLock", "lock", "java.util.concurrent.locks.ReentrantLock$NonfairSync"},
                {"blockOnReadLock", "readlock", "java.util.concurrent.locks.ReentrantReadWriteLock$NonfairSync"}}) {
            List<Row> parks = rows.stream().filter(r -> r.path().contains(P + park[0])).toList();
            assertFalse(parks.isEmpty(), park[0] + " in " + rows);
            long time = 0;
            for (Row row : parks) {
                assertEquals(park[1] + "-blocked", row.thread());
                assertEquals(park[1] + "-holder", row.owner());
                assertEquals(park[2], row.className());
                assertTrue(row.leaf().startsWith("java.util.concurrent.locks.LockSupport.park"), row.toString());
                time += row.timeNs();
            }
            assertNear(printed(result, "blocked " + park[1]), time, park[0]);
        }

        // Virtual threads that block are nobody's rows, and their carriers get none of it.
        if (Jvm.majorVersion(jdk) >= 21) {
            assertTrue(result.stdout.contains("virtual threads blocked"), result.toString());
            assertTrue(rows.stream().noneMatch(r -> r.path().contains(P + "virtualBlock")), rows.toString());
        }

        long duration = Long.parseLong(tables.property("kjp.monitor.profiling.duration.ns.low")) & 0xFFFFFFFFL
                | Long.parseLong(tables.property("kjp.monitor.profiling.duration.ns.high")) << 32;
        assertTrue(duration >= 4 * 400_000_000L, "recording lasted " + duration);
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void exceptionsAreCountedExactlyWithRethrowsAtTheirLastCatchAndEscapesUncaught(Path jdk, @TempDir Path dir)
            throws Exception {
        // No mode at all: exceptions are counted from the start.
        List<Row> rows = run(jdk, dir, "onexit=snapshot", "exceptions").exceptions();

        Row caught = only(rows, r -> r.className().equals("java.lang.IllegalStateException")
                && r.leaf().equals(P + "throwIllegalState"), "the caught exceptions");
        assertEquals(1000, caught.count());
        assertEquals("main", caught.thread());
        assertEquals(P + "catchTwoFramesUp", caught.catchLeaf());
        assertEquals(caught.catchPath(), caught.path().subList(0, caught.path().size() - 2),
                "caught two frames up the throwing path");

        List<Row> rethrown = rows.stream().filter(r -> r.className().equals("java.lang.IllegalArgumentException")).toList();
        assertEquals(1, rethrown.stream().mapToLong(Row::count).sum(), "one exception object: " + rethrown);
        Row last = only(rethrown, r -> r.count() == 1, "the last catch");
        assertEquals(P + "catchRethrown", last.catchLeaf());
        assertEquals(P + "throwOriginal", last.leaf(), "the first throw's path stays");
        assertEquals(10, rethrown.size() - 1, "the ten catches on the way keep rows of 0: " + rethrown);

        Row escaped = only(rows, r -> r.className().equals("java.lang.UnsupportedOperationException"), "the escape");
        assertEquals("escaper", escaped.thread());
        assertEquals(P + "escape", escaped.leaf());
        assertTrue(escaped.catchPath().isEmpty(), "uncaught: catch frame 0");
        assertEquals(1, escaped.count());
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void disabledExceptionsAreNotCountedAndTracingStillStartsAndStops(Path jdk, @TempDir Path dir) throws Exception {
        Tables tables = run(jdk, dir, "disableexceptions,tracing,onexit=snapshot", "exceptions");
        assertEquals(List.of(), tables.exceptions());
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void foldedDeadThreadsKeepEverySumAndClearsEmptyTheTables(Path jdk, @TempDir Path dir) throws Exception {
        int port = LiveAgent.freePort();
        try (LiveAgent agent = LiveAgent.launchProgram(jdk, dir, "port=" + port + ",dir=" + dir + ",monitors", port,
                PROGRAM)) {
            agent.awaitStdout("ready", 60);
            // 201 threads end while captures run, so that most of them are folded on the way.
            agent.command("churn 100", 120);
            String first = agent.kjpOk("capture").strip();
            // Another count: the program's answer must not match the first one's.
            agent.command("churn 101", 120);
            String second = agent.kjpOk("capture").strip();

            for (String path : List.of(first, second)) {
                Tables tables = new Tables(Path.of(path));
                List<Row> churned = tables.exceptions().stream()
                        .filter(r -> r.className().endsWith("LocksAndExceptions$ChurnException")).toList();
                long expected = path.equals(first) ? 500 : 1005;
                assertEquals(expected, churned.stream().mapToLong(Row::count).sum(), summary(tables.exceptions()));
                Set<List<Object>> keys = new HashSet<>();
                for (Row row : churned) {
                    assertTrue(keys.add(List.of(row.threadId(), row.path(), row.catchPath())), "twice: " + row);
                }
                Table generations = tables.snapshot.table(TableLayout.TABLEGENERATION);
                assertTrue(generations.rowOf(TableLayout.EXCEPTION.id) < 0, "nothing was cleared yet");
                if (path.equals(second)) {
                    assertTrue(churned.stream().anyMatch(r -> r.thread().equals("<Oldest dead threads>")),
                            churned.toString());
                }
                Set<List<Object>> monitorKeys = new HashSet<>();
                for (Row row : tables.monitors()) {
                    assertTrue(row.count() >= 0 && row.timeNs() >= 0, row.toString());
                    assertTrue(monitorKeys.add(List.of(row.threadId(), row.ownerId(), row.className(), row.path())),
                            "twice: " + row);
                }
            }

            agent.kjpOk("clear", "monitors");
            agent.kjpOk("clear", "exceptions");
            Tables cleared = new Tables(Path.of(agent.kjpOk("capture").strip()));
            assertTrue(cleared.exceptions().stream().noneMatch(r -> r.className().contains("ChurnException")),
                    cleared.exceptions().toString());
            assertTrue(cleared.monitors().stream().noneMatch(r -> r.path().contains(P + "churnOnce")),
                    cleared.monitors().toString());
            Table generations = cleared.snapshot.table(TableLayout.TABLEGENERATION);
            for (TableLayout table : List.of(TableLayout.MONITOR, TableLayout.EXCEPTION)) {
                assertTrue(generations.stamp(generations.rowOf(table.id)) > 0, "the clear of " + table + " is published");
            }
        }
    }
}
