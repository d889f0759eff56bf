package com.kestrix.connect;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import com.kestrix.tools.connect.AgentClient;
import com.kestrix.tools.connect.TableUpdate;
import com.kestrix.tools.snapshot.TableLayout;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** The agent's background services seen from a client: telemetry, the memory threshold, periodic capture. */
class AgentServicesTest {
    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void telemetryRowsArriveOnceASecondWithPlausibleValues(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = LiveAgent.start(jdk, dir, null)) {
            // A collector may show no heap in use until a few regions are full: the program fills some.
            agent.command("grow 1", 60);
            List<long[]> rows = new ArrayList<>();
            int stamp = 0;
            long end = System.nanoTime() + 4_500_000_000L;
            int lastIndex = -1;
            while (System.nanoTime() < end) {
                try (AgentClient client = AgentClient.connect("localhost", agent.port())) {
                    int[] stamps = new int[32];
                    Arrays.fill(stamps, stamp);
                    TableUpdate update = client.updateTables(1 << TableLayout.TELE.id, stamps);
                    for (TableUpdate.Row row : update.rows(TableLayout.TELE.id)) {
                        assertTrue(row.index() > lastIndex, "rows come once, in order");
                        lastIndex = row.index();
                        rows.add(row.values());
                    }
                    stamp = Math.max(stamp, update.maxStamp());
                }
                Thread.sleep(300);
            }
            assertTrue(rows.size() >= 4 && rows.size() <= 9, rows.size() + " rows in about 5 s");
            assertTrue(rows.get(rows.size() - 1)[0] > 0, "a running program uses heap");
            for (int i = 0; i < rows.size(); i++) {
                long[] v = rows.get(i);
                // Right at start-up a collector may count no region as used yet.
                assertTrue(v[0] >= 0 && v[1] > 0 && v[1] >= v[0], "heap used " + v[0] + " KB, committed " + v[1]
                        + " KB");
                assertTrue(v[2] > 0, "non-heap used");
                assertTrue(v[4] > 300, "loaded classes " + v[4]);
                assertTrue(v[5] >= 2 && v[6] >= 1 && v[6] < v[5], "threads " + v[5] + ", daemon " + v[6]);
                assertEquals(Runtime.getRuntime().availableProcessors(), v[11], "processors");
                assertTrue(v[10] >= 0 && v[9] >= 0, "CPU and GC times");
                if (i > 0) {
                    long step = v[12] - rows.get(i - 1)[12];
                    assertTrue(step >= 5 && step <= 20, "uptime step " + step + " tenths of a second");
                    assertTrue(v[10] >= rows.get(i - 1)[10], "process CPU time never goes back");
                }
            }

            LiveAgent.Run view = agent.kjp("telemetry", "--count", "3");
            assertEquals(0, view.status(), view.toString());
            List<String> lines = view.out().lines().toList();
            assertEquals(4, lines.size(), view.out());
            assertTrue(lines.get(0).strip().startsWith("Uptime"), view.out());
            for (String line : lines.subList(1, 4)) {
                assertTrue(line.matches(" *[0-9.,]+ s +[0-9.,]+ MB +[0-9.,]+ MB +[0-9.,]+ MB +[0-9.,]+ MB .* ms"), line);
            }
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void theMemoryThresholdCapturesOnceAndSwitchesOff(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = LiveAgent.start(jdk, dir, null, "-Xmx96m", "-XX:+UseSerialGC")) {
            assertEquals("Memory threshold: off\n", agent.kjpOk("threshold"));
            LiveAgent.Run refused = agent.kjp("threshold", "100");
            assertEquals(1, refused.status(), refused.toString());
            assertEquals("Bad threshold value: 100. Should not be more than 99; 0 means turn off\n", refused.err());
            assertEquals("Memory threshold: 50% of the heap\n", agent.kjpOk("threshold", "50"));

            agent.command("grow 70", 120);
            long end = System.nanoTime() + 60_000_000_000L;
            while (agent.snapshots("low-memory").isEmpty() && System.nanoTime() < end) {
                Thread.sleep(200);
            }
            assertEquals(1, agent.snapshots("low-memory").size(), agent.toString());
            while (!agent.kjpOk("threshold").equals("Memory threshold: off\n") && System.nanoTime() < end) {
                Thread.sleep(200);
            }
            assertEquals("Memory threshold: off\n", agent.kjpOk("threshold"));
            // More growth crosses no threshold: there is none any more.
            agent.command("grow 80", 120);
            agent.command("gc", 60);
            Thread.sleep(1000);
            assertEquals(1, agent.snapshots("low-memory").size(), agent.toString());
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void periodicCaptureRunsOnItsTimerUntilSwitchedOff(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = LiveAgent.start(jdk, dir, null)) {
            assertEquals("Periodic capture: off\n", agent.kjpOk("periodic"));
            assertEquals("Periodic capture: every 1 s, 0 captured (maximum 2)\n", agent.kjpOk("periodic", "1", "2"));
            Thread.sleep(3600);
            String status = agent.kjpOk("periodic");
            assertTrue(status.matches("Periodic capture: every 1 s, [3-4] captured \\(maximum 2\\)\n"),
                    "the maximum is not enforced by the agent: " + status);
            assertEquals("Periodic capture: off\n", agent.kjpOk("periodic", "off"));
            int files = agent.snapshots("periodic").size();
            assertTrue(files >= 3, files + " periodic snapshots\n" + agent);
            Thread.sleep(2000);
            assertEquals(files, agent.snapshots("periodic").size(), "the timer has stopped");
        }
    }
}
