package com.kestrix.connect;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.runtime.Packet;
import com.kestrix.runtime.PresentableException;
import com.kestrix.runtime.Protocol;
import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import com.kestrix.tools.connect.AgentClient;
import com.kestrix.tools.connect.TableUpdate;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.BufferedInputStream;
import java.io.BufferedOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.net.Socket;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** The agent's side of the wire under pressure: incremental updates, odd requests and garbage. */
class ProtocolRobustnessTest {
    /** Every table a snapshot holds. */
    private static final int ALL_TABLES = 258047;
    /** Requests with a payload that change nothing in the agent, whatever the payload says. */
    private static final int[] PAYLOAD_REQUESTS = {Protocol.PACKET_TRANSFER_SNAPSHOT_REQ,
        Protocol.PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ, Protocol.PACKET_MARK_MEMORY_REQ,
        Protocol.PACKET_UPDATE_DATABASE_TABLES};

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    /** A raw connection, no sequence: one request, then the agent closes. */
    private record Raw(Socket socket, DataInputStream in, DataOutputStream out) implements AutoCloseable {
        static Raw open(int port) throws IOException {
            Socket socket = new Socket("localhost", port);
            socket.setSoTimeout(60_000);
            return new Raw(socket, new DataInputStream(new BufferedInputStream(socket.getInputStream())),
                    new DataOutputStream(new BufferedOutputStream(socket.getOutputStream())));
        }

        @Override
        public void close() throws IOException {
            socket.close();
        }
    }

    private static int rowCount(TableUpdate update) {
        int count = 0;
        for (int id : update.tableIds()) {
            count += update.rows(id).size();
        }
        return count;
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void updatesCarryOnlyChangedRowsAndOddRequestsGetTheirAnswers(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = LiveAgent.start(jdk, dir, null)) {
            TableUpdate first;
            TableUpdate second;
            try (AgentClient client = AgentClient.connect("localhost", agent.port())) {
                // Telemetry begins a moment after start-up: the first full update is the first
                // that has some.
                first = client.updateTables(ALL_TABLES, null);
                for (int i = 0; i < 60 && first.rows(TableLayout.TELE.id).isEmpty(); i++) {
                    Thread.sleep(500);
                    first = client.updateTables(ALL_TABLES, null);
                }
                // The telemetry thread adds a row a second: the next update has something new.
                Thread.sleep(2500);
                int[] stamps = new int[32];
                Arrays.fill(stamps, first.maxStamp());
                second = client.updateTables(ALL_TABLES, stamps);
            }
            assertTrue(first.rows(TableLayout.STRING.id).size() > 100, "a full update holds the string pool");
            assertTrue(first.rows(TableLayout.TELE.id).size() >= 1);
            for (int id : second.tableIds()) {
                for (TableUpdate.Row row : second.rows(id)) {
                    assertTrue(Math.abs(row.stamp()) > first.maxStamp(),
                            "table " + id + " row " + row.index() + " stamp " + row.stamp() + " <= " + first.maxStamp());
                }
            }
            assertTrue(second.rows(TableLayout.TELE.id).size() >= 1, "new telemetry rows must come");
            assertTrue(rowCount(second) < rowCount(first) / 4,
                    "second " + rowCount(second) + " rows, first " + rowCount(first));

            // A mask of 0 reads no stamps and still gets the response and the end mark.
            try (Raw raw = Raw.open(agent.port())) {
                Packet.writeHeader(raw.out(), Protocol.PACKET_UPDATE_DATABASE_TABLES);
                raw.out().writeInt(0);
                raw.out().flush();
                Packet.readHeaderWithStandardResponse(raw.in());
                assertEquals(-1, raw.in().readInt());
                assertEquals(-1, raw.in().read(), "the connection ends after one request");
            }

            // An unknown packet gets its error frame, and the connection then ends.
            try (Raw raw = Raw.open(agent.port())) {
                Packet.writeHeader(raw.out(), 99999);
                raw.out().flush();
                PresentableException e = assertThrows(PresentableException.class,
                        () -> Packet.readHeader(raw.in(), Protocol.INCOMPATIBLE_AGENT_MESSAGE));
                assertEquals(Protocol.INCOMPATIBLE_AGENT_MESSAGE, e.getMessage());
                assertEquals("Unknown packet type: 99999. Reason: profiler agent and client version mismatch",
                        e.getDetail());
                assertEquals(-1, raw.in().read());
            }
            assertTrue(agent.isAlive(), agent.toString());
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void onlySnapshotsTheAgentWroteCanBeFetched(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = LiveAgent.start(jdk, dir, null)) {
            String path = agent.kjpOk("capture").strip();
            Path snapshot = Path.of(path);
            String name = snapshot.getFileName().toString();
            String parent = snapshot.getParent().toString();
            String[] refused = {
                "/etc/passwd",
                parent + "/../" + snapshot.getParent().getFileName() + "/" + name,
                parent + "/./" + name,
                parent + "//" + name,
                path + "/../" + name,
                name,
                "../" + name,
                path + " ",
                "",
            };
            for (String candidate : refused) {
                for (int type : new int[] {Protocol.PACKET_TRANSFER_SNAPSHOT_REQ,
                        Protocol.PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ}) {
                    try (Raw raw = Raw.open(agent.port())) {
                        Packet.writeHeader(raw.out(), type);
                        Packet.writeString(raw.out(), candidate);
                        raw.out().flush();
                        PresentableException e = assertThrows(PresentableException.class,
                                () -> Packet.readHeader(raw.in(), Protocol.INCOMPATIBLE_AGENT_MESSAGE), candidate);
                        assertEquals("File cannot be transferred: unknown snapshot " + candidate, e.getMessage());
                    }
                }
            }
            LiveAgent.Run run = agent.kjp("fetch", "/etc/passwd", "-o", dir.resolve("passwd").toString());
            assertEquals(1, run.status(), run.toString());
            assertEquals("File cannot be transferred: unknown snapshot /etc/passwd\n", run.err());

            // The real path passes the guard, in both forms.
            try (Raw raw = Raw.open(agent.port())) {
                Packet.writeHeader(raw.out(), Protocol.PACKET_TRANSFER_SNAPSHOT_REQ);
                Packet.writeString(raw.out(), path);
                raw.out().flush();
                Packet.readHeaderWithStandardResponse(raw.in());
                long length = raw.in().readLong();
                assertEquals(java.nio.file.Files.size(snapshot), length);
                byte[] bytes = raw.in().readAllBytes();
                assertEquals(length, bytes.length);
            }
            agent.kjpOk("fetch", path, "-o", dir.resolve("copy.snapshot").toString());

            // Snapshots swapped for something else after the capture: a symbolic link, a hard link
            // to another file, another file renamed into the place, the file grown by someone else.
            Path secret = dir.resolve("secret.txt");
            java.nio.file.Files.writeString(secret, "not for the network\n");
            List<Path> swapped = new java.util.ArrayList<>();
            for (int i = 0; i < 4; i++) {
                swapped.add(Path.of(agent.kjpOk("capture").strip()));
            }
            java.nio.file.Files.delete(swapped.get(0));
            java.nio.file.Files.createSymbolicLink(swapped.get(0), Path.of("/etc/passwd"));
            Path sameDirectory = swapped.get(1).resolveSibling("secret.txt");
            java.nio.file.Files.copy(secret, sameDirectory);
            java.nio.file.Files.delete(swapped.get(1));
            java.nio.file.Files.createLink(swapped.get(1), sameDirectory);
            java.nio.file.Files.move(secret, swapped.get(2), java.nio.file.StandardCopyOption.REPLACE_EXISTING);
            java.nio.file.Files.write(swapped.get(3), new byte[] {42}, java.nio.file.StandardOpenOption.APPEND);
            for (Path changed : swapped) {
                for (int type : new int[] {Protocol.PACKET_TRANSFER_SNAPSHOT_REQ,
                        Protocol.PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ}) {
                    try (Raw raw = Raw.open(agent.port())) {
                        Packet.writeHeader(raw.out(), type);
                        Packet.writeString(raw.out(), changed.toString());
                        raw.out().flush();
                        PresentableException e = assertThrows(PresentableException.class,
                                () -> Packet.readHeader(raw.in(), Protocol.INCOMPATIBLE_AGENT_MESSAGE), changed.toString());
                        assertEquals("File cannot be transferred: " + changed + " is no longer the snapshot the agent wrote",
                                e.getMessage());
                        assertEquals(-1, raw.in().read(), "not a byte of it");
                    }
                }
            }
            assertTrue(agent.isAlive(), agent.toString());
            agent.kjpOk("fetch", path, "-o", dir.resolve("again.snapshot").toString());
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void anyTableMaskIsAnsweredWithTheTablesThatStream(Path jdk, @TempDir Path dir) throws Exception {
        // With allocations recorded the allocator table has rows, which never stream as a table.
        try (LiveAgent agent = LiveAgent.start(jdk, dir, "alloceach=1")) {
            agent.command("burn 200", 60);
            List<Integer> masks = new java.util.ArrayList<>(List.of(-1, Integer.MIN_VALUE, 0x7FFFFFFF, 1 << 12,
                    ~ALL_TABLES));
            for (int bit = 0; bit < 32; bit++) {
                masks.add(1 << bit);
            }
            try (AgentClient client = AgentClient.connect("localhost", agent.port())) {
                for (int mask : masks) {
                    TableUpdate update = client.updateTables(mask, null);
                    for (int id : update.tableIds()) {
                        assertTrue((mask & ALL_TABLES & 1 << id) != 0, "mask " + mask + " brought table " + id);
                    }
                }
            }
            // Periods that no timer can run are refused, not thrown at the listener.
            for (long period : new long[] {0, -2, Long.MIN_VALUE, Long.MAX_VALUE}) {
                try (Raw raw = Raw.open(agent.port())) {
                    Packet.writeHeader(raw.out(), Protocol.PACKET_PERIODICAL_CAPTURE_SETUP_REQ);
                    raw.out().writeLong(period);
                    raw.out().writeInt(1);
                    raw.out().flush();
                    PresentableException e = assertThrows(PresentableException.class,
                            () -> Packet.readHeader(raw.in(), Protocol.INCOMPATIBLE_AGENT_MESSAGE));
                    assertTrue(e.getMessage().startsWith("Bad capture period: " + period + " s."), e.getMessage());
                }
            }
            assertTrue(agent.isAlive(), agent.toString());
            agent.kjpOk("status");
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void malformedInputNeverStopsTheListener(Path jdk, @TempDir Path dir) throws Exception {
        Random random = new Random(20081129);
        try (LiveAgent agent = LiveAgent.start(jdk, dir, null)) {
            for (int round = 0; round < 40; round++) {
                for (int kind = 0; kind < 7; kind++) {
                    try (Socket socket = new Socket("localhost", agent.port())) {
                        socket.setSoTimeout(30_000);
                        OutputStream raw = socket.getOutputStream();
                        DataOutputStream out = new DataOutputStream(raw);
                        switch (kind) {
                            case 0: // bad magic
                                out.writeLong(random.nextLong());
                                out.writeInt(Protocol.PACKET_GET_STATUS_REQ);
                                break;
                            case 1: // truncated header
                                out.writeLong(Protocol.MAGIC);
                                out.writeShort(1);
                                break;
                            case 2: // a string length of -2
                                Packet.writeHeader(out, Protocol.PACKET_MARK_MEMORY_REQ);
                                out.writeInt(1);
                                out.writeInt(-2);
                                break;
                            case 3: // a string length of 2^31-1, and no bytes behind it
                                Packet.writeHeader(out, Protocol.PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ);
                                out.writeInt(Integer.MAX_VALUE);
                                out.write(new byte[100]);
                                break;
                            case 4: // a truncated payload
                                Packet.writeHeader(out, Protocol.PACKET_START_CPU_PROFILING_REQ);
                                out.writeInt(0);
                                break;
                            case 5: { // random bytes
                                byte[] bytes = new byte[1 + random.nextInt(300)];
                                random.nextBytes(bytes);
                                out.write(bytes);
                                break;
                            }
                            default: { // a valid header of a request that reads a payload, then random bytes
                                Packet.writeHeader(out, PAYLOAD_REQUESTS[random.nextInt(PAYLOAD_REQUESTS.length)]);
                                byte[] bytes = new byte[random.nextInt(64)];
                                random.nextBytes(bytes);
                                out.write(bytes);
                                break;
                            }
                        }
                        out.flush();
                        socket.shutdownOutput();
                        // Drain whatever the agent answers, until it closes its side.
                        socket.getInputStream().readAllBytes();
                    } catch (IOException e) {
                        // A reset is an acceptable end for a connection that made no sense.
                    }
                }
                if (round % 10 == 9) {
                    assertTrue(agent.kjpOk("info").contains("Session name        Remote\n"), "round " + round);
                }
            }
            assertTrue(agent.isAlive(), agent.toString());
            assertTrue(agent.kjpOk("info").contains("Protocol version    20081129\n"));
        }
    }
}
