package com.kestrix.cpu;

import static com.kestrix.cpu.CpuProfile.program;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** CPU sampling of real JVMs, read back from the exit snapshot. */
class SampledCpuTest {
    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void twoThreadsKeepTheirHotMethodsApartAndASpinGetsItsOwnCPUTime(Path jdk, @TempDir Path dir) throws Exception {
        CpuProfile profile = CpuProfile.record(jdk, dir, "sampling", "apart:800", "spin:1500");

        String alpha = program("alphaWork");
        String beta = program("betaWork");
        long alphaTime = profile.timeEndingWith("alpha", alpha);
        long betaTime = profile.timeEndingWith("beta", beta);
        // Each thread burnt 800 ms in its method; samples land in the right thread only.
        assertTrue(alphaTime > 600_000_000L && alphaTime < 1_000_000_000L, profile.dump("alpha"));
        assertTrue(betaTime > 600_000_000L && betaTime < 1_000_000_000L, profile.dump("beta"));
        assertTrue(profile.through("alpha", beta).isEmpty(), profile.dump("alpha"));
        assertTrue(profile.through("beta", alpha).isEmpty(), profile.dump("beta"));
        assertTrue(alphaTime >= profile.threadTime("alpha") * 9 / 10, profile.dump("alpha"));

        // The spinner measured the CPU time of its one call; the samples add up to it.
        long measured = profile.printed("spinner cpu ns");
        long sampled = profile.timeEndingWith("spinner", program("spinFor"));
        assertTrue(Math.abs(sampled - measured) <= measured / 10,
                "sampled " + sampled + " ns against " + measured + " ns measured\n" + profile.dump("spinner"));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void waitingThreadsGetNoTimeEvenUnderWallTimeMethodsWhileABlockedOneGetsWallTime(Path jdk, @TempDir Path dir)
            throws Exception {
        // Every waiting room is measured in wall time: only the wait list keeps the idle
        // threads from being charged for the whole wait.
        Path wallTime = Files.writeString(dir.resolve("walltime.txt"),
                "# the idle scenario's methods\n" + CpuProfile.PROGRAM + " waitingRoom* *\n" + CpuProfile.PROGRAM
                        + " wallBlocked *\n");
        Path snapshots = Files.createDirectory(dir.resolve("snapshots"));
        long idleMillis = 1500;
        CpuProfile profile = CpuProfile.record(jdk, snapshots, "sampling,walltimespec=" + wallTime, "idle:" + idleMillis);

        String[][] rooms = {{"sleeper", "waitingRoomSleep"}, {"waiter", "waitingRoomWait"},
                {"parker", "waitingRoomPark"}, {"acceptor", "waitingRoomAccept"}};
        for (String[] room : rooms) {
            String thread = room[0];
            // A sample may catch the thread on its way into the wait, never for long.
            long inRoom = profile.timeEndingWith(thread, program(room[1]));
            assertTrue(inRoom < idleMillis * 1_000_000L / 10, inRoom + " ns\n" + profile.dump(thread));
            long total = profile.threadTime(thread);
            assertTrue(total < idleMillis * 1_000_000L / 10, total + " ns\n" + profile.dump(thread));
        }

        long blockedWall = profile.printed("blocked wall ns");
        assertTrue(blockedWall >= idleMillis * 1_000_000L, profile.run.toString());
        long charged = profile.timeEndingWith("blocked", program("wallBlocked"));
        assertTrue(Math.abs(charged - blockedWall) <= blockedWall / 10,
                "charged " + charged + " ns against " + blockedWall + " ns blocked\n" + profile.dump("blocked"));
        // Wall time flows up: the callers are raised to at least the wall-time method's figure.
        for (CpuProfile.Node node : profile.endingWith("blocked", program("wallBlocked"))) {
            for (CpuProfile.Node caller : profile.callersOf("blocked", node)) {
                assertTrue(caller.time >= node.time, caller + "\n" + profile.dump("blocked"));
            }
        }
    }
}
