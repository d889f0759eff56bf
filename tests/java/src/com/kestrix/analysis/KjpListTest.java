package com.kestrix.analysis;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.KjpRunner;
import com.kestrix.test.LiveAgent;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** kjp list finds the JVMs of this machine that run the agent through their shared-memory markers. */
class KjpListTest {
    static LiveAgent start(Path jdk, Path dir, String session) throws Exception {
        int port = LiveAgent.freePort();
        LiveAgent agent = LiveAgent.launch(jdk, dir, "port=" + port + ",dir=" + dir + ",sessionname=" + session, port);
        agent.awaitStderr(LiveAgent.LISTENING + port + "...", 60);
        agent.awaitStdout("ready", 60);
        return agent;
    }

    @Test
    void listsRunningAgentsAndForgetsOneThatEnded(@TempDir Path dir) throws Exception {
        List<Path> jdks = Jvm.jdks();
        // The two JVMs on different JDKs where there are two: the marker is one format for all.
        try (LiveAgent first = start(jdks.get(0), dir, "ListedFirst");
                LiveAgent second = start(jdks.get(jdks.size() - 1), dir, "ListedSecond")) {
            String text = KjpRunner.succeed("list");
            assertTrue(text.startsWith("PORT   PID      SESSION\n"), text);
            String json = KjpRunner.succeed("list", "--format", "json");
            for (LiveAgent agent : List.of(first, second)) {
                String session = agent == first ? "ListedFirst" : "ListedSecond";
                assertTrue(text.contains(String.format("%n%-7d%-9d%s%n", agent.port(), agent.pid(), session)), text);
                assertTrue(json.contains("{\"port\":" + agent.port() + ",\"pid\":" + agent.pid() + ",\"session\":\""
                        + session + "\"}"), json);
            }
            assertEquals(0, second.exit(60), second.toString());
            text = KjpRunner.succeed("list");
            assertTrue(text.matches("(?s).*\\n" + first.port() + " +\\d+ +ListedFirst\\n.*"), text);
            assertFalse(text.contains("\n" + second.port() + " "), text);
            assertFalse(text.contains("ListedSecond"), text);
        }
        KjpRunner.Result run = KjpRunner.run("list", "some.snapshot");
        assertEquals(2, run.status());
        assertEquals("kjp: list takes no snapshot file\nRun 'kjp --help' for the commands and options.\n", run.err());
    }
}
