package com.kestrix.kjp;

import static com.kestrix.kjp.KjpReportTest.kjp;
import static com.kestrix.kjp.KjpReportTest.maskCaptureTime;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * kjp locks and kjp exceptions, and their lines in kjp report: on snapshots with rows of known
 * figures, and on the snapshots of a program that blocks, parks, waits and throws in known ways.
 */
class KjpLocksAndExceptionsTest {
    static final long RECORDING_NS = 12_500_000_000L;  // its low half has the top bit set

    /**
     * Threads main (#2), worker (#3), holder (#4) and a second worker (#5). Blocks on monitors in
     * App.update and in a method that only looks like a park (com.example.LockSupport.park), parks
     * in LockSupport.park and parkNanos, one Object.wait; exceptions thrown in Parser and caught
     * in App.work, in App.main, or not at all.
     */
    static Path fullSnapshot(Path dir) {
        try (SyntheticSnapshot s = new SyntheticSnapshot()) {
            callTree(s);
            s.monitor(2, 3, 4, "java.lang.Object", 300_000_000L, 3);
            s.monitor(3, 3, 4, "java.lang.Object", 100_000_000L, 1);
            s.monitor(5, 3, 2, "com.example.Cache", 50_000_000L, 2);
            s.monitor(4, 8, 3, "com.example.Gate", 10_000_000L, 1);
            // Blocks whose monitor was free again when the agent asked for its owner: booked as
            // the blocked thread's own, yet not waits.
            s.monitor(3, 3, 3, "java.lang.Object", 40_000_000L, 2);
            s.monitor(3, 5, 4, "java.util.concurrent.locks.ReentrantLock$NonfairSync", 700_000_000L, 7);
            s.monitor(2, 7, 0, "java.util.concurrent.Semaphore$NonfairSync", 20_000_000L, 4);
            s.monitor(2, 6, 2, "java.lang.Object", 2_000_000_000L, 1);
            s.foldedMonitor();
            s.monitorRecording(RECORDING_NS);
            s.exception(2, 10, 2, "java.lang.IllegalStateException", 1000);
            s.exception(3, 10, 2, "java.lang.IllegalStateException", 500);
            s.exception(3, 9, 0, "java.lang.NumberFormatException", 2);
            s.exception(2, 9, 1, "java.lang.NumberFormatException", 5);
            // What a rethrown exception leaves at the catches it passed: a row of 0.
            s.exception(2, 10, 1, "java.lang.IllegalArgumentException", 0);
            return s.write(dir.resolve("full.snapshot"));
        }
    }

    static void callTree(SyntheticSnapshot s) {
        s.thread(1, "<Oldest dead threads>");
        s.thread(2, "main");
        s.thread(3, "worker");
        s.thread(4, "holder");
        s.thread(5, "worker");
        s.method(1, "com.example.App", "main", "([Ljava/lang/String;)V");
        s.method(2, "com.example.App", "work", "()V");
        s.method(3, "com.example.App", "update", "(I)V");
        s.method(4, "java.util.concurrent.locks.ReentrantLock", "lock", "()V");
        s.method(5, "java.util.concurrent.locks.LockSupport", "park", "(Ljava/lang/Object;)V");
        s.method(6, "java.lang.Object", "wait", "(J)V");
        s.method(7, "java.util.concurrent.locks.LockSupport", "parkNanos", "(Ljava/lang/Object;J)V");
        s.method(8, "com.example.LockSupport", "park", "()V");
        s.method(9, "com.example.Parser", "parse", "(Ljava/lang/String;)I");
        s.method(10, "com.example.Parser", "digit", "(C)I");
        s.frame(1, 0, 1);
        s.frame(2, 1, 2);
        s.frame(3, 2, 3);
        s.frame(4, 2, 4);
        s.frame(5, 4, 5);
        s.frame(6, 2, 6);
        s.frame(7, 2, 7);
        s.frame(8, 2, 8);
        s.frame(9, 2, 9);
        s.frame(10, 9, 10);
    }

    static KjpReportTest.Run ok(String... args) {
        KjpReportTest.Run run = kjp(args);
        assertEquals(0, run.status(), run.err());
        assertEquals("", run.err());
        return run;
    }

    @Test
    void locksAreSplitIntoBlocksParksAndWaitsEachByClassPathAndOwner(@TempDir Path dir) {
        Path file = fullSnapshot(dir);
        String expected = String.join("\n",
                "Kestrix Java Profiler snapshot " + file,
                "",
                "Session   Synthetic",
                "Captured  <time>, JVM exit",
                "Recorded  blocked 500.0 ms in 9 blocks, parked 720.0 ms in 11 parks, waiting 2.00 s in 1 wait,"
                        + " in a 12.50 s recording",
                "",
                "Blocks on synchronized monitors, all threads (500.0 ms in 9 blocks)",
                "      Time      %  Count  Monitor class",
                "  440.0 ms  88.0%      6  java.lang.Object",
                "   50.0 ms  10.0%      2  com.example.Cache",
                "   10.0 ms   2.0%      1  com.example.Gate",
                "",
                "      Time  Count  Path",
                "  490.0 ms      8  com.example.App.update(int)",
                "                   <- com.example.App.work()",
                "                   <- com.example.App.main(String[])",
                "   10.0 ms      1  com.example.LockSupport.park()",
                "                   <- com.example.App.work()",
                "                   <- com.example.App.main(String[])",
                "",
                "      Time      %  Count  Owner thread",
                "  400.0 ms  80.0%      4  holder (#4)",
                "   50.0 ms  10.0%      2  main (#2)",
                "   40.0 ms   8.0%      2  (no owner known)",
                "   10.0 ms   2.0%      1  worker (#3)",
                "",
                "Parks on java.util.concurrent locks, all threads (720.0 ms in 11 parks)",
                "      Time      %  Count  Lock class",
                "  700.0 ms  97.2%      7  java.util.concurrent.locks.ReentrantLock$NonfairSync",
                "   20.0 ms   2.8%      4  java.util.concurrent.Semaphore$NonfairSync",
                "",
                "      Time  Count  Path",
                "  700.0 ms      7  java.util.concurrent.locks.LockSupport.park(Object)",
                "                   <- java.util.concurrent.locks.ReentrantLock.lock()",
                "                   <- com.example.App.work()",
                "                   <- com.example.App.main(String[])",
                "   20.0 ms      4  java.util.concurrent.locks.LockSupport.parkNanos(Object, long)",
                "                   <- com.example.App.work()",
                "                   <- com.example.App.main(String[])",
                "",
                "      Time      %  Count  Owner thread",
                "  700.0 ms  97.2%      7  holder (#4)",
                "   20.0 ms   2.8%      4  (no owner known)",
                "",
                "Waits in Object.wait, all threads (2,000.0 ms in 1 wait)",
                "        Time       %  Count  Monitor class",
                "  2,000.0 ms  100.0%      1  java.lang.Object",
                "",
                "        Time  Count  Path",
                "  2,000.0 ms      1  java.lang.Object.wait(long)",
                "                     <- com.example.App.work()",
                "                     <- com.example.App.main(String[])",
                "",
                "        Time       %  Count  Waiting thread",
                "  2,000.0 ms  100.0%      1  main (#2)",
                "");
        assertEquals(expected, maskCaptureTime(ok("locks", file.toString()).out()));

        // Both threads named worker, limited lists, as JSON; waits are there with nothing in them.
        String json = ok("locks", "--thread", "worker", "--top", "1", "--paths", "1", "--format", "json",
                file.toString()).out().replaceAll("\"captureTime\":\"[^\"]*\"", "\"captureTime\":\"<time>\"");
        assertEquals("{\"file\":\"" + file + "\",\"session\":\"Synthetic\",\"captureTime\":\"<time>\","
                + "\"recordingDurationNs\":12500000000,"
                + "\"blocks\":{\"timeNs\":190000000,\"count\":5,"
                + "\"byClass\":[{\"class\":\"java.lang.Object\",\"timeNs\":140000000,\"count\":3}],"
                + "\"byPath\":[{\"timeNs\":190000000,\"count\":5,\"methodsLeafFirst\":[\"com.example.App.update(int)\","
                + "\"com.example.App.work()\",\"com.example.App.main(String[])\"]}],"
                + "\"byOwner\":[{\"owner\":\"holder\",\"ownerRunningNumber\":4,\"timeNs\":100000000,\"count\":1}]},"
                + "\"parks\":{\"timeNs\":700000000,\"count\":7,"
                + "\"byClass\":[{\"class\":\"java.util.concurrent.locks.ReentrantLock$NonfairSync\",\"timeNs\":700000000,"
                + "\"count\":7}],"
                + "\"byPath\":[{\"timeNs\":700000000,\"count\":7,\"methodsLeafFirst\":["
                + "\"java.util.concurrent.locks.LockSupport.park(Object)\",\"java.util.concurrent.locks.ReentrantLock.lock()\","
                + "\"com.example.App.work()\",\"com.example.App.main(String[])\"]}],"
                + "\"byOwner\":[{\"owner\":\"holder\",\"ownerRunningNumber\":4,\"timeNs\":700000000,\"count\":7}]},"
                + "\"waits\":{\"timeNs\":0,\"count\":0,\"byClass\":[],\"byPath\":[],\"byOwner\":[]}}\n", json);
    }

    @Test
    void exceptionsAreListedByClassThrowingPathAndCatchingPath(@TempDir Path dir) {
        Path file = fullSnapshot(dir);
        String expected = String.join("\n",
                "Kestrix Java Profiler snapshot " + file,
                "",
                "Session   Synthetic",
                "Captured  <time>, JVM exit",
                "Recorded  1,507 thrown (2 classes), 2 uncaught, in 2 threads",
                "",
                "Exceptions by class, all threads (1,507)",
                "  Count      %  Uncaught  Class",
                "  1,500  99.5%         0  java.lang.IllegalStateException",
                "      7   0.5%         2  java.lang.NumberFormatException",
                "",
                "Exceptions by throwing path, all threads",
                "  Count  Class and path",
                "  1,500  java.lang.IllegalStateException",
                "         at com.example.Parser.digit(char)",
                "         <- com.example.Parser.parse(String)",
                "         <- com.example.App.work()",
                "         <- com.example.App.main(String[])",
                "      7  java.lang.NumberFormatException",
                "         at com.example.Parser.parse(String)",
                "         <- com.example.App.work()",
                "         <- com.example.App.main(String[])",
                "",
                "Exceptions by catching path, all threads",
                "  Count  Class and path",
                "  1,500  java.lang.IllegalStateException",
                "         caught in com.example.App.work()",
                "         <- com.example.App.main(String[])",
                "      5  java.lang.NumberFormatException",
                "         caught in com.example.App.main(String[])",
                "      2  java.lang.NumberFormatException",
                "         uncaught",
                "");
        assertEquals(expected, maskCaptureTime(ok("exceptions", file.toString()).out()));

        String json = ok("exceptions", "--thread", "worker", "--paths", "1", "--format", "json", file.toString())
                .out().replaceAll("\"captureTime\":\"[^\"]*\"", "\"captureTime\":\"<time>\"");
        assertEquals("{\"file\":\"" + file + "\",\"session\":\"Synthetic\",\"captureTime\":\"<time>\","
                + "\"thrown\":502,\"uncaught\":2,\"classes\":2,\"threads\":1,"
                + "\"byClass\":[{\"class\":\"java.lang.IllegalStateException\",\"count\":500,\"uncaught\":0},"
                + "{\"class\":\"java.lang.NumberFormatException\",\"count\":2,\"uncaught\":2}],"
                + "\"byThrowingPath\":[{\"class\":\"java.lang.IllegalStateException\",\"count\":500,\"methodsLeafFirst\":["
                + "\"com.example.Parser.digit(char)\",\"com.example.Parser.parse(String)\",\"com.example.App.work()\","
                + "\"com.example.App.main(String[])\"]}],"
                + "\"byCatchingPath\":[{\"class\":\"java.lang.IllegalStateException\",\"count\":500,\"uncaught\":false,"
                + "\"methodsLeafFirst\":[\"com.example.App.work()\",\"com.example.App.main(String[])\"]}]}\n", json);
    }

    @Test
    void reportHasALineForEachOnlyWhenThereAreRows(@TempDir Path dir) {
        Path file = fullSnapshot(dir);
        String text = ok("report", file.toString()).out();
        assertTrue(text.contains("CPU       no CPU data recorded\n\n"
                + "Locks: blocked 500.0 ms in 9 blocks, parked 720.0 ms in 11 parks, waiting 2.00 s in 1 wait,"
                + " in a 12.50 s recording; see kjp locks\n"
                + "Exceptions: 1,507 thrown (2 classes), 2 uncaught; see kjp exceptions\n\nThreads (5)\n"), text);
        String worker = ok("report", "--thread", "worker", file.toString()).out();
        assertTrue(worker.contains("\nLocks: blocked 190.0 ms in 5 blocks, parked 700.0 ms in 7 parks,"
                + " in a 12.50 s recording; see kjp locks\n"
                + "Exceptions: 502 thrown (2 classes), 2 uncaught; see kjp exceptions\n"), worker);
        String json = ok("report", "--format", "json", file.toString()).out();
        assertTrue(json.contains(",\"locks\":{\"blocks\":{\"timeNs\":500000000,\"count\":9},"
                + "\"parks\":{\"timeNs\":720000000,\"count\":11},\"waits\":{\"timeNs\":2000000000,\"count\":1},"
                + "\"recordingDurationNs\":12500000000},"
                + "\"exceptions\":{\"thrown\":1507,\"classes\":2,\"uncaught\":2},\"threads\":["), json);

        Path empty;
        try (SyntheticSnapshot s = new SyntheticSnapshot()) {
            callTree(s);
            empty = s.write(dir.resolve("empty.snapshot"));
        }
        String plain = ok("report", empty.toString()).out();
        assertFalse(plain.contains("Locks:") || plain.contains("Exceptions:"), plain);
        String plainJson = ok("report", "--format", "json", empty.toString()).out();
        assertFalse(plainJson.contains("\"locks\"") || plainJson.contains("\"exceptions\""), plainJson);
    }

    @Test
    void nothingRecordedIsOneLineAndNotAFailure(@TempDir Path dir) {
        Path empty;
        Path recorded;
        try (SyntheticSnapshot s = new SyntheticSnapshot()) {
            callTree(s);
            empty = s.write(dir.resolve("empty.snapshot"));
            s.monitorRecording(2_000_000_000L);
            recorded = s.write(dir.resolve("recorded.snapshot"));
        }
        assertEquals("No monitor contention recorded in this snapshot: monitor profiling records it while it runs "
                + "(-agentlib:kjpagent=monitors, or kjp connect HOST:PORT start-monitors).\n",
                ok("locks", empty.toString()).out());
        assertEquals("No monitor contention recorded in a 2.00 s recording.\n", ok("locks", recorded.toString()).out());
        assertEquals("No exceptions recorded in this snapshot (none were thrown, or the agent ran with "
                + "disableexceptions).\n", ok("exceptions", empty.toString()).out());

        // Rows exist, just none of the selected thread's.
        Path file = fullSnapshot(dir);
        assertEquals("No monitor contention recorded for the selected threads in a 12.50 s recording.\n",
                ok("locks", "--thread", "<Oldest dead threads>", file.toString()).out());
        assertEquals("No exceptions recorded for the selected threads.\n",
                ok("exceptions", "--thread", "holder", file.toString()).out());

        KjpReportTest.Run unknown = kjp("locks", "--thread", "nobody", file.toString());
        assertEquals(1, unknown.status());
        assertEquals("kjp: " + file + ": has no thread named 'nobody'\n", unknown.err());
        KjpReportTest.Run merged = kjp("exceptions", "--merged", file.toString());
        assertEquals(2, merged.status());
        assertTrue(merged.err().startsWith("kjp: --merged and --value belong to flame and collapsed\n"), merged.err());
        KjpReportTest.Run byThread = kjp("locks", "--by-thread", file.toString());
        assertEquals(2, byThread.status());
        assertTrue(byThread.err().startsWith("kjp: --by-thread belongs to report and alloc\n"), byThread.err());
    }

    static final String P = "com.kestrix.programs.LocksAndExceptions.";

    static Path snapshotOf(Path jdk, Path dir, String options, String what, StringBuilder stdout) throws Exception {
        Jvm.Result result = Jvm.run(jdk, 180, Jvm.agentArgument(options + ",dir=" + dir), "-cp",
                Jvm.programs().toString(), "com.kestrix.programs.LocksAndExceptions", what);
        assertEquals(0, result.exitCode, result.toString());
        stdout.append(result.stdout);
        try (Stream<Path> files = Files.list(dir)) {
            List<Path> snapshots = files.filter(f -> f.toString().endsWith(".snapshot")).toList();
            assertEquals(1, snapshots.size(), result.toString());
            return snapshots.get(0);
        }
    }

    /** The text from a heading line to the next heading (a line that starts with a letter). */
    static String section(String text, String heading) {
        int start = text.indexOf("\n" + heading);
        assertTrue(start >= 0, heading + " in\n" + text);
        Matcher next = Pattern.compile("\n\n[A-Z]").matcher(text);
        int end = next.find(start + 1) ? next.start() : text.length();
        // Tables inside a section are parted by blank lines too; the next heading starts with a letter.
        return text.substring(start + 1, end);
    }

    @ParameterizedTest
    @MethodSource("com.kestrix.test.Jvm#jdks")
    void aProgramsBlocksParksWaitsAndExceptionsAreShownForWhatTheyAre(Path jdk, @TempDir Path dir) throws Exception {
        Path locksDir = Files.createDirectory(dir.resolve("locks"));
        StringBuilder printed = new StringBuilder();
        Path locks = snapshotOf(jdk, locksDir, "monitors", "locks", printed);
        String text = ok("locks", locks.toString()).out();

        String blocks = section(text, "Blocks on synchronized monitors");
        assertTrue(blocks.contains("  java.lang.Object\n"), blocks);
        assertTrue(blocks.contains("monitor-holder (#"), blocks);
        Matcher block = Pattern.compile("([\\d,.]+) ms +1  " + Pattern.quote(P + "blockOnMonitor()")).matcher(blocks);
        assertTrue(block.find(), blocks);
        // The agent's interval lies inside the one the blocked thread measured itself.
        Matcher measured = Pattern.compile("blocked monitor (\\d+)").matcher(printed);
        assertTrue(measured.find(), printed.toString());
        double shownMs = Double.parseDouble(block.group(1).replace(",", ""));
        assertTrue(shownMs > 0 && shownMs <= Long.parseLong(measured.group(1)) / 1e6 + 0.05,
                shownMs + " ms against " + measured.group(1) + " ns");
        assertFalse(blocks.contains("blockOnLock") || blocks.contains("LockSupport"), blocks);

        String parks = section(text, "Parks on java.util.concurrent locks");
        for (String expected : List.of("  java.util.concurrent.locks.ReentrantLock$NonfairSync\n",
                "  java.util.concurrent.locks.ReentrantReadWriteLock$NonfairSync\n", "lock-holder (#",
                "readlock-holder (#", "<- " + P + "blockOnLock()\n", "<- " + P + "blockOnReadLock()\n")) {
            assertTrue(parks.contains(expected), expected + " in\n" + parks);
        }
        assertFalse(parks.contains("blockOnMonitor") || parks.contains("monitor-holder"), parks);

        String waits = section(text, "Waits in Object.wait");
        assertTrue(waits.contains("<- " + P + "waitHalfSecond()\n"), waits);
        assertTrue(Pattern.compile("(?m)^ +[\\d,.]+ ms +[\\d.]+% +\\d+  main \\(#\\d+\\)$").matcher(waits).find(),
                waits);
        assertTrue(text.contains(" recording\n"), "the length of the recording:\n" + text);
        String report = ok("report", locks.toString()).out();
        assertTrue(Pattern.compile("\nLocks: blocked [\\d,.]+ m?s in [\\d,]+ blocks?, parked .* in a [\\d,.]+ m?s recording; "
                + "see kjp locks\n").matcher(report).find(), report);

        Path exceptionsDir = Files.createDirectory(dir.resolve("exceptions"));
        Path exceptions = snapshotOf(jdk, exceptionsDir, "onexit=snapshot", "exceptions", new StringBuilder());
        String thrown = ok("exceptions", exceptions.toString()).out();
        assertTrue(Pattern.compile("(?m)^  +1,000 +[\\d.]+% +0  java\\.lang\\.IllegalStateException$")
                .matcher(thrown).find(), thrown);
        assertTrue(Pattern.compile("(?m)^  +1 +[\\d.]+% +1  java\\.lang\\.UnsupportedOperationException$")
                .matcher(thrown).find(), thrown);
        String byThrow = section(thrown, "Exceptions by throwing path");
        assertTrue(byThrow.contains("1,000  java.lang.IllegalStateException\n"
                + "         at " + P + "throwIllegalState(int)\n"
                + "         <- " + P + "passOn(int)\n"
                + "         <- " + P + "catchTwoFramesUp(int)\n"), byThrow);
        // Rethrown ten times, counted once, from where it was first thrown.
        assertTrue(byThrow.contains("1  java.lang.IllegalArgumentException\n"
                + "         at " + P + "throwOriginal()\n"), byThrow);
        String byCatch = section(thrown, "Exceptions by catching path");
        assertTrue(byCatch.contains("1,000  java.lang.IllegalStateException\n"
                + "         caught in " + P + "catchTwoFramesUp(int)\n"), byCatch);
        assertTrue(byCatch.contains("1  java.lang.IllegalArgumentException\n"
                + "         caught in " + P + "catchRethrown()\n"), byCatch);
        assertTrue(byCatch.contains("1  java.lang.UnsupportedOperationException\n         uncaught\n"), byCatch);
        String exceptionReport = ok("report", exceptions.toString()).out();
        assertTrue(Pattern.compile("\nExceptions: [\\d,]+ thrown \\(\\d+ classes\\), [1-9]\\d* uncaught; "
                + "see kjp exceptions\n").matcher(exceptionReport).find(), exceptionReport);
    }
}
