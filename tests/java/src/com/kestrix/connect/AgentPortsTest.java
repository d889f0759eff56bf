package com.kestrix.connect;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import java.io.IOException;
import java.net.ServerSocket;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Where the agent listens: the default ports in order, the port of port=, and what happens when
 * that one is taken. Other tests start agents on the default ports at the same time, so these
 * tests hold the ports they depend on, or give up when someone else holds them.
 */
class AgentPortsTest {
    private static final Pattern LISTENING = Pattern.compile("Profiler agent is listening on port (\\d+)\\.\\.\\.");

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    private static boolean isFree(int port) {
        try (ServerSocket socket = new ServerSocket(port)) {
            return true;
        } catch (IOException e) {
            return false;
        }
    }

    private static int listeningPort(LiveAgent agent) throws InterruptedException {
        agent.awaitStderr("Profiler agent is listening on port ", 60);
        agent.awaitStdout("ready", 60);
        Matcher m = LISTENING.matcher(agent.stderr());
        assertTrue(m.find(), agent.toString());
        return Integer.parseInt(m.group(1));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void theFirstDefaultPortServesInfo(Path jdk, @TempDir Path dir) throws Exception {
        Assumptions.assumeTrue(isFree(10001), "port 10001 is in use by something else");
        try (LiveAgent agent = LiveAgent.launch(jdk, dir, "dir=" + dir + ",sessionname=Ports First", 0)) {
            int port = listeningPort(agent);
            Assumptions.assumeTrue(port == 10001, "another JVM took port 10001 at the same time");
            String info = LiveAgent.connect("localhost:10001", "info").toString();
            assertTrue(info.startsWith("status 0\n"), info);
            assertTrue(info.contains("Protocol version    20081129\n"), info);
            assertTrue(info.contains("Product             Kestrix Java Profiler 8.0.1\n"), info);
            assertTrue(info.contains("Session name        Ports First\n"), info);
            assertTrue(info.contains("Snapshot directory  " + dir.toAbsolutePath() + "\n"), info);
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void withTheFirstDefaultPortTakenTheNextOneIsUsed(Path jdk, @TempDir Path dir) throws Exception {
        ServerSocket held;
        try {
            held = new ServerSocket(10001);
        } catch (IOException e) {
            held = null;
        }
        // Someone else's listener on 10001 does as well, as long as it stays there.
        Assumptions.assumeTrue(held != null || !isFree(10001), "port 10001 is neither ours nor taken");
        try (ServerSocket ignored = held) {
            boolean secondFree = isFree(10002);
            try (LiveAgent agent = LiveAgent.launch(jdk, dir, "dir=" + dir + ",sessionname=Ports Second", 0)) {
                int port = listeningPort(agent);
                // A listener of another test may have gone away before the agent started.
                Assumptions.assumeTrue(held != null || port != 10001, "the other listener on 10001 went away");
                assertNotEquals(10001, port, agent.toString());
                assertTrue(port >= 10002 && port <= 10010 || !secondFree, "port " + port + "\n" + agent);
                if (secondFree && held != null) {
                    // Only a JVM started in the same instant could have taken 10002 first.
                    Assumptions.assumeTrue(port == 10002, "another JVM took port 10002 at the same time");
                    assertEquals(10002, port);
                }
                String info = LiveAgent.connect("localhost:" + port, "info").toString();
                assertTrue(info.contains("Session name        Ports Second\n"), info);
            }
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void aTakenPortGivenByPortEndsTheStart(Path jdk, @TempDir Path dir) throws Exception {
        try (ServerSocket held = new ServerSocket(0)) {
            int port = held.getLocalPort();
            LiveAgent agent = LiveAgent.launch(jdk, dir, "port=" + port + ",dir=" + dir, port);
            try {
                int status = agent.waitFor(60);
                assertNotEquals(0, status, agent.toString());
                assertTrue(agent.stderr().contains(
                        "[Kestrix Java Profiler 8.0.1] Cannot start: cannot listen on port " + port + "\n"),
                        agent.toString());
                assertFalse(agent.stdout().contains("ready"), "the program must not run\n" + agent);
            } finally {
                agent.close();
            }
        }
    }

    @Test
    void aRefusedConnectionIsOneLine() throws Exception {
        int port = LiveAgent.freePort();
        LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "info");
        assertEquals(1, run.status(), run.toString());
        assertEquals("kjp connect: connection refused: no agent is listening on localhost:" + port + "\n", run.err());
    }
}
