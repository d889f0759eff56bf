package com.kestrix.connect;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import com.kestrix.tools.kjp.Kjp;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * A whole profiling round driven from the client: start CPU profiling in a JVM that runs
 * unprofiled, let it work, capture, fetch the file over the compressed transfer, and read it.
 */
class RemoteProfilingRoundTest {
    static List<Arguments> rounds() {
        List<Arguments> result = new ArrayList<>();
        for (Path jdk : Jvm.jdks()) {
            result.add(Arguments.of(jdk, "sampling"));
            result.add(Arguments.of(jdk, "tracing"));
        }
        return result;
    }

    @ParameterizedTest
    @MethodSource("rounds")
    void theFetchedSnapshotShowsTheHotMethod(Path jdk, String mode, @TempDir Path dir) throws Exception {
        Path agentDir = Files.createDirectory(dir.resolve("agent"));
        try (LiveAgent agent = LiveAgent.start(jdk, agentDir, null)) {
            assertTrue(agent.kjpOk("status").startsWith("CPU profiling         off\n"), agent.toString());
            assertEquals("CPU " + mode + " started\n", agent.kjpOk("start-cpu", mode));
            String status = agent.kjpOk("status");
            assertTrue(status.startsWith("CPU profiling         " + mode), status);

            agent.command("burn 1500", 120);
            String path = agent.kjpOk("capture").strip();
            assertTrue(path.startsWith(agentDir.toRealPath().toString() + "/Remote-"), path);
            assertTrue(path.endsWith(".snapshot"), path);

            Path local = dir.resolve("fetched.snapshot");
            String fetched = agent.kjpOk("fetch", path, "-o", local.toString());
            assertTrue(fetched.startsWith(local + " ("), fetched);
            assertEquals(Files.size(Path.of(path)), Files.size(local));
            assertEquals(-1L, Files.mismatch(Path.of(path), local), "the copy must equal the agent's file");

            String report = report(local);
            String firstHotSpot = report.substring(report.indexOf("Hot spots by own time")).lines().skip(2)
                    .findFirst().orElse("");
            assertTrue(firstHotSpot.endsWith("  com.kestrix.programs.HotLoop.burn(int)"), report);
            assertTrue(report.contains("\nCPU       " + mode), report);

            assertEquals("CPU profiling stopped\n", agent.kjpOk("stop-cpu"));
            assertTrue(agent.kjpOk("status").startsWith("CPU profiling         off\n"));
        }
    }

    private static String report(Path snapshot) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Kjp.run(new String[] {"report", "--thread", "hot", snapshot.toString()},
                new PrintStream(out, true, StandardCharsets.UTF_8), new PrintStream(err, true, StandardCharsets.UTF_8),
                ZoneId.of("UTC"));
        assertEquals(0, status, err.toString(StandardCharsets.UTF_8));
        return out.toString(StandardCharsets.UTF_8);
    }
}
