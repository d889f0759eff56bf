package com.kestrix.runtime;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.BufferedReader;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

import com.kestrix.test.Jvm;

/**
 * A JVM whose heap has no pool that takes a usage threshold (the Epsilon collector) can't be
 * watched for used memory. The application must run all the same, with usedmem= given or not,
 * and a client asking for a threshold hears why it can't have one.
 */
class HeapWatchUnavailableTest {
    private static final String UNAVAILABLE =
            "Capture on used memory threshold is not available with this JVM: Could not find tenured space";

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void anUnwatchableHeapLeavesTheApplicationRunning(Path jdk, @TempDir Path dir) throws Exception {
        int port;
        try (ServerSocket probe = new ServerSocket(0)) {
            port = probe.getLocalPort();
        }
        Path stderr = dir.resolve("stderr");
        ProcessBuilder builder = new ProcessBuilder(jdk.resolve("bin").resolve("java").toString(),
                "-XX:+UnlockExperimentalVMOptions", "-XX:+UseEpsilonGC", "-Xms256m", "-Xmx256m",
                Jvm.agentArgument("port=" + port + ",dir=" + dir + ",usedmem=50"),
                "-cp", Jvm.programs().toString(), "com.kestrix.programs.Remote");
        builder.redirectError(stderr.toFile());
        Process process = builder.start();
        try {
            BufferedReader stdout = new BufferedReader(
                    new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
            // The JVM itself may warn about the Epsilon heap on standard output first.
            String line;
            do {
                line = stdout.readLine();
            } while (line != null && !line.equals("ready"));
            assertEquals("ready", line, Files.readString(stderr));
            String log = Files.readString(stderr);
            assertTrue(log.contains("[Kestrix Java Profiler 8.0.1] " + UNAVAILABLE + "\n"), log);

            try (Socket socket = new Socket(InetAddress.getLoopbackAddress(), port)) {
                socket.setSoTimeout(30_000);
                DataInputStream in = new DataInputStream(socket.getInputStream());
                DataOutputStream out = new DataOutputStream(socket.getOutputStream());
                Packet.writeHeader(out, Protocol.PACKET_PACKET_SEQUENCE_START);
                Packet.writeHeader(out, Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ);
                Packet.writeInt(out, 50);
                Packet.writeHeader(out, Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ);
                Packet.writeHeader(out, Protocol.PACKET_PACKET_SEQUENCE_END);
                out.flush();
                PresentableException refused = org.junit.jupiter.api.Assertions.assertThrows(
                        PresentableException.class, () -> Packet.readHeader(in, Protocol.INCOMPATIBLE_AGENT_MESSAGE));
                assertEquals(UNAVAILABLE, refused.getMessage());
                Packet.readHeaderWithStandardResponse(in);
                assertEquals(0, in.readInt(), "nothing watches, so the threshold reads 0");
                assertEquals(-1, in.read());
            }

            OutputStream stdin = process.getOutputStream();
            stdin.write("exit\n".getBytes(StandardCharsets.UTF_8));
            stdin.flush();
            assertTrue(process.waitFor(60, TimeUnit.SECONDS), Files.readString(stderr));
            assertEquals(0, process.exitValue(), Files.readString(stderr));
        } finally {
            process.destroyForcibly();
            process.waitFor();
        }
    }
}
