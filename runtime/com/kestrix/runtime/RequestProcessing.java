package com.kestrix.runtime;

import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.FileDescriptor;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Field;
import java.lang.reflect.Method;
import java.net.Socket;
import java.util.zip.Deflater;

import com.kestrix.Constants;

/**
 * Serves one client connection on the listener thread: one request, or a sequence of them
 * between PACKET_PACKET_SEQUENCE_START and PACKET_PACKET_SEQUENCE_END.
 */
final class RequestProcessing {
    private static final int TRANSFER_BUFFER_SIZE = 65536;
    private static final int TABLE_COUNT = 32;
    private static final int MIN_USED_MEMORY_THRESHOLD = 50;
    private static final int MAX_USED_MEMORY_THRESHOLD = 90;

    /*
     * The listener serves one client at a time, and every read below blocks. Without a limit a
     * client that connects and sends nothing, or a peer that vanished without closing its side
     * (a crashed machine, a dropped VPN), would keep every other client out for good. So each
     * read has a limit, and running into it ends the connection like any broken frame.
     *
     * A request is written at once and whole by any real client: a minute for its header and
     * payload is ample even over a slow link. Inside a packet sequence, though, the client
     * holds the agent between its requests by choice and may pause there, polling for new
     * data every few seconds, say; only a sequence silent for far longer than any such pause
     * is taken for a client that hung or lost its network. Writes have no such limit in
     * java.net; WriteDeadline gives them the request limit for each piece.
     */
    /** Limit, in ms, for a request outside a sequence, and for the payload of any request. */
    static int ourRequestTimeoutMs = 60 * 1000;
    /** Limit, in ms, for the next request of an open sequence to begin. */
    static int ourSequenceIdleTimeoutMs = 10 * 60 * 1000;

    private RequestProcessing() {
    }

    static void dispatchRequest(DataInputStream in, DataOutputStream out, Socket socket) throws IOException {
        boolean sequence = false;
        do {
            setReadTimeout(socket, sequence ? ourSequenceIdleTimeoutMs : ourRequestTimeoutMs);
            int type = Packet.readHeader(in, Protocol.INCOMPATIBLE_AGENT_MESSAGE);
            setReadTimeout(socket, ourRequestTimeoutMs);
            switch (type) {
                case Protocol.PACKET_GET_AGENT_INFO_REQ:
                    processGetAgentInfo(out);
                    break;
                case Protocol.PACKET_GET_STATUS_REQ:
                    processGetStatus(out);
                    break;
                case Protocol.PACKET_START_ALLOCATION_RECORDING_REQ:
                    processStartAllocationRecording(in, out);
                    break;
                case Protocol.PACKET_STOP_ALLOCATION_RECORDING_REQ:
                    processStopAllocationRecording(out);
                    break;
                case Protocol.PACKET_ALLOCATION_RECORDING_SETTINGS_GET_REQ:
                    processGetAllocationRecordingSettings(out);
                    break;
                case Protocol.PACKET_START_CPU_PROFILING_REQ:
                    processStartCPUProfiling(in, out);
                    break;
                case Protocol.PACKET_STOP_CPU_PROFILING_REQ:
                    processStopCPUProfiling(out);
                    break;
                case Protocol.PACKET_FORCE_GC_REQ:
                    processForceGC(out);
                    break;
                case Protocol.PACKET_CAPTURE_SNAPSHOT_REQ:
                    processCaptureSnapshot(in, out, socket);
                    break;
                case Protocol.PACKET_TRANSFER_SNAPSHOT_REQ:
                    processTransferSnapshot(in, out);
                    break;
                case Protocol.PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ:
                    processTransferSnapshotCompressed(in, out);
                    break;
                case Protocol.PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ:
                    processGetCaptureOnMemThreshold(out);
                    break;
                case Protocol.PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ:
                    processSetCaptureOnMemThreshold(in, out);
                    break;
                case Protocol.PACKET_GET_JVM_THREAD_DUMP_REQ:
                    processGetJVMThreadDump(out);
                    break;
                case Protocol.PACKET_OOME_DUMPER_GET_STATUS_REQ:
                    processGetOOMEDumperStatus(out);
                    break;
                case Protocol.PACKET_PERIODICAL_CAPTURE_GET_STATUS_REQ:
                    processPeriodicalCaptureGetStatus(out);
                    break;
                case Protocol.PACKET_PERIODICAL_CAPTURE_SETUP_REQ:
                    processPeriodicalCaptureSetup(in, out);
                    break;
                case Protocol.PACKET_MARK_MEMORY_REQ:
                    processMarkMemory(in, out);
                    break;
                case Protocol.PACKET_START_MONITOR_PROFILING:
                    processStartMonitorProfiling(out);
                    break;
                case Protocol.PACKET_STOP_MONITOR_PROFILING:
                    processStopMonitorProfiling(out);
                    break;
                case Protocol.PACKET_PACKET_SEQUENCE_START:
                    sequence = true;
                    break;
                case Protocol.PACKET_PACKET_SEQUENCE_END:
                    sequence = false;
                    break;
                case Protocol.PACKET_UPDATE_DATABASE_TABLES:
                    processUpdateDatabaseTables(in, out, socket);
                    break;
                case Protocol.PACKET_GET_DATABASE_STATISTICS:
                    processGetDatabaseStatistics(out);
                    break;
                case Protocol.PACKET_CLEAR_CPU_DATA:
                    processClearCPUData(out);
                    break;
                case Protocol.PACKET_CLEAR_MONITOR_DATA:
                    processClearMonitorData(out);
                    break;
                case Protocol.PACKET_CLEAR_ALLOCATION_DATA:
                    processClearAllocationData(out);
                    break;
                case Protocol.PACKET_CLEAR_EXCEPTIONS:
                    processClearExceptions(out);
                    break;
                case Protocol.PACKET_ENABLE_STACK_TELEMETRY:
                    processEnableStackTelemetry(out);
                    break;
                case Protocol.PACKET_DISABLE_STACK_TELEMETRY:
                    processDisableStackTelemetry(out);
                    break;
                default:
                    writeError(out, "Unknown packet type: " + type
                            + ". Reason: profiler agent and client version mismatch");
                    break;
            }
            out.flush();
        } while (sequence);
    }

    // A socket of null is a test's stream pair, which has no limit to set.
    private static void setReadTimeout(Socket socket, int timeoutMs) throws IOException {
        if (socket != null) {
            socket.setSoTimeout(timeoutMs);
        }
    }

    private static void writeOK(DataOutputStream out) throws IOException {
        Packet.writeHeader(out, Protocol.PACKET_OK_RESP);
    }

    static void writeError(DataOutputStream out, String message) throws IOException {
        Packet.writeHeader(out, Protocol.PACKET_ERROR_RESP);
        Packet.writeString(out, message);
        out.flush();
    }

    private static void processGetAgentInfo(DataOutputStream out) throws IOException {
        writeOK(out);
        Packet.writeInt(out, Constants.AGENT_PROTOCOL_VERSION);
        Packet.writeString(out, Constants.PRODUCT_NAME_AND_VERSION);
        Packet.writeLong(out, Core.getCapabilities());
        Packet.writeString(out, Core.getSessionName());
        Packet.writeLong(out, Core.ourSessionID);
        Packet.writeString(out, Core.getHostID());
        Packet.writeString(out, Core.getSnapshotDir().getAbsolutePath());
        Packet.writeLong(out, Core.ourPID);
        Packet.writeInt(out, Core.ourTelemetryLimit);
    }

    private static void processGetStatus(DataOutputStream out) throws IOException {
        long status = Core.getStatus();
        writeOK(out);
        Packet.writeLong(out, status);
    }

    private static void processStartAllocationRecording(DataInputStream in, DataOutputStream out) throws IOException {
        boolean recordEachEnabled = Packet.readInt(in) != 0;
        int recordEach = Packet.readInt(in);
        boolean sizeLimitEnabled = Packet.readInt(in) != 0;
        int sizeLimit = Packet.readInt(in);
        try {
            Core.startAllocationRecordingImpl(recordEachEnabled, recordEach, sizeLimitEnabled, sizeLimit);
        } catch (AgentException e) {
            writeError(out, e.getMessage());
            return;
        }
        writeOK(out);
    }

    private static void processStopAllocationRecording(DataOutputStream out) throws IOException {
        Core.stopAllocationRecordingImpl();
        writeOK(out);
    }

    private static void processGetAllocationRecordingSettings(DataOutputStream out) throws IOException {
        boolean recordEachEnabled = Core.getAllocationRecordingSettingsRecordEachEnabled();
        int recordEach = Core.getAllocationRecordingSettingsRecordEach();
        boolean sizeLimitEnabled = Core.getAllocationRecordingSettingsSizeLimitEnabled();
        int sizeLimit = Core.getAllocationRecordingSettingsSizeLimit();
        writeOK(out);
        Packet.writeBoolean(out, recordEachEnabled);
        Packet.writeInt(out, recordEach);
        Packet.writeBoolean(out, sizeLimitEnabled);
        Packet.writeInt(out, sizeLimit);
    }

    private static void processStartCPUProfiling(DataInputStream in, DataOutputStream out) throws IOException {
        long mode = Packet.readLong(in);
        String filters = Packet.readString(in);
        String wallTimeSpec = Packet.readString(in);
        try {
            Core.startCPUProfilingImpl(mode, filters, wallTimeSpec);
        } catch (AgentException e) {
            writeError(out, e.getMessage());
            return;
        } catch (RuntimeException e) {
            // The native refuses a mode it can't run by throwing.
            writeError(out, String.valueOf(e.getMessage()));
            return;
        }
        writeOK(out);
    }

    private static void processStopCPUProfiling(DataOutputStream out) throws IOException {
        Core.stopCPUProfilingImpl();
        writeOK(out);
    }

    private static void processForceGC(DataOutputStream out) throws IOException {
        Runtime runtime = Runtime.getRuntime();
        long before = runtime.totalMemory() - runtime.freeMemory();
        System.gc();
        long after = runtime.totalMemory() - runtime.freeMemory();
        writeOK(out);
        Packet.writeLong(out, before);
        Packet.writeLong(out, after);
    }

    private static void processCaptureSnapshot(DataInputStream in, DataOutputStream out, Socket socket)
            throws IOException {
        long flags = Packet.readLong(in);
        // Progress packets go straight onto the socket while the capture runs.
        out.flush();
        String path;
        try {
            path = Core.captureSnapshot1(null, getSocketFileDescriptor(socket), flags);
        } catch (AgentException e) {
            writeError(out, e.getMessage());
            return;
        }
        writeOK(out);
        Packet.writeString(out, path);
    }

    /** A snapshot opened for a transfer: the file as the agent wrote it, and its size then. */
    static final class Transferable {
        final FileInputStream myInput;
        final long mySize;

        Transferable(FileInputStream input, long size) {
            myInput = input;
            mySize = size;
        }
    }

    /**
     * Only files this agent wrote may leave the machine through the socket, and only while they
     * are still those files: a link, or another file put at the path, is refused. The bytes come
     * from the descriptor that was checked, never from the path again.
     */
    private static Transferable openTransferable(DataInputStream in, DataOutputStream out) throws IOException {
        String path = Packet.readStringNotNull(in);
        FileDescriptor descriptor = new FileDescriptor();
        long size = Core.openSnapshotForTransfer(path, descriptor);
        if (size == Core.TRANSFER_UNKNOWN) {
            writeError(out, "File cannot be transferred: unknown snapshot " + path);
            return null;
        }
        if (size == Core.TRANSFER_MISSING) {
            writeError(out, "The file to transfer does not exist: " + path);
            return null;
        }
        if (size < 0) {
            writeError(out, "File cannot be transferred: " + path + " is no longer the snapshot the agent wrote");
            return null;
        }
        return new Transferable(new FileInputStream(descriptor), size);
    }

    /** Up to 'remaining' bytes of the input into the buffer; -1 once they are all read. */
    private static int readUpTo(InputStream input, byte[] buffer, long remaining) throws IOException {
        if (remaining <= 0) {
            return -1;
        }
        int read = input.read(buffer, 0, (int) Math.min(buffer.length, remaining));
        if (read == -1) {
            // The file shrank since it was sealed: nothing else may be sent in its place.
            throw new IOException("the snapshot changed during the transfer");
        }
        return read;
    }

    private static void processTransferSnapshot(DataInputStream in, DataOutputStream out) throws IOException {
        Transferable file = openTransferable(in, out);
        if (file == null) {
            return;
        }
        try {
            writeOK(out);
            Packet.writeLong(out, file.mySize);
            byte[] buffer = new byte[TRANSFER_BUFFER_SIZE];
            long remaining = file.mySize;
            int read;
            while ((read = readUpTo(file.myInput, buffer, remaining)) != -1) {
                Packet.writeBytes(out, buffer, read);
                remaining -= read;
            }
        } finally {
            file.myInput.close();
        }
    }

    /**
     * Each block read from the file goes out as one complete raw deflate stream, in pieces each
     * preceded by its length and ended by a length of 0. The reader knows the end of the file
     * from the length sent first.
     */
    private static void processTransferSnapshotCompressed(DataInputStream in, DataOutputStream out)
            throws IOException {
        Transferable file = openTransferable(in, out);
        if (file == null) {
            return;
        }
        Deflater deflater = new Deflater(Deflater.DEFAULT_COMPRESSION, true);
        try {
            writeOK(out);
            Packet.writeLong(out, file.mySize);
            writeCompressedBlocks(file.myInput, file.mySize, out, deflater);
        } finally {
            deflater.end();
            file.myInput.close();
        }
    }

    /** Exactly 'size' bytes of the input, in compressed blocks. */
    static void writeCompressedBlocks(InputStream input, long size, DataOutputStream out, Deflater deflater)
            throws IOException {
        byte[] inputBuffer = new byte[Protocol.TRANSFER_UNCOMPRESSED_CHUNK_SIZE];
        byte[] outputBuffer = new byte[Protocol.TRANSFER_COMPRESSED_CHUNK_SIZE];
        long remaining = size;
        int read;
        while ((read = readUpTo(input, inputBuffer, remaining)) != -1) {
            remaining -= read;
            if (read == 0) {
                continue;
            }
            deflater.reset();
            deflater.setInput(inputBuffer, 0, read);
            deflater.finish();
            while (true) {
                int length = deflater.deflate(outputBuffer);
                Packet.writeInt(out, length);
                if (length == 0) {
                    break;
                }
                Packet.writeBytes(out, outputBuffer, length);
            }
        }
    }

    private static void processGetCaptureOnMemThreshold(DataOutputStream out) throws IOException {
        writeOK(out);
        Packet.writeInt(out, Core.getCaptureMemoryThreshold());
    }

    private static void processSetCaptureOnMemThreshold(DataInputStream in, DataOutputStream out)
            throws IOException {
        int threshold = Packet.readInt(in);
        if (threshold < 0 || threshold > 99) {
            writeError(out, "Bad threshold value: " + threshold + ". Should not be more than 99; 0 means turn off");
            return;
        }
        // The same rule as the usedmem= option: a threshold that low or that high is no use.
        if (threshold != 0 && (threshold < MIN_USED_MEMORY_THRESHOLD || threshold > MAX_USED_MEMORY_THRESHOLD)) {
            writeError(out, "usedmem parameter is invalid; should be an integer in the range 50..90");
            return;
        }
        try {
            Core.setCaptureMemoryThreshold(threshold);
        } catch (RuntimeException e) {
            // A JVM that can't watch its heap: the client hears why, and the connection stays usable.
            writeError(out, String.valueOf(e.getMessage()));
            return;
        }
        writeOK(out);
    }

    private static void processGetJVMThreadDump(DataOutputStream out) throws IOException {
        TelemetryThreadJVMTI.processGetJVMThreadDumpImpl(out);
    }

    private static void processGetOOMEDumperStatus(DataOutputStream out) throws IOException {
        int status = Core.getOOMEDumperStatus();
        writeOK(out);
        Packet.writeInt(out, status);
    }

    private static void processPeriodicalCaptureGetStatus(DataOutputStream out) throws IOException {
        writeOK(out);
        Packet.writeLong(out, PeriodicalCaptureSupport.getCapturePeriodSec());
        Packet.writeInt(out, PeriodicalCaptureSupport.getMaxSnapshotCount());
        Packet.writeInt(out, PeriodicalCaptureSupport.getAlreadyCapturedSnapshotCount());
    }

    private static void processPeriodicalCaptureSetup(DataInputStream in, DataOutputStream out) throws IOException {
        long periodSec = Packet.readLong(in);
        int maxSnapshotCount = Packet.readInt(in);
        if (periodSec != -1 && (periodSec < 1 || periodSec > Integer.MAX_VALUE)) {
            writeError(out, "Bad capture period: " + periodSec + " s. Should be at least 1 s; -1 turns periodic capture off");
            return;
        }
        PeriodicalCaptureSupport.setup(periodSec, maxSnapshotCount);
        writeOK(out);
    }

    private static void processMarkMemory(DataInputStream in, DataOutputStream out) throws IOException {
        int number = Packet.readInt(in);
        String name = Packet.readStringNotNull(in);
        Core.markMemory(number, name);
        writeOK(out);
    }

    private static void processStartMonitorProfiling(DataOutputStream out) throws IOException {
        try {
            Core.startMonitorProfilingImpl();
        } catch (AgentException e) {
            writeError(out, e.getMessage());
            return;
        }
        writeOK(out);
    }

    private static void processStopMonitorProfiling(DataOutputStream out) throws IOException {
        Core.stopMonitorProfilingImpl();
        writeOK(out);
    }

    /**
     * The answer is written by the agent straight onto the socket, so everything buffered here
     * must be out first.
     */
    private static void processUpdateDatabaseTables(DataInputStream in, DataOutputStream out, Socket socket)
            throws IOException {
        int mask = Packet.readInt(in);
        int[] values = new int[TABLE_COUNT];
        for (int bit = 0; bit < TABLE_COUNT; bit++) {
            if ((mask & (1 << bit)) != 0) {
                values[bit] = Packet.readInt(in);
            }
        }
        writeOK(out);
        out.flush();
        Core.writeTables(getSocketFileDescriptor(socket), mask, values);
    }

    private static void processGetDatabaseStatistics(DataOutputStream out) throws IOException {
        String statistics = Core.getDatabaseStatistics();
        writeOK(out);
        Packet.writeString(out, statistics);
    }

    private static void processClearCPUData(DataOutputStream out) throws IOException {
        Core.clearCPUData();
        writeOK(out);
    }

    private static void processClearMonitorData(DataOutputStream out) throws IOException {
        Core.clearMonitorData();
        writeOK(out);
    }

    private static void processClearAllocationData(DataOutputStream out) throws IOException {
        Core.clearAllocationData();
        writeOK(out);
    }

    private static void processClearExceptions(DataOutputStream out) throws IOException {
        Core.clearExceptions();
        writeOK(out);
    }

    private static void processEnableStackTelemetry(DataOutputStream out) throws IOException {
        Core.enableStackTelemetryImpl();
        writeOK(out);
    }

    private static void processDisableStackTelemetry(DataOutputStream out) throws IOException {
        Core.disableStackTelemetryImpl();
        writeOK(out);
    }

    /**
     * The socket's file descriptor, for the natives that write onto it; 0 means none. The agent
     * reads it natively, which works where the JVM denies reflection into java.net; reflection
     * remains for a JVM on which the native is missing.
     */
    static int getSocketFileDescriptor(Socket socket) {
        try {
            int fd = Core.getSocketFD(socket);
            if (fd > 0) {
                return fd;
            }
        } catch (Throwable ignored) {
            // try reflection
        }
        try {
            Object impl = getField(Socket.class, "impl", socket);
            Object fileDescriptor;
            if (Constants.JAVA_VERSION_7) {
                Method method = Class.forName("java.net.SocketImpl").getDeclaredMethod("getFileDescriptor",
                        new Class<?>[0]);
                method.setAccessible(true);
                fileDescriptor = method.invoke(impl, new Object[0]);
            } else {
                fileDescriptor = getField(Class.forName("java.net.SocketImpl"), "fd", impl);
            }
            return ((Integer) getField(java.io.FileDescriptor.class, "fd", fileDescriptor)).intValue();
        } catch (Throwable e) {
            return 0;
        }
    }

    private static Object getField(Class<?> owner, String name, Object target) throws Exception {
        Field field = owner.getDeclaredField(name);
        field.setAccessible(true);
        return field.get(target);
    }
}
