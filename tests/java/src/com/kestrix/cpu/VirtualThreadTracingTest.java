package com.kestrix.cpu;

import static com.kestrix.cpu.CpuProfile.program;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.kestrix.test.Jvm;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Tracing in a JVM that runs virtual threads. Their code runs on carrier threads; a call made
 * by a virtual thread must never be charged to the carrier it happened to run on, however
 * often it moves between carriers, while platform threads are traced as anywhere else.
 */
class VirtualThreadTracingTest {
    static final int TIMES = 3000;

    @TempDir
    Path myDir;

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void callsOfVirtualThreadsStayOffTheirCarriers(Path jdk) throws Exception {
        assumeTrue(Jvm.majorVersion(jdk) >= 21, "no virtual threads before Java 21");
        Path snapshots = Files.createDirectory(myDir.resolve("snapshots"));
        CpuProfile profile = CpuProfile.record(jdk, snapshots, "tracing", "virtual:" + TIMES);
        String loop = program("virtualLoop");
        String tick = program("tick");
        assertEquals(TIMES, profile.countEndingWith("platform", loop, tick), profile.dump("platform"));
        assertEquals(1, profile.countEndingWith("platform", loop), profile.dump("platform"));
        for (String thread : profile.threads()) {
            if (!thread.equals("platform")) {
                assertTrue(profile.through(thread, loop).isEmpty() && profile.through(thread, tick).isEmpty(),
                        profile.dump(thread));
            }
        }
    }
}
