package com.kestrix.cpu;

import static com.kestrix.cpu.CpuProfile.program;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** CPU tracing of real JVMs, read back from the exit snapshot. One traced run per JDK serves all cases. */
class TracedCpuTest {
    static final int TICKS = 12345;
    static final int LIBRARY_CALLS = 7;
    static final long WALL_MILLIS = 600;
    /** Every pattern of the filter file, without the star that each line gets. */
    static final String[] FILTERED = {"com.kestrix.programs.lib.", "java.", "javax.", "jdk.", "sun.", "com.sun."};

    @TempDir
    static Path ourDir;
    private static final Map<String, CpuProfile> ourProfiles = new HashMap<>();
    /** Exact counts from the probes, times from the signal-driven sampler. */
    static final String SAMPLED_TIMES = "asyncsampling,tracingtimes=sampled";

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    static CpuProfile traced(Path jdk) throws Exception {
        return traced(jdk, "");
    }

    /** One run per JDK and set of extra options ("" for times from the thread clock). */
    static synchronized CpuProfile traced(Path jdk, String extraOptions) throws Exception {
        String key = jdk + " " + extraOptions;
        CpuProfile profile = ourProfiles.get(key);
        if (profile == null) {
            Path dir = Files.createTempDirectory(ourDir, "run");
            StringBuilder filters = new StringBuilder("# the default packages and the test library\n");
            for (String pattern : FILTERED) {
                filters.append(pattern).append("*\n");
            }
            Path filterFile = Files.writeString(dir.resolve("filters.txt"), filters);
            Path wallTime = Files.writeString(dir.resolve("walltime.txt"), CpuProfile.PROGRAM + " wallBlocked *\n");
            Path snapshots = Files.createDirectory(dir.resolve("snapshots"));
            String options = "tracing,filters=" + filterFile + ",walltimespec=" + wallTime
                    + (extraOptions.isEmpty() ? "" : "," + extraOptions);
            profile = CpuProfile.record(jdk, snapshots, options, "count:" + TICKS, "spin:1000",
                    "library:" + LIBRARY_CALLS, "idle:" + WALL_MILLIS);
            ourProfiles.put(key, profile);
        }
        return profile;
    }

    static boolean isFiltered(String method) {
        for (String pattern : FILTERED) {
            if (method.startsWith(pattern)) {
                return true;
            }
        }
        return false;
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void everyCallIsCountedOnItsPath(Path jdk) throws Exception {
        CpuProfile profile = traced(jdk);
        String loop = program("countLoop");
        String tick = program("tick");
        assertEquals(1, profile.countEndingWith("counter", loop), profile.dump("counter"));
        assertEquals(TICKS, profile.countEndingWith("counter", loop, tick), profile.dump("counter"));
        assertEquals(TICKS, profile.countEndingWith("counter", loop, tick, program("lcg")), profile.dump("counter"));
        // One path per call chain: the tree keeps no duplicate of the loop's node.
        assertEquals(1, profile.endingWith("counter", loop, tick).size(), profile.dump("counter"));
        long loopTime = profile.timeEndingWith("counter", loop);
        long tickTime = profile.timeEndingWith("counter", loop, tick);
        assertTrue(tickTime > 0 && tickTime <= loopTime, profile.dump("counter"));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void aSpinGetsTheCPUTimeTheThreadMeasuredAndAWallTimeMethodItsWallTime(Path jdk) throws Exception {
        CpuProfile profile = traced(jdk);
        long measured = profile.printed("spinner cpu ns");
        String spin = program("spinFor");
        assertEquals(1, profile.countEndingWith("spinner", spin), profile.dump("spinner"));
        long traced = profile.timeEndingWith("spinner", spin);
        assertTrue(Math.abs(traced - measured) <= measured / 10,
                "traced " + traced + " ns against " + measured + " ns measured\n" + profile.dump("spinner"));

        long blockedWall = profile.printed("blocked wall ns");
        long charged = profile.timeEndingWith("blocked", program("wallBlocked"));
        assertTrue(Math.abs(charged - blockedWall) <= blockedWall / 10,
                "charged " + charged + " ns against " + blockedWall + " ns blocked\n" + profile.dump("blocked"));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void withSampledTimesTheCountsStayExactAndTheSamplesTimeTheSpin(Path jdk) throws Exception {
        // The probes record known calls without ourLock here as well, while the sampler's drains
        // read the same threads' frames.
        CpuProfile profile = traced(jdk, SAMPLED_TIMES);
        String loop = program("countLoop");
        assertEquals(1, profile.countEndingWith("counter", loop), profile.dump("counter"));
        assertEquals(TICKS, profile.countEndingWith("counter", loop, program("tick")), profile.dump("counter"));
        assertEquals(TICKS, profile.countEndingWith("counter", loop, program("tick"), program("lcg")),
                profile.dump("counter"));
        String app = program("appWork");
        String outer = "com.kestrix.programs.lib.LibA.outer";
        assertEquals(LIBRARY_CALLS, profile.countEndingWith("library", app, outer), profile.dump("library"));
        assertEquals(LIBRARY_CALLS, profile.countEndingWith("library", app, outer, program("callback")),
                profile.dump("library"));

        // A second of spinning at the 20 ms default period: some 50 samples, each standing for the
        // CPU its thread burned since the one before.
        long measured = profile.printed("spinner cpu ns");
        String spin = program("spinFor");
        assertEquals(1, profile.countEndingWith("spinner", spin), profile.dump("spinner"));
        long sampled = profile.timeEndingWith("spinner", spin);
        assertTrue(Math.abs(sampled - measured) <= measured / 10 + 40_000_000L,
                "sampled " + sampled + " ns against " + measured + " ns measured\n" + profile.dump("spinner"));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void aWallTimeCallOfAThreadThatEndedBeforeTheSnapshotRaisesItsCallers(Path jdk) throws Exception {
        CpuProfile profile = traced(jdk);
        // "blocked" ends long before the exit snapshot, and far fewer threads die than are folded.
        List<CpuProfile.Node> blocked = profile.endingWith("blocked", program("wallBlocked"));
        assertEquals(1, blocked.size(), profile.dump("blocked"));
        CpuProfile.Node wall = blocked.get(0);
        List<CpuProfile.Node> callers = profile.callersOf("blocked", wall);
        assertTrue(!callers.isEmpty(), profile.dump("blocked"));
        for (CpuProfile.Node caller : callers) {
            assertTrue(caller.time >= wall.time, "a caller below its wall-timed callee: " + caller + "\n"
                    + profile.dump("blocked"));
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void filteredCallsCollapseIntoTheFirstFilteredMethodAndCallbacksHangUnderIt(Path jdk) throws Exception {
        CpuProfile profile = traced(jdk);
        String app = program("appWork");
        String outer = "com.kestrix.programs.lib.LibA.outer";
        String callback = program("callback");
        assertEquals(LIBRARY_CALLS, profile.countEndingWith("library", app, outer), profile.dump("library"));
        assertEquals(LIBRARY_CALLS, profile.countEndingWith("library", app, outer, callback), profile.dump("library"));
        assertTrue(profile.through("library", "com.kestrix.programs.lib.LibA.inner").isEmpty(), profile.dump("library"));
        assertTrue(profile.through("library", "com.kestrix.programs.lib.LibB.deep").isEmpty(), profile.dump("library"));

        // The JDK's sort is one node, whatever it calls inside, with the comparator right under it.
        // Which JDK method that node is depends on which sort classes carry probes: those loaded
        // before the agent's hook don't.
        String sortWork = program("sortWork");
        String compare = "com.kestrix.programs.CpuScenarios$ByValue.compare";
        List<CpuProfile.Node> comparisons = profile.nodes("library").stream()
                .filter(n -> n.path.size() >= 3 && n.path.get(n.path.size() - 3).equals(sortWork)
                        && n.path.get(n.path.size() - 2).startsWith("java.util.") && n.last().equals(compare))
                .toList();
        assertEquals(1, comparisons.size(), profile.dump("library"));
        assertTrue(comparisons.get(0).count > 0, profile.dump("library"));

        // No thread of the program has two filtered methods in a row anywhere on a path.
        for (String thread : new String[] {"library", "counter", "spinner", "main"}) {
            for (CpuProfile.Node node : profile.nodes(thread)) {
                for (int i = 1; i < node.path.size(); i++) {
                    assertTrue(!(isFiltered(node.path.get(i - 1)) && isFiltered(node.path.get(i))),
                            node + "\n" + profile.dump(thread));
                }
            }
        }
    }
}
