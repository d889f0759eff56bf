package com.kestrix.connect;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.Constants;
import com.kestrix.runtime.Packet;
import com.kestrix.runtime.Protocol;
import com.kestrix.test.LiveAgent;
import java.io.BufferedInputStream;
import java.io.BufferedOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Random;
import java.util.concurrent.atomic.AtomicReference;
import java.util.zip.Deflater;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * kjp connect against a scripted peer on a local socket: the client's reading of transfers,
 * progress and failures, independent of a real agent.
 */
class ConnectClientTest {
    /** What the peer does once the client's sequence and info request have arrived. */
    interface Script {
        void serve(DataInputStream in, DataOutputStream out) throws IOException;
    }

    /** Serves one connection with the script in the background; the port is returned. */
    private static int peer(ServerSocket server, boolean sendInfo, int version, Script script,
            AtomicReference<Throwable> failure) {
        Thread thread = new Thread(() -> {
            try (Socket socket = server.accept()) {
                DataInputStream in = new DataInputStream(new BufferedInputStream(socket.getInputStream()));
                DataOutputStream out = new DataOutputStream(new BufferedOutputStream(socket.getOutputStream()));
                if (sendInfo) {
                    assertEquals(Protocol.PACKET_PACKET_SEQUENCE_START, Packet.readHeader(in, "x"));
                    assertEquals(Protocol.PACKET_GET_AGENT_INFO_REQ, Packet.readHeader(in, "x"));
                    Packet.writeHeader(out, Protocol.PACKET_OK_RESP);
                    out.writeInt(version);
                    Packet.writeString(out, "Kestrix Java Profiler 8.0.1");
                    out.writeLong(2176);
                    Packet.writeString(out, "Fake");
                    out.writeLong(7);
                    Packet.writeString(out, "host");
                    Packet.writeString(out, "/snapshots");
                    out.writeLong(1234);
                    out.writeInt(3600);
                    out.flush();
                }
                script.serve(in, out);
                out.flush();
            } catch (Throwable e) {
                failure.set(e);
            }
        });
        thread.setDaemon(true);
        thread.start();
        return server.getLocalPort();
    }

    @Test
    void compressedBlocksInManyPiecesAndEmptyFilesArriveWhole(@TempDir Path dir) throws Exception {
        // Random bytes don't compress: each 131072-byte block needs more than one 65536-byte piece.
        byte[] content = new byte[131072 * 2 + 1000];
        new Random(5).nextBytes(content);
        for (byte[] file : new byte[][] {content, new byte[0]}) {
            AtomicReference<Throwable> failure = new AtomicReference<>();
            try (ServerSocket server = new ServerSocket(0)) {
                int port = peer(server, true, Constants.AGENT_PROTOCOL_VERSION, (in, out) -> {
                    assertEquals(Protocol.PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ, Packet.readHeader(in, "x"));
                    assertEquals("/snapshots/a.snapshot", Packet.readString(in));
                    Packet.writeHeader(out, Protocol.PACKET_OK_RESP);
                    out.writeLong(file.length);
                    sendCompressed(out, file);
                    out.flush();
                    assertEquals(Protocol.PACKET_PACKET_SEQUENCE_END, Packet.readHeader(in, "x"));
                }, failure);
                Path target = dir.resolve("copy-" + file.length + ".snapshot");
                LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "fetch", "/snapshots/a.snapshot", "-o",
                        target.toString());
                assertEquals(0, run.status(), run.toString());
                assertArrayEquals(file, Files.readAllBytes(target));
                assertTrue(run.err().contains("fetching [##############################] 100%"), run.err());
            }
            assertEquals(null, failure.get());
        }
    }

    private static void sendCompressed(DataOutputStream out, byte[] file) throws IOException {
        Deflater deflater = new Deflater(Deflater.DEFAULT_COMPRESSION, true);
        byte[] piece = new byte[Protocol.TRANSFER_COMPRESSED_CHUNK_SIZE];
        for (int start = 0; start < file.length; start += Protocol.TRANSFER_UNCOMPRESSED_CHUNK_SIZE) {
            int length = Math.min(Protocol.TRANSFER_UNCOMPRESSED_CHUNK_SIZE, file.length - start);
            deflater.reset();
            deflater.setInput(file, start, length);
            deflater.finish();
            int pieces = 0;
            while (true) {
                int n = deflater.deflate(piece);
                out.writeInt(n);
                if (n == 0) {
                    break;
                }
                out.write(piece, 0, n);
                pieces++;
            }
            assertTrue(length < 65536 || pieces > 1, "a full random block must take several pieces");
        }
        deflater.end();
    }

    @Test
    void captureFollowsTheProgressFramesAndPrintsThePath() throws Exception {
        AtomicReference<Throwable> failure = new AtomicReference<>();
        try (ServerSocket server = new ServerSocket(0)) {
            int port = peer(server, true, Constants.AGENT_PROTOCOL_VERSION, (in, out) -> {
                assertEquals(Protocol.PACKET_CAPTURE_SNAPSHOT_REQ, Packet.readHeader(in, "x"));
                assertEquals(17, in.readLong());
                for (int percent : new int[] {5, 50, 99}) {
                    Packet.writeHeader(out, Protocol.PACKET_PROGRESS);
                    out.writeInt(percent);
                }
                Packet.writeHeader(out, Protocol.PACKET_OK_RESP);
                Packet.writeString(out, "/snapshots/Fake-2025-01-31.hprof");
            }, failure);
            LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "capture", "--hprof");
            assertEquals(0, run.status(), run.toString());
            assertEquals("/snapshots/Fake-2025-01-31.hprof\n", run.out());
            assertTrue(run.err().contains("\rcapturing [" + "#".repeat(29) + " ]  99%"), run.err());
            assertTrue(run.err().endsWith("\rcapturing [" + "#".repeat(30) + "] 100%\n"), run.err());
        }
        assertEquals(null, failure.get());
    }

    @Test
    void theAgentsRefusalIsPrintedAsItWroteIt() throws Exception {
        AtomicReference<Throwable> failure = new AtomicReference<>();
        try (ServerSocket server = new ServerSocket(0)) {
            int port = peer(server, true, Constants.AGENT_PROTOCOL_VERSION, (in, out) -> {
                assertEquals(Protocol.PACKET_START_CPU_PROFILING_REQ, Packet.readHeader(in, "x"));
                assertEquals(12, in.readLong(), "tracing, and no J2EE without its capability");
                assertEquals(null, Packet.readString(in));
                assertEquals(null, Packet.readString(in));
                Packet.writeHeader(out, Protocol.PACKET_ERROR_RESP);
                Packet.writeString(out, "Tracing was explicitly disabled for this application on its startup");
            }, failure);
            LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "start-cpu", "tracing");
            assertEquals(1, run.status(), run.toString());
            assertEquals("Tracing was explicitly disabled for this application on its startup\n", run.err());
            assertEquals("", run.out());
        }
        assertEquals(null, failure.get());
    }

    @Test
    void anotherProtocolOrAnotherServerIsOneClearLine() throws Exception {
        AtomicReference<Throwable> failure = new AtomicReference<>();
        try (ServerSocket server = new ServerSocket(0)) {
            int port = peer(server, true, 20071015, (in, out) -> { }, failure);
            LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "status");
            assertEquals(1, run.status(), run.toString());
            assertEquals("kjp connect: protocol mismatch: the agent speaks protocol version 20071015, "
                    + "this kjp speaks 20081129\n", run.err());
        }
        try (ServerSocket server = new ServerSocket(0)) {
            int port = peer(server, false, 0, (in, out) -> {
                in.readFully(new byte[24]);
                out.write("HTTP/1.1 400 Bad Request\r\n\r\n".getBytes(java.nio.charset.StandardCharsets.US_ASCII));
            }, failure);
            LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "info");
            assertEquals(1, run.status(), run.toString());
            assertTrue(run.err().startsWith("kjp connect: the peer at localhost:" + port
                    + " is not a Kestrix agent (Invalid header magic number:"), run.err());
            assertEquals(1, run.err().lines().count(), run.err());
        }
        // An agent of an older version refuses the first request it doesn't know.
        try (ServerSocket server = new ServerSocket(0)) {
            int port = peer(server, false, 0, (in, out) -> {
                Packet.readHeader(in, "x");
                Packet.readHeader(in, "x");
                Packet.writeHeader(out, Protocol.PACKET_ERROR_RESP);
                Packet.writeString(out, "Unknown packet type: 103300. Reason: profiler agent and client version mismatch");
            }, failure);
            LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "info");
            assertEquals(1, run.status(), run.toString());
            assertEquals(Protocol.INCOMPATIBLE_AGENT_MESSAGE + "\n"
                    + "Unknown packet type: 103300. Reason: profiler agent and client version mismatch\n", run.err());
        }
        assertEquals(null, failure.get());
    }

    @Test
    void aBrokenCompressedStreamLeavesNoFileBehind(@TempDir Path dir) throws Exception {
        AtomicReference<Throwable> failure = new AtomicReference<>();
        try (ServerSocket server = new ServerSocket(0)) {
            int port = peer(server, true, Constants.AGENT_PROTOCOL_VERSION, (in, out) -> {
                Packet.readHeader(in, "x");
                Packet.readString(in);
                Packet.writeHeader(out, Protocol.PACKET_OK_RESP);
                out.writeLong(100);
                out.writeInt(4);
                out.writeInt(0x12345678);
                out.writeInt(0);
            }, failure);
            Path target = dir.resolve("broken.snapshot");
            LiveAgent.Run run = LiveAgent.connect("localhost:" + port, "fetch", "/snapshots/a.snapshot", "-o",
                    target.toString());
            assertEquals(1, run.status(), run.toString());
            assertTrue(run.err().endsWith("%\n" + Protocol.INCORRECT_DATA_FROM_AGENT_MESSAGE
                    + "\ncompressed block ends early, after 3 of 100 bytes\n"), run.err());
            try (var files = Files.list(dir)) {
                assertFalse(files.findAny().isPresent(), "no partial file may stay");
            }
        }
        assertEquals(null, failure.get());
    }
}
