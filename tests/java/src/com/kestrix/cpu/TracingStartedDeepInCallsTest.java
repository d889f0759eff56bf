package com.kestrix.cpu;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Tracing started from the client while a thread is 20 calls deep: the thread's first traced
 * entry finds no shadow stack and rebuilds it from the real one, so its path runs from run() all
 * the way down, once.
 */
class TracingStartedDeepInCallsTest {
    static final String PROGRAM = "com.kestrix.programs.DeepStacks";
    static final int DEPTH = 20;

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void theRebuiltPathRunsFromRunDownOnceAndNewCallsHangUnderIt(Path jdk, @TempDir Path dir) throws Exception {
        int port = LiveAgent.freePort();
        String capture;
        try (LiveAgent agent = LiveAgent.launchProgram(jdk, dir, "port=" + port + ",dir=" + dir, port, PROGRAM)) {
            agent.awaitStderr(LiveAgent.LISTENING + port, 60);
            agent.awaitStdout("deep ready", 60);
            assertEquals("CPU tracing started\n", agent.kjpOk("start-cpu", "tracing"));
            // The deep thread runs traced for a while, its stack rebuilt at the first step().
            Thread.sleep(1500);
            capture = agent.kjpOk("capture").strip();
            assertEquals(0, agent.exit(120), agent.toString());
            assertTrue(agent.stdout().contains("deep done "), agent.toString());
        }

        CpuProfile profile = CpuProfile.read(Path.of(capture));
        String deep = PROGRAM + "$Deep.run";
        String descend = PROGRAM + ".descend";
        String bottom = PROGRAM + ".bottom";
        String step = PROGRAM + ".step";
        List<String> chain = new ArrayList<>();
        chain.add(deep);
        chain.addAll(Collections.nCopies(DEPTH, descend));
        chain.add(bottom);

        List<CpuProfile.Node> steps = profile.endingWith("deep", bottom, step);
        assertEquals(1, steps.size(), profile.dump("deep"));
        CpuProfile.Node stepNode = steps.get(0);
        List<String> expected = new ArrayList<>(chain);
        expected.add(step);
        assertEquals(expected, stepNode.path, "the path must start at run(), the thread's first frame\n"
                + profile.dump("deep"));
        assertTrue(stepNode.count > 0 && stepNode.time > 0, profile.dump("deep"));

        // Every other node of the thread is one of the callers on that path, each once, with no
        // count (their entries happened before tracing) and a time that includes its callee's.
        List<CpuProfile.Node> callers = new ArrayList<>(profile.nodes("deep"));
        callers.remove(stepNode);
        assertEquals(chain.size(), callers.size(), "no second copy of the chain\n" + profile.dump("deep"));
        callers.sort((a, b) -> Integer.compare(a.path.size(), b.path.size()));
        long below = Long.MAX_VALUE;
        for (int depth = 0; depth < chain.size(); depth++) {
            CpuProfile.Node node = callers.get(depth);
            assertEquals(chain.subList(0, depth + 1), node.path, profile.dump("deep"));
            assertEquals(0, node.count, node + "\n" + profile.dump("deep"));
            assertTrue(node.time >= stepNode.time && node.time <= below, node + "\n" + profile.dump("deep"));
            below = node.time;
        }
    }
}
