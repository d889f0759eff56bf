package com.kestrix.memory;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import com.kestrix.tools.snapshot.SnapshotReader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Allocation recording in real JVMs: a program allocates a known number of objects at known
 * call paths, and the snapshot must show exactly what the sampling rules pick there.
 */
class AllocationRecordingTest {
    static final String PROGRAM = "com.kestrix.programs.Allocations";
    static final String MAIN = PROGRAM + ".main";
    static final String ALL = PROGRAM + ".allocateAll";
    static final String BLOBS = PROGRAM + ".makeBlobs";
    static final String BIG = PROGRAM + ".makeBigArrays";
    static final int BLOB_COUNT = 20_000;
    static final int BIG_COUNT = 3;
    static final int MIB = 1024 * 1024;

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    private static AllocationProfile record(Path jdk, Path dir, String options) throws Exception {
        // The program lists its working directory: three files.
        Path work = Files.createDirectories(dir.resolve("work"));
        for (String name : List.of("a", "b", "c")) {
            Files.writeString(work.resolve(name), name);
        }
        Jvm.Result run = Jvm.run(jdk, 180, work, Jvm.agentArgument(options + ",quiet,dir=" + dir), "-cp",
                Jvm.programs().toString(), PROGRAM, String.valueOf(BLOB_COUNT), String.valueOf(BIG_COUNT));
        assertEquals(0, run.exitCode, run.toString());
        assertTrue(run.stdout.contains("done"), run.toString());
        Path snapshot;
        try (Stream<Path> files = Files.list(dir)) {
            snapshot = files.filter(f -> f.toString().endsWith(".snapshot")).findFirst()
                    .orElseThrow(() -> new AssertionError("no exit snapshot\n" + run));
        }
        return new AllocationProfile(SnapshotReader.read(snapshot));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void everyAllocationIsRecordedAtItsPathAndStartUpUnderItsOwnNode(Path jdk, @TempDir Path dir) throws Exception {
        AllocationProfile profile = record(jdk, dir, "alloc");
        assertEquals(BLOB_COUNT, profile.countEndingWith(MAIN, ALL, BLOBS), profile.toString());
        assertEquals(BIG_COUNT, profile.countEndingWith(MAIN, ALL, BIG), profile.toString());
        assertEquals(1, profile.countEndingWith(MAIN, PROGRAM + ".prepare", PROGRAM + ".warmUp"), profile.toString());
        // Native code of the JDK makes the directory's three names through JNI, and two arrays
        // (one of room for 16, then the one cut to size), booked below the native method.
        long listed = profile.sites.stream()
                .filter(s -> s.path().contains(PROGRAM + ".listDirectory")
                        && s.path().get(s.path().size() - 1).startsWith("java.io.UnixFileSystem."))
                .mapToLong(AllocationProfile.Site::count).sum();
        assertEquals(5, listed, profile.toString());
        for (AllocationProfile.Site site : profile.endingWith(MAIN, ALL, BIG)) {
            assertEquals("main", site.thread());
            assertTrue(site.bytes() >= (long) BIG_COUNT * 2 * MIB && site.bytes() < (long) BIG_COUNT * (2 * MIB + 64),
                    site.toString());
        }
        // The JVM loads classes before it runs any Java code; they are booked to one node of
        // the pseudo-thread "VM Start".
        List<AllocationProfile.Site> startUp = profile.sites.stream()
                .filter(s -> s.path().size() == 1 && s.path().get(0).endsWith("<Objects allocated during JVM startup>"))
                .toList();
        assertEquals(1, startUp.size(), profile.toString());
        assertEquals("VM Start", startUp.get(0).thread());
        assertTrue(startUp.get(0).count() > 10, startUp.toString());
        assertTrue(profile.sites.stream().allMatch(s -> s.path().size() > 0), profile.toString());

        // Every snapshot counts the live instances of each class; all Blobs are held to the end,
        // and the one of the warm-up may or may not have been collected.
        long blobs = profile.instances.getOrDefault(PROGRAM + "$Blob", -1L);
        assertTrue(blobs == BLOB_COUNT || blobs == BLOB_COUNT + 1, String.valueOf(blobs));
        assertEquals(1L, profile.instances.get(PROGRAM + "$Blob[]"));
        assertEquals(0L, profile.instances.get(PROGRAM));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void eachTenthAllocationIsRecorded(Path jdk, @TempDir Path dir) throws Exception {
        // The counter is shared by all threads, but nothing else allocates while the loop runs:
        // any 20,000 allocations in a row hold exactly 2,000 multiples of ten.
        AllocationProfile profile = record(jdk, dir, "alloceach=10");
        assertEquals(BLOB_COUNT / 10, profile.countEndingWith(MAIN, ALL, BLOBS), profile.toString());
        // Three in a row hold none or one tenth, never more.
        assertTrue(profile.countEndingWith(MAIN, ALL, BIG) <= 1, profile.toString());
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void aSizeLimitRecordsTheBigObjectsOnly(Path jdk, @TempDir Path dir) throws Exception {
        AllocationProfile profile = record(jdk, dir, "allocsizelimit=" + MIB);
        assertEquals(BIG_COUNT, profile.countEndingWith(MAIN, ALL, BIG), profile.toString());
        assertEquals(0, profile.countEndingWith(MAIN, ALL, BLOBS), profile.toString());
        for (AllocationProfile.Site site : profile.sites) {
            assertTrue(site.bytes() >= site.count() * MIB, site.toString());
        }

        // Together with a record-each rule either rule picks, and an object both pick counts once.
        AllocationProfile adaptive = record(jdk, Files.createDirectories(dir.resolve("adaptive")), "allocadaptive");
        assertEquals(BIG_COUNT, adaptive.countEndingWith(MAIN, ALL, BIG), adaptive.toString());
        assertEquals(BLOB_COUNT / 10, adaptive.countEndingWith(MAIN, ALL, BLOBS), adaptive.toString());
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void recordingStartedOverTheConnectionFollowsItsRules(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = LiveAgent.start(jdk, dir, "")) {
            agent.kjpOk("start-alloc", "--each", "10", "--size-limit", String.valueOf(MIB));
            String status = agent.kjpOk("status");
            agent.command("allocate " + BLOB_COUNT + " " + BIG_COUNT, 120);
            agent.kjpOk("stop-alloc");
            // Stopped: what comes now is not recorded.
            agent.command("allocate " + BLOB_COUNT + " " + BIG_COUNT, 120);
            String path = agent.kjpOk("capture").trim();
            String[] lines = path.split("\n");
            AllocationProfile profile = new AllocationProfile(SnapshotReader.read(Paths.get(lines[lines.length - 1])));
            String remote = "com.kestrix.programs.Remote.main";
            assertEquals(BLOB_COUNT / 10, profile.countEndingWith(remote, ALL, BLOBS), profile + "\n" + status);
            assertEquals(BIG_COUNT, profile.countEndingWith(remote, ALL, BIG), profile.toString());
            assertFalse(profile.sites.stream().anyMatch(s -> s.path().contains(MAIN)), profile.toString());
            agent.exit(60);
        }
    }
}
