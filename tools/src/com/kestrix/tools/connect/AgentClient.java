package com.kestrix.tools.connect;

import com.kestrix.runtime.Packet;
import com.kestrix.runtime.PresentableException;
import com.kestrix.runtime.Protocol;
import java.io.BufferedInputStream;
import java.io.BufferedOutputStream;
import java.io.Closeable;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.net.InetSocketAddress;
import java.net.Socket;
import java.util.function.IntConsumer;
import java.util.function.LongConsumer;

/**
 * One conversation with a running agent. The agent serves one request a connection unless the
 * client opens a packet sequence, so the client opens one at once, asks for the agent's
 * information and checks its protocol version; then any number of requests follow on the same
 * socket, and {@link #close} ends the sequence. Errors the agent sends back leave the requests
 * as PresentableException with the agent's own text.
 */
public final class AgentClient implements Closeable {
    private static final int CONNECT_TIMEOUT_MS = 10_000;
    /** The agent serves one client at a time: another one may hold it for a while. */
    private static final int HANDSHAKE_TIMEOUT_MS = 30_000;

    private final Socket mySocket;
    private final DataInputStream myIn;
    private final DataOutputStream myOut;
    private final AgentInfo myInfo;

    private AgentClient(Socket socket) throws IOException {
        mySocket = socket;
        myIn = new DataInputStream(new BufferedInputStream(socket.getInputStream()));
        myOut = new DataOutputStream(new BufferedOutputStream(socket.getOutputStream()));
        Packet.writeHeader(myOut, Protocol.PACKET_PACKET_SEQUENCE_START);
        myInfo = AgentInfo.request(this);
    }

    /**
     * Connects and checks that a compatible agent answers. A refused connection, a peer that
     * isn't an agent, or an agent of another version ends in a ClientFailure with one line.
     */
    public static AgentClient connect(String host, int port) throws IOException {
        Socket socket = new Socket();
        try {
            socket.connect(new InetSocketAddress(host, port), CONNECT_TIMEOUT_MS);
        } catch (java.net.ConnectException e) {
            closeQuietly(socket);
            throw new ClientFailure("connection refused: no agent is listening on " + host + ":" + port);
        } catch (java.net.UnknownHostException e) {
            closeQuietly(socket);
            throw new ClientFailure("unknown host '" + host + "'");
        } catch (java.net.SocketTimeoutException e) {
            closeQuietly(socket);
            throw new ClientFailure("no answer from " + host + ":" + port + " within "
                    + CONNECT_TIMEOUT_MS / 1000 + " s");
        } catch (IOException e) {
            closeQuietly(socket);
            throw e;
        }
        try {
            socket.setSoTimeout(HANDSHAKE_TIMEOUT_MS);
            AgentClient client = new AgentClient(socket);
            // A capture or a transfer may take long; from here on the client waits for it.
            socket.setSoTimeout(0);
            return client;
        } catch (java.net.SocketTimeoutException e) {
            closeQuietly(socket);
            throw new ClientFailure("no answer from " + host + ":" + port + " within " + HANDSHAKE_TIMEOUT_MS / 1000
                    + " s: not a Kestrix agent, or it is busy with another client");
        } catch (IOException | RuntimeException e) {
            closeQuietly(socket);
            if (e instanceof java.io.EOFException) {
                throw new ClientFailure("the peer at " + host + ":" + port
                        + " closed the connection without answering: not a Kestrix agent, or one of another version");
            }
            if (e instanceof IOException && e.getMessage() != null
                    && e.getMessage().startsWith("Invalid header magic number:")) {
                throw new ClientFailure("the peer at " + host + ":" + port + " is not a Kestrix agent ("
                        + e.getMessage() + ")");
            }
            throw e;
        }
    }

    public AgentInfo info() {
        return myInfo;
    }

    DataInputStream in() {
        return myIn;
    }

    DataOutputStream out() {
        return myOut;
    }

    /** Sends a request without payload and flushes. */
    void send(int type) throws IOException {
        Packet.writeHeader(myOut, type);
        myOut.flush();
    }

    /** Starts a request whose payload the caller writes and flushes. */
    DataOutputStream begin(int type) throws IOException {
        Packet.writeHeader(myOut, type);
        return myOut;
    }

    /** Reads the header of a plain success response. */
    void expectOk() throws IOException {
        Packet.readHeaderWithStandardResponse(myIn);
    }

    /** Sends a request without payload and waits for its empty success response. */
    void simpleRequest(int type) throws IOException {
        send(type);
        expectOk();
    }

    /** How allocation recording picks objects: every N-th, and every object of at least a size. */
    public record AllocationSettings(boolean recordEachEnabled, int recordEach, boolean sizeLimitEnabled,
            int sizeLimit) {
    }

    /** The periodic capture: a period of -1 means off. The maximum is informational only. */
    public record PeriodicStatus(long periodSeconds, int maxSnapshotCount, int capturedCount) {
    }

    /** The agent's status word: the bits of the running measurements. */
    public long status() throws IOException {
        send(Protocol.PACKET_GET_STATUS_REQ);
        expectOk();
        return Packet.readLong(myIn);
    }

    /** Starts CPU profiling in a mode of ProfilingModes; null filters or wall-time text mean the defaults. */
    public void startCpu(long mode, String filters, String wallTime) throws IOException {
        DataOutputStream out = begin(Protocol.PACKET_START_CPU_PROFILING_REQ);
        Packet.writeLong(out, mode);
        Packet.writeString(out, filters);
        Packet.writeString(out, wallTime);
        out.flush();
        expectOk();
    }

    public void stopCpu() throws IOException {
        simpleRequest(Protocol.PACKET_STOP_CPU_PROFILING_REQ);
    }

    public void startAllocations(AllocationSettings settings) throws IOException {
        DataOutputStream out = begin(Protocol.PACKET_START_ALLOCATION_RECORDING_REQ);
        Packet.writeBoolean(out, settings.recordEachEnabled());
        Packet.writeInt(out, settings.recordEach());
        Packet.writeBoolean(out, settings.sizeLimitEnabled());
        Packet.writeInt(out, settings.sizeLimit());
        out.flush();
        expectOk();
    }

    public void stopAllocations() throws IOException {
        simpleRequest(Protocol.PACKET_STOP_ALLOCATION_RECORDING_REQ);
    }

    public AllocationSettings allocationSettings() throws IOException {
        send(Protocol.PACKET_ALLOCATION_RECORDING_SETTINGS_GET_REQ);
        expectOk();
        return new AllocationSettings(Packet.readBoolean(myIn), Packet.readInt(myIn), Packet.readBoolean(myIn),
                Packet.readInt(myIn));
    }

    public void startMonitors() throws IOException {
        simpleRequest(Protocol.PACKET_START_MONITOR_PROFILING);
    }

    public void stopMonitors() throws IOException {
        simpleRequest(Protocol.PACKET_STOP_MONITOR_PROFILING);
    }

    /**
     * Captures a snapshot with the given flags and returns the path the agent wrote. The agent
     * sends progress frames on this socket while it writes; each percentage goes to the listener.
     */
    public String capture(long flags, IntConsumer progress) throws IOException {
        DataOutputStream out = begin(Protocol.PACKET_CAPTURE_SNAPSHOT_REQ);
        Packet.writeLong(out, flags);
        out.flush();
        while (true) {
            int type = Packet.readHeader(myIn, Protocol.INCOMPATIBLE_AGENT_MESSAGE);
            if (type == Protocol.PACKET_PROGRESS) {
                progress.accept(Packet.readInt(myIn));
            } else if (type == Protocol.PACKET_OK_RESP) {
                return Packet.readStringNotNull(myIn);
            } else {
                throw new PresentableException(Protocol.INCOMPATIBLE_AGENT_MESSAGE,
                        "Wrong packet type: " + type + ", expected " + Protocol.PACKET_OK_RESP);
            }
        }
    }

    /** Copies a snapshot the agent wrote, over the compressed transfer; returns its length. */
    public long fetch(String path, OutputStream target, LongConsumer done, LongConsumer total) throws IOException {
        return SnapshotFetch.fetch(this, path, target, done, total);
    }

    /** Runs the garbage collector; returns the used heap in bytes before and after. */
    public long[] forceGc() throws IOException {
        send(Protocol.PACKET_FORCE_GC_REQ);
        expectOk();
        return new long[] {Packet.readLong(myIn), Packet.readLong(myIn)};
    }

    /** Starts a new generation of the heap with this description. */
    public void markMemory(String description) throws IOException {
        DataOutputStream out = begin(Protocol.PACKET_MARK_MEMORY_REQ);
        // The type of a mark a user asks for; captures mark with type 1.
        Packet.writeInt(out, 0);
        Packet.writeString(out, description);
        out.flush();
        expectOk();
    }

    public int memoryThreshold() throws IOException {
        send(Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ);
        expectOk();
        return Packet.readInt(myIn);
    }

    public void setMemoryThreshold(int percent) throws IOException {
        DataOutputStream out = begin(Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ);
        Packet.writeInt(out, percent);
        out.flush();
        expectOk();
    }

    public PeriodicStatus periodicCapture() throws IOException {
        send(Protocol.PACKET_PERIODICAL_CAPTURE_GET_STATUS_REQ);
        expectOk();
        return new PeriodicStatus(Packet.readLong(myIn), Packet.readInt(myIn), Packet.readInt(myIn));
    }

    public void setupPeriodicCapture(long periodSeconds, int maxSnapshotCount) throws IOException {
        DataOutputStream out = begin(Protocol.PACKET_PERIODICAL_CAPTURE_SETUP_REQ);
        Packet.writeLong(out, periodSeconds);
        Packet.writeInt(out, maxSnapshotCount);
        out.flush();
        expectOk();
    }

    /** 1 when the JVM writes a heap dump on OutOfMemoryError, 0 when not. */
    public int oomeDumperStatus() throws IOException {
        send(Protocol.PACKET_OOME_DUMPER_GET_STATUS_REQ);
        expectOk();
        return Packet.readInt(myIn);
    }

    public String databaseStatistics() throws IOException {
        send(Protocol.PACKET_GET_DATABASE_STATISTICS);
        expectOk();
        return Packet.readString(myIn);
    }

    /** One of the clear requests, by its packet type. */
    public void clear(int packetType) throws IOException {
        simpleRequest(packetType);
    }

    public ThreadDump threadDump() throws IOException {
        return ThreadDump.request(this);
    }

    /** The rows of the masked tables changed after the given stamps (indexed by table id). */
    public TableUpdate updateTables(int mask, int[] minStamps) throws IOException {
        return TableUpdate.request(this, mask, minStamps);
    }

    /** Ends the sequence, so the agent closes its side, and closes the socket. */
    @Override
    public void close() {
        try {
            Packet.writeHeader(myOut, Protocol.PACKET_PACKET_SEQUENCE_END);
            myOut.flush();
        } catch (IOException e) {
            // The agent may already have dropped the connection; nothing is lost.
        }
        closeQuietly(mySocket);
    }

    private static void closeQuietly(Socket socket) {
        try {
            socket.close();
        } catch (IOException e) {
            // Closing is best effort.
        }
    }
}
