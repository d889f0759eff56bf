package com.kestrix.snapshot;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.Constants;
import com.kestrix.test.Jvm;
import com.kestrix.tools.kjp.Kjp;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotHeader;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.LocalDate;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** The snapshot a real JVM leaves at exit, read back with the kjp reader. */
class ExitSnapshotTest {
    static List<Path> jdks() {
        return Jvm.jdks();
    }

    private static Jvm.Result runHello(Path jdk, String options) throws Exception {
        return Jvm.run(jdk, 120, Jvm.agentArgument(options), "-cp", Jvm.programs().toString(),
                "com.kestrix.programs.Hello");
    }

    private static List<Path> snapshotsIn(Path dir) throws IOException {
        if (!Files.isDirectory(dir)) {
            return List.of();
        }
        try (Stream<Path> files = Files.list(dir)) {
            return files.sorted().toList();
        }
    }

    private static String threadNames(Snapshot snapshot) {
        Table threads = snapshot.table(TableLayout.THREAD);
        List<String> names = new ArrayList<>();
        for (int row = 0; row < threads.size(); row++) {
            names.add(snapshot.string(threads.getInt(row, TableLayout.THREAD.field("nameStrID"))));
        }
        return String.join(",", names);
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void onexitSnapshotIsWrittenNamedAndNumberedWhereDirSays(Path jdk, @TempDir Path dir) throws Exception {
        Path snapshots = dir.resolve("snaps dir");
        String options = "onexit=snapshot,sessionname=My App,dir=" + snapshots;
        Jvm.Result first = runHello(jdk, options);
        Jvm.Result second = runHello(jdk, options);
        assertEquals(0, first.exitCode, first.toString());
        assertEquals(0, second.exitCode, second.toString());

        // The date is the JVM's local date; a run across midnight could see two, so either passes.
        String today = LocalDate.now().toString();
        Path expectedFirst = snapshots.resolve("My_App-" + today + "-shutdown.snapshot");
        Path expectedSecond = snapshots.resolve("My_App-" + today + "-shutdown(1).snapshot");
        assertEquals(Set.of(expectedFirst, expectedSecond), Set.copyOf(snapshotsIn(snapshots)), first + "\n" + second);
        assertTrue(first.stderr.contains("[Kestrix Java Profiler 8.0.1] Snapshot is saved to " + expectedFirst + "\n"),
                first.toString());
        assertTrue(second.stderr.contains("[Kestrix Java Profiler 8.0.1] Snapshot is saved to " + expectedSecond + "\n"),
                second.toString());

        long before = System.currentTimeMillis();
        Snapshot snapshot = SnapshotReader.read(expectedFirst);
        SnapshotHeader header = snapshot.header();
        assertEquals('9', header.formatVersion());
        assertEquals("Created by Kestrix Java Profiler 8.0.1", header.creator());
        assertEquals("My App", header.sessionName());
        assertEquals(4, header.oidWidth());
        assertEquals(-1, header.reserved());
        assertEquals(Constants.SNAPSHOT_CAUSE_SHUTDOWN | Constants.SNAPSHOT_OIDS_ARE_INDICES, header.flags());
        assertTrue(header.captureTimeMillis() <= before && header.captureTimeMillis() > before - 600_000,
                String.valueOf(header.captureTimeMillis()));
        assertTrue(header.startTimeSeconds() * 1000 <= header.captureTimeMillis() + 1000);
        // Every table but the allocator's is in the file; the JVM's threads and its own snapshot are in them.
        for (TableLayout table : TableLayout.values()) {
            assertEquals(table != TableLayout.ALLOCATOR, snapshot.hasTable(table), table.tableName);
        }
        assertTrue(threadNames(snapshot).contains("main"), threadNames(snapshot));
        Table known = snapshot.table(TableLayout.SNAPSHOT);
        assertEquals(1, known.size());
        assertEquals(expectedFirst.toString(), snapshot.string(known.getInt(0, TableLayout.SNAPSHOT.field("pathStrID"))));
        assertEquals(header.flags() & ~Constants.SNAPSHOT_OIDS_ARE_INDICES,
                known.getLong(0, TableLayout.SNAPSHOT.field("flags")));

        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Kjp.run(new String[] {"report", expectedFirst.toString()}, new PrintStream(out, true,
                StandardCharsets.UTF_8), new PrintStream(err, true, StandardCharsets.UTF_8), ZoneId.of("UTC"));
        String report = out.toString(StandardCharsets.UTF_8);
        assertEquals(0, status, err.toString(StandardCharsets.UTF_8));
        assertTrue(report.contains("\nSession   My App\n"), report);
        assertTrue(report.contains("\nCommand   com.kestrix.programs.Hello\n"), report);
        assertTrue(report.contains("\nJVM       OpenJDK 64-Bit Server VM "), report);
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void withoutOnexitOrMeasurementsNothingIsWritten(Path jdk, @TempDir Path dir) throws Exception {
        Path snapshots = dir.resolve("snaps");
        Jvm.Result result = runHello(jdk, "dir=" + snapshots);
        assertEquals(0, result.exitCode, result.toString());
        assertEquals(List.of(), snapshotsIn(snapshots));
        assertFalse(result.stderr.contains("Snapshot"), result.toString());

        Jvm.Result quiet = runHello(jdk, "onexit=snapshot,quiet,dir=" + snapshots);
        assertEquals(0, quiet.exitCode, quiet.toString());
        assertEquals(1, snapshotsIn(snapshots).size());
        assertEquals("", quiet.stderr);
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void heapDumpOfAnOutOfMemoryErrorIsRegisteredAsASnapshot(Path jdk, @TempDir Path dir) throws Exception {
        Path dumps = Files.createDirectories(dir.resolve("dumps"));
        Path snapshots = dir.resolve("snaps");
        Jvm.Result result = Jvm.run(jdk, 120, "-Xmx32m", "-XX:+HeapDumpOnOutOfMemoryError", "-XX:HeapDumpPath=" + dumps,
                Jvm.agentArgument("onexit=snapshot,dir=" + snapshots), "-cp", Jvm.programs().toString(),
                "com.kestrix.programs.OutOfMemory");
        assertEquals(0, result.exitCode, result.toString());
        List<Path> dumped = snapshotsIn(dumps);
        assertEquals(1, dumped.size(), result.toString());
        assertTrue(dumped.get(0).getFileName().toString().matches("java_pid\\d+\\.hprof"), dumped.toString());

        Snapshot snapshot = SnapshotReader.read(snapshotsIn(snapshots).get(0));
        Table known = snapshot.table(TableLayout.SNAPSHOT);
        List<String> registered = new ArrayList<>();
        for (int row = 0; row < known.size(); row++) {
            registered.add(snapshot.string(known.getInt(row, TableLayout.SNAPSHOT.field("pathStrID"))) + " "
                    + known.getLong(row, TableLayout.SNAPSHOT.field("flags")));
        }
        // With heap, HPROF, caused by the error: 1 + 16 + 256.
        assertTrue(registered.contains(dumped.get(0) + " 273"), registered + "\n" + result);
    }

    /** A tmpfs that is full to the last byte, unmounted at the end. */
    private static final class FullDisk implements AutoCloseable {
        final Path myDir;
        final boolean myMounted;

        FullDisk(Path dir) throws Exception {
            myDir = dir;
            Files.createDirectories(dir);
            Process mount = new ProcessBuilder("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", dir.toString())
                    .redirectErrorStream(true).start();
            mount.getInputStream().readAllBytes();
            myMounted = mount.waitFor(30, TimeUnit.SECONDS) && mount.exitValue() == 0;
            if (myMounted) {
                try (OutputStream filler = Files.newOutputStream(dir.resolve("filler"))) {
                    byte[] block = new byte[4096];
                    while (true) {
                        filler.write(block);
                        filler.flush();
                    }
                } catch (IOException full) {
                    // the disk is full now
                }
            }
        }

        @Override
        public void close() throws Exception {
            if (myMounted) {
                new ProcessBuilder("umount", myDir.toString()).redirectErrorStream(true).start().waitFor(30,
                        TimeUnit.SECONDS);
            }
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void fullDiskIsReportedInEnglishAndTheJvmEndsNormally(Path jdk, @TempDir Path dir) throws Exception {
        try (FullDisk disk = new FullDisk(dir.resolve("disk"))) {
            Assumptions.assumeTrue(disk.myMounted, "cannot mount a tmpfs here (needs root); skipped");
            Jvm.Result result = Jvm.run(jdk, 120, "-Duser.language=de", Jvm.agentArgument(
                    "onexit=snapshot,sessionname=Full,dir=" + disk.myDir), "-cp", Jvm.programs().toString(),
                    "com.kestrix.programs.Hello");
            assertEquals(0, result.exitCode, result.toString());
            assertTrue(result.stdout.startsWith("hello from"), result.toString());
            Path file = disk.myDir.resolve("Full-" + LocalDate.now() + "-shutdown.snapshot");
            assertTrue(result.stderr.contains("[Kestrix Java Profiler 8.0.1] Cannot capture snapshot " + file
                    + ": No space left on device\n"), result.toString());
            // What could be written is left as it is, cut short.
            assertTrue(Files.exists(file));
            assertTrue(Files.size(file) < 4096, String.valueOf(Files.size(file)));
        }
    }
}
