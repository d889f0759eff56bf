package com.kestrix.core;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** The Java runtime inside the agent: defined at VM Init, its natives registered, Core.init run. */
class RuntimeStartTest {
    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void runtimeComesUpAndItsNativesAnswer(Path jdk, @TempDir Path snapshots) throws Exception {
        Jvm.Result result = Jvm.run(jdk, 120, Jvm.agentArgument("dir=" + snapshots), "-cp",
                Jvm.programs().toString(), "com.kestrix.programs.CoreProbe");
        assertEquals(0, result.exitCode, result.toString());
        String expected = String.join("\n",
                "core loader is system: true",
                "agent port bound: true",
                "status: 512",
                "monitors: 0 3 640",
                "status after stop: 512",
                "tracing without times: (mode & ProfilingModes::CPU_TIMES_BIT) != 0 (8, 0)",
                "uptime positive: true",
                "host id given: true",
                "statistics given: true",
                "null socket: -1",
                "unconnected socket: -1",
                "socket to agent: ok",
                "client socket: ok",
                "accepted socket: ok",
                "");
        assertEquals(expected, findings(result.stdout), result.toString());
        assertTrue(result.stderr.contains("Profiler agent is listening on port "), result.toString());
        assertFalse(result.stderr.contains("assertJNI failed"), result.toString());
        // Nothing ran at the end, so nothing was written there.
        try (Stream<Path> files = Files.list(snapshots)) {
            assertEquals(0, files.count(), result.toString());
        }
    }

    private static String findings(String stdout) {
        StringBuilder result = new StringBuilder();
        for (String line : stdout.split("\n")) {
            if (line.startsWith("probe: ")) {
                result.append(line.substring("probe: ".length())).append('\n');
            }
        }
        return result.toString();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void aPortThatCannotBeBoundEndsTheJvm(Path jdk) throws Exception {
        try (ServerSocket taken = new ServerSocket(0, 5, InetAddress.getByName("0.0.0.0"))) {
            Jvm.Result result = Jvm.run(jdk, 120, Jvm.agentArgument("port=" + taken.getLocalPort()), "-cp",
                    Jvm.programs().toString(), "com.kestrix.programs.Hello");
            assertEquals(255, result.exitCode, result.toString());
            assertTrue(result.stderr.contains("cannot listen on port " + taken.getLocalPort()), result.toString());
            assertFalse(result.stdout.contains("hello from"), result.toString());
        }
    }
}
