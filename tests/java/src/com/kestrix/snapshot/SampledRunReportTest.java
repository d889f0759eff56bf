package com.kestrix.snapshot;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.KjpRunner;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** A real JVM sampled from start to exit: kjp finds the method the program burns its CPU in. */
class SampledRunReportTest {
    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void hotMethodLeadsTheReportAndItsPathIsTheProgramsStructure(Path jdk, @TempDir Path dir) throws Exception {
        // Sampling alone asks for the exit snapshot: a running measurement is never lost.
        Jvm.Result run = Jvm.run(jdk, 120, Jvm.agentArgument("sampling,dir=" + dir), "-cp",
                Jvm.programs().toString(), "com.kestrix.programs.HotLoop", "1500");
        assertEquals(0, run.exitCode, run.toString());
        Path snapshot;
        try (Stream<Path> files = Files.list(dir)) {
            snapshot = files.filter(f -> f.toString().endsWith(".snapshot")).findFirst().orElseThrow();
        }

        String report = KjpRunner.succeed("report", "--thread", "hot", snapshot.toString());
        String firstHotSpot = report.substring(report.indexOf("Hot spots by own time")).lines().skip(2).findFirst()
                .orElse("");
        assertTrue(firstHotSpot.endsWith("  com.kestrix.programs.HotLoop.burn(int)"), report);
        assertTrue(report.contains("\nCPU       sampling; "), report);

        // In folded form the heaviest path of the thread is Burner.run calling burn.
        String folded = KjpRunner.succeed("collapsed", "--thread", "hot", snapshot.toString());
        String heaviest = folded.lines()
                .max(Comparator.comparingLong(line -> Long.parseLong(line.substring(line.lastIndexOf(' ') + 1))))
                .orElse("");
        assertTrue(heaviest.startsWith("hot;"), folded);
        assertTrue(heaviest.contains(";com.kestrix.programs.HotLoop$Burner.run();com.kestrix.programs.HotLoop.burn(int) "),
                folded);

        // The agent's own threads stay out of the views unless asked for.
        String all = KjpRunner.succeed("report", snapshot.toString());
        assertFalse(all.contains("KJPAgent-"), all);
        assertFalse(all.contains("\nFilters "), "sampling folds no calls: " + all);
        assertTrue(all.contains(" hot "), all);
        String withAgent = KjpRunner.succeed("report", "--agent", snapshot.toString());
        assertTrue(withAgent.contains("KJPAgent-RequestListener"), withAgent);
    }
}
