package com.kestrix.runtime;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.EOFException;
import java.io.IOException;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.net.SocketTimeoutException;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.zip.Deflater;
import java.util.zip.Inflater;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

/** The parts of request handling that need no agent behind them. */
class RequestProcessingTest {
    private interface Writing {
        void write(DataOutputStream out) throws IOException;
    }

    private static DataInputStream dispatch(Writing request) throws IOException {
        ByteArrayOutputStream requestBytes = new ByteArrayOutputStream();
        DataOutputStream requestOut = new DataOutputStream(requestBytes);
        request.write(requestOut);
        requestOut.flush();
        ByteArrayOutputStream response = new ByteArrayOutputStream();
        DataOutputStream out = new DataOutputStream(response);
        RequestProcessing.dispatchRequest(new DataInputStream(new ByteArrayInputStream(requestBytes.toByteArray())),
                out, null);
        out.flush();
        return new DataInputStream(new ByteArrayInputStream(response.toByteArray()));
    }

    private static String readError(DataInputStream in) throws IOException {
        assertEquals(Protocol.MAGIC, in.readLong());
        assertEquals(Protocol.PACKET_ERROR_RESP, in.readInt());
        return Packet.readString(in);
    }

    @Test
    void unknownTypeIsAnErrorAndEndsTheConnection() throws IOException {
        DataInputStream in = dispatch(out -> {
            Packet.writeHeader(out, 424242);
            Packet.writeHeader(out, Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ);
        });
        assertEquals("Unknown packet type: 424242. Reason: profiler agent and client version mismatch",
                readError(in));
        assertEquals(-1, in.read(), "only one request per connection outside a sequence");
    }

    @Test
    void thresholdsOutsideTheRangeOfTheOptionAreRefusedAsTheOptionIs() throws IOException {
        for (int threshold : new int[] {1, 5, 49, 91, 95, 99}) {
            DataInputStream in = dispatch(out -> {
                Packet.writeHeader(out, Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ);
                Packet.writeInt(out, threshold);
            });
            assertEquals("usedmem parameter is invalid; should be an integer in the range 50..90", readError(in),
                    String.valueOf(threshold));
        }
    }

    @Test
    void sequenceCarriesSeveralRequestsAndItsEndAloneIsHarmless() throws IOException {
        DataInputStream lone = dispatch(out -> Packet.writeHeader(out, Protocol.PACKET_PACKET_SEQUENCE_END));
        assertEquals(-1, lone.read(), "no frame at all");

        DataInputStream in = dispatch(out -> {
            Packet.writeHeader(out, Protocol.PACKET_PACKET_SEQUENCE_START);
            Packet.writeHeader(out, Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ);
            Packet.writeInt(out, 100);
            Packet.writeHeader(out, Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ);
            Packet.writeInt(out, 0);
            Packet.writeHeader(out, Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ);
            Packet.writeHeader(out, Protocol.PACKET_PERIODICAL_CAPTURE_SETUP_REQ);
            Packet.writeLong(out, -1);
            Packet.writeInt(out, 0);
            Packet.writeHeader(out, Protocol.PACKET_PERIODICAL_CAPTURE_GET_STATUS_REQ);
            Packet.writeHeader(out, Protocol.PACKET_PACKET_SEQUENCE_END);
            Packet.writeHeader(out, Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ);
        });
        assertEquals("Bad threshold value: 100. Should not be more than 99; 0 means turn off", readError(in));
        Packet.readHeaderWithStandardResponse(in);
        Packet.readHeaderWithStandardResponse(in);
        assertEquals(0, in.readInt());
        Packet.readHeaderWithStandardResponse(in);
        Packet.readHeaderWithStandardResponse(in);
        assertEquals(-1, in.readLong());
        assertEquals(0, in.readInt());
        assertEquals(0, in.readInt());
        assertEquals(-1, in.read(), "the request after the end of the sequence is not served");
    }

    @Test
    void brokenFramesEndTheConnectionWithAnIOException() {
        assertThrows(IOException.class, () -> dispatch(out -> out.writeLong(42)));
        assertThrows(EOFException.class, () -> dispatch(out -> out.writeInt(7)));
        assertThrows(EOFException.class, () -> dispatch(out -> {
            Packet.writeHeader(out, Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ);
            out.writeShort(1);
        }));
    }

    @Test
    void threadDumpListsLiveThreadsWithTheirStacks() throws Exception {
        Thread sleeper = new Thread(() -> {
            try {
                Thread.sleep(60000);
            } catch (InterruptedException e) {
                // done
            }
        }, "dump-test-sleeper");
        sleeper.start();
        try {
            long deadline = System.nanoTime() + 10_000_000_000L;
            while (sleeper.getState() != Thread.State.TIMED_WAITING && System.nanoTime() < deadline) {
                Thread.sleep(5);
            }
            DataInputStream in = dispatch(out -> Packet.writeHeader(out, Protocol.PACKET_GET_JVM_THREAD_DUMP_REQ));
            Packet.readHeaderWithStandardResponse(in);
            assertTrue(in.readLong() >= 0);
            int count = in.readInt();
            ThreadInfoRes found = null;
            for (int i = 0; i < count; i++) {
                ThreadInfoRes info = ThreadInfoRes.read(in);
                if (info.myThreadName.equals("dump-test-sleeper")) {
                    found = info;
                }
            }
            assertEquals(-1, in.read(), "the count matches the threads written");
            assertTrue(found != null);
            assertEquals(sleeper.getId(), found.myThreadId);
            assertEquals(Thread.State.TIMED_WAITING.ordinal(), found.myState);
            assertTrue(found.myStackTrace.length > 0 && found.myStackTrace[0].myMethodName.startsWith("sleep"),
                    found.myStackTrace.length == 0 ? "no frames" : found.myStackTrace[0].toString());
        } finally {
            sleeper.interrupt();
        }
    }

    @Test
    void nativeWrapperFramesAreFoldedAndProbeFramesLeftOut() {
        StackTraceElement[] stack = {
            new StackTraceElement("com.kestrix.runtime.Callback", "kjpMethodEntry0", null, -2),
            new StackTraceElement("com.kestrix.runtime.Callback", "kjpMethodEntry", null, 31),
            new StackTraceElement("java.io.FileInputStream", "$$KJP$$readBytes", null, -2),
            new StackTraceElement("java.io.FileInputStream", "readBytes", "FileInputStream.java", 12),
            new StackTraceElement("app.Main", "main", "Main.java", 7),
            new StackTraceElement("app.Main", "$$KJP$$last", null, -2),
        };
        StackTraceElementRes[] folded = TelemetryThreadJVMTI.foldNativeWrappers(stack);
        assertEquals(3, folded.length);
        assertEquals("java.io.FileInputStream.readBytes(FileInputStream.java:-2)", folded[0].toString());
        assertEquals("app.Main.main(Main.java:7)", folded[1].toString());
        assertEquals("$$KJP$$last", folded[2].myMethodName, "a wrapper frame without a successor stays");
    }

    /**
     * Serves the agent's end of a loopback connection on another thread, as the listener does,
     * while the test plays the client; the future ends as dispatchRequest does.
     */
    private static final class Served implements AutoCloseable {
        final Socket myClient;
        final DataInputStream myIn;
        final DataOutputStream myOut;
        final Future<Long> myDone;
        private final ServerSocket myServer;
        private final Socket myAgentSide;
        private final ExecutorService myThread = Executors.newSingleThreadExecutor();

        Served() throws IOException {
            myServer = new ServerSocket(0, 50, InetAddress.getLoopbackAddress());
            myClient = new Socket(InetAddress.getLoopbackAddress(), myServer.getLocalPort());
            myClient.setSoTimeout(10_000);
            myAgentSide = myServer.accept();
            myIn = new DataInputStream(myClient.getInputStream());
            myOut = new DataOutputStream(myClient.getOutputStream());
            // The time dispatchRequest ran, in ms; then the connection closes, as the listener closes it.
            myDone = myThread.submit(() -> {
                long start = System.nanoTime();
                try {
                    RequestProcessing.dispatchRequest(new DataInputStream(myAgentSide.getInputStream()),
                            new DataOutputStream(myAgentSide.getOutputStream()), myAgentSide);
                } finally {
                    myAgentSide.close();
                }
                return (System.nanoTime() - start) / 1_000_000;
            });
        }

        /** The time until dispatchRequest gave up with a read timeout, in ms. */
        long timedOutAfterMs() throws Exception {
            long start = System.nanoTime();
            ExecutionException e = assertThrows(ExecutionException.class, () -> myDone.get(20, TimeUnit.SECONDS));
            assertTrue(e.getCause() instanceof SocketTimeoutException, String.valueOf(e.getCause()));
            return (System.nanoTime() - start) / 1_000_000;
        }

        @Override
        public void close() throws IOException {
            myThread.shutdownNow();
            myClient.close();
            myAgentSide.close();
            myServer.close();
        }
    }

    @Test
    void silentClientsCannotHoldTheListener() throws Exception {
        int requestTimeout = RequestProcessing.ourRequestTimeoutMs;
        int idleTimeout = RequestProcessing.ourSequenceIdleTimeoutMs;
        RequestProcessing.ourRequestTimeoutMs = 400;
        RequestProcessing.ourSequenceIdleTimeoutMs = 2500;
        try {
            // Connected, and not a byte sent.
            try (Served served = new Served()) {
                long waited = served.timedOutAfterMs();
                assertTrue(waited < 2000, "gave up after " + waited + " ms");
            }

            // A header whose payload never comes, inside a sequence: the request limit holds.
            try (Served served = new Served()) {
                Packet.writeHeader(served.myOut, Protocol.PACKET_PACKET_SEQUENCE_START);
                Packet.writeHeader(served.myOut, Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ);
                served.myOut.flush();
                long waited = served.timedOutAfterMs();
                assertTrue(waited < 2000, "gave up after " + waited + " ms");
            }

            // Between the requests of a sequence the client may pause longer than a request may
            // take; a silence beyond the idle limit ends the connection all the same.
            try (Served served = new Served()) {
                Packet.writeHeader(served.myOut, Protocol.PACKET_PACKET_SEQUENCE_START);
                Packet.writeHeader(served.myOut, Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ);
                served.myOut.flush();
                Packet.readHeaderWithStandardResponse(served.myIn);
                served.myIn.readInt();
                Thread.sleep(1000);
                assertFalse(served.myDone.isDone(), "a pause in a sequence is not a dead client");
                Packet.writeHeader(served.myOut, Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ);
                served.myOut.flush();
                Packet.readHeaderWithStandardResponse(served.myIn);
                served.myIn.readInt();
                long waited = served.timedOutAfterMs();
                assertTrue(waited >= 1500 && waited < 8000, "gave up after " + waited + " ms");
            }

            // A sequence that ends in time ends the connection normally.
            try (Served served = new Served()) {
                Packet.writeHeader(served.myOut, Protocol.PACKET_PACKET_SEQUENCE_START);
                Packet.writeHeader(served.myOut, Protocol.PACKET_PACKET_SEQUENCE_END);
                served.myOut.flush();
                assertTrue(served.myDone.get(10, TimeUnit.SECONDS) < 1000);
                assertEquals(-1, served.myIn.read(), "no frame for the sequence marks");
            }
        } finally {
            RequestProcessing.ourRequestTimeoutMs = requestTimeout;
            RequestProcessing.ourSequenceIdleTimeoutMs = idleTimeout;
        }
    }

    @Test
    @Timeout(120)
    void aClientThatStopsReadingIsCutOffAndASlowOneIsNot() throws Exception {
        int requestTimeout = RequestProcessing.ourRequestTimeoutMs;
        InetAddress loopback = InetAddress.getLoopbackAddress();
        try (ServerSocket server = new ServerSocket(0, 50, loopback)) {
            // Far more than the socket buffers hold, and the client takes none of it.
            RequestProcessing.ourRequestTimeoutMs = 400;
            try (Socket client = new Socket(loopback, server.getLocalPort()); Socket agentSide = server.accept()) {
                OutputStream out = WriteDeadline.guard(agentSide);
                byte[] block = new byte[1 << 20];
                long start = System.nanoTime();
                IOException e = assertThrows(IOException.class, () -> {
                    for (int i = 0; i < 256; i++) {
                        out.write(block);
                    }
                });
                long waited = (System.nanoTime() - start) / 1_000_000;
                assertTrue(waited >= 400 && waited < 10_000, "gave up after " + waited + " ms");
                assertEquals("the client took nothing for 400 ms", e.getMessage());
                assertTrue(agentSide.isClosed());
            }

            // A client that reads in small bites with pauses takes longer than the limit in all,
            // but never leaves one piece waiting that long: it gets everything.
            RequestProcessing.ourRequestTimeoutMs = 2000;
            try (Socket client = new Socket(loopback, server.getLocalPort()); Socket agentSide = server.accept()) {
                ExecutorService reader = Executors.newSingleThreadExecutor();
                Future<Long> received = reader.submit(() -> {
                    byte[] bite = new byte[64 * 1024];
                    long total = 0;
                    for (int n; (n = client.getInputStream().read(bite)) != -1; ) {
                        total += n;
                        Thread.sleep(20);
                    }
                    return total;
                });
                long start = System.nanoTime();
                // One write of it all, as a large block goes through a buffered stream.
                OutputStream out = WriteDeadline.guard(agentSide);
                out.write(new byte[16 << 20]);
                out.close();
                long took = (System.nanoTime() - start) / 1_000_000;
                assertEquals(16L << 20, received.get(60, TimeUnit.SECONDS));
                assertTrue(took > 2000, "the client read too fast to show anything: " + took + " ms");
                reader.shutdown();
            }
        } finally {
            RequestProcessing.ourRequestTimeoutMs = requestTimeout;
        }
    }

    // Reads what writeCompressedBlocks wrote: blocks of pieces, each block ended by a 0.
    private static List<byte[]> readBlocks(byte[] stream) throws Exception {
        DataInputStream in = new DataInputStream(new ByteArrayInputStream(stream));
        List<byte[]> blocks = new ArrayList<>();
        while (in.available() > 0) {
            Inflater inflater = new Inflater(true);
            ByteArrayOutputStream block = new ByteArrayOutputStream();
            byte[] output = new byte[Protocol.TRANSFER_UNCOMPRESSED_CHUNK_SIZE];
            int length;
            while ((length = in.readInt()) != 0) {
                assertTrue(length > 0 && length <= Protocol.TRANSFER_COMPRESSED_CHUNK_SIZE, "piece length " + length);
                byte[] piece = new byte[length];
                in.readFully(piece);
                inflater.setInput(piece);
                int n;
                while ((n = inflater.inflate(output)) > 0) {
                    block.write(output, 0, n);
                }
            }
            assertTrue(inflater.finished(), "each block is a complete deflate stream");
            inflater.end();
            blocks.add(block.toByteArray());
        }
        return blocks;
    }

    private static byte[] compress(byte[] data) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream out = new DataOutputStream(bytes);
        Deflater deflater = new Deflater(Deflater.DEFAULT_COMPRESSION, true);
        try {
            RequestProcessing.writeCompressedBlocks(new ByteArrayInputStream(data), data.length, out, deflater);
        } finally {
            deflater.end();
        }
        out.flush();
        return bytes.toByteArray();
    }

    @Test
    void compressedTransferIsOneRawDeflateStreamPerBlock() throws Exception {
        assertEquals(0, compress(new byte[0]).length, "an empty file has no chunk at all");

        // Random bytes don't compress: a 128 KB block needs more than one 64 KB piece.
        byte[] data = new byte[Protocol.TRANSFER_UNCOMPRESSED_CHUNK_SIZE + 1000];
        new Random(7).nextBytes(data);
        for (int i = 0; i < 1000; i++) {
            data[Protocol.TRANSFER_UNCOMPRESSED_CHUNK_SIZE + i] = (byte) (i % 3);
        }
        byte[] stream = compress(data);
        DataInputStream in = new DataInputStream(new ByteArrayInputStream(stream));
        assertEquals(Protocol.TRANSFER_COMPRESSED_CHUNK_SIZE, in.readInt(), "the first piece fills the buffer");

        List<byte[]> blocks = readBlocks(stream);
        assertEquals(2, blocks.size());
        ByteArrayOutputStream joined = new ByteArrayOutputStream();
        for (byte[] block : blocks) {
            joined.write(block);
        }
        assertArrayEquals(data, joined.toByteArray());
    }
}
