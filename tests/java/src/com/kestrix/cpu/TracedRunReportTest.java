package com.kestrix.cpu;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.KjpRunner;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** "kjp report" of a traced JVM: the hot method comes first, with its exact number of calls. */
class TracedRunReportTest {
    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void reportNamesTheHotMethodWithItsInvocationCount(Path jdk, @TempDir Path dir) throws Exception {
        CpuProfile profile = CpuProfile.record(jdk, dir, "tracing", "count:4321");
        String report = KjpRunner.succeed("report", "--thread", "counter", profile.file.toString());
        assertTrue(report.contains("\nCPU       tracing, with invocation counts; "), report);
        // No filter file was given: the report says which calls the defaults folded.
        assertTrue(report.contains("\nFilters   the defaults (com.sun.*, java.*, javax.*, jdk.*, sun.*, jrockit.*): "),
                report);
        List<String> hotSpots = report.substring(report.indexOf("Hot spots by own time")).lines().skip(2)
                .takeWhile(line -> !line.isEmpty()).toList();
        assertTrue(!hotSpots.isEmpty(), report);
        // lcg does the work of every tick: 4321 calls, none missing, none extra.
        assertTrue(hotSpots.get(0).endsWith(" 4,321  com.kestrix.programs.CpuScenarios.lcg(long, int)"), report);
        assertTrue(hotSpots.stream().anyMatch(
                line -> line.endsWith(" 4,321  com.kestrix.programs.CpuScenarios.tick()")), report);
        assertTrue(hotSpots.stream().anyMatch(
                line -> line.endsWith(" 1  com.kestrix.programs.CpuScenarios.countLoop(int)")), report);

        // Paths keep their deepest frames and say how many were left out; --paths 0 leaves them out.
        String shallow = KjpRunner.succeed("report", "--thread", "counter", "--paths", "1", "--path-depth", "2",
                profile.file.toString());
        List<String> path = shallow.substring(shallow.indexOf("Hottest call paths")).lines().skip(1).toList();
        assertTrue(path.get(0).endsWith("  com.kestrix.programs.CpuScenarios.lcg(long, int)"), shallow);
        assertTrue(path.get(1).endsWith("<- com.kestrix.programs.CpuScenarios.tick()"), shallow);
        assertTrue(path.get(2).matches(" +<- \\.\\.\\. \\d+ more frames? \\(--path-depth\\)"), shallow);
        String none = KjpRunner.succeed("report", "--paths", "0", profile.file.toString());
        assertTrue(!none.contains("Hottest call paths") && none.contains("Hot spots by own time"), none);
    }
}
