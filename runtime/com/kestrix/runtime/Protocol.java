package com.kestrix.runtime;

/** Packet types, sizes and messages of the socket protocol between the agent and its clients. */
public final class Protocol {
    /** The long that opens every frame. */
    public static final long MAGIC = 123456789L;

    // Responses.
    public static final int PACKET_ERROR_RESP = 0;
    public static final int PACKET_OK_RESP = 1;

    // Requests to the agent.
    public static final int PACKET_GET_STATUS_REQ = 100000;
    public static final int PACKET_START_ALLOCATION_RECORDING_REQ = 100101;
    public static final int PACKET_STOP_ALLOCATION_RECORDING_REQ = 100200;
    public static final int PACKET_START_CPU_PROFILING_REQ = 100300;
    public static final int PACKET_STOP_CPU_PROFILING_REQ = 100400;
    public static final int PACKET_FORCE_GC_REQ = 100500;
    /** Sent by the agent, during a capture, on the socket of the request that asked for it. */
    public static final int PACKET_PROGRESS = 100600;
    public static final int PACKET_TRANSFER_SNAPSHOT_REQ = 101000;
    public static final int PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ = 101001;
    public static final int PACKET_GET_CAPTURE_ON_MEM_THRESHOLD_REQ = 101100;
    public static final int PACKET_SET_CAPTURE_ON_MEM_THRESHOLD_REQ = 101200;
    public static final int PACKET_GET_JVM_THREAD_DUMP_REQ = 101300;
    public static final int PACKET_PERIODICAL_CAPTURE_GET_STATUS_REQ = 101500;
    public static final int PACKET_PERIODICAL_CAPTURE_SETUP_REQ = 101600;
    public static final int PACKET_OOME_DUMPER_GET_STATUS_REQ = 101700;
    public static final int PACKET_MARK_MEMORY_REQ = 102300;
    public static final int PACKET_GET_AGENT_INFO_REQ = 102400;
    public static final int PACKET_START_MONITOR_PROFILING = 102600;
    public static final int PACKET_STOP_MONITOR_PROFILING = 102700;
    public static final int PACKET_PACKET_SEQUENCE_START = 103300;
    public static final int PACKET_PACKET_SEQUENCE_END = 103400;
    public static final int PACKET_UPDATE_DATABASE_TABLES = 103500;
    public static final int PACKET_GET_DATABASE_STATISTICS = 103600;
    public static final int PACKET_CLEAR_CPU_DATA = 103700;
    public static final int PACKET_CLEAR_MONITOR_DATA = 103800;
    public static final int PACKET_CLEAR_ALLOCATION_DATA = 103900;
    public static final int PACKET_CAPTURE_SNAPSHOT_REQ = 104000;
    public static final int PACKET_ALLOCATION_RECORDING_SETTINGS_GET_REQ = 104100;
    public static final int PACKET_CLEAR_EXCEPTIONS = 104200;
    public static final int PACKET_ENABLE_STACK_TELEMETRY = 104300;
    public static final int PACKET_DISABLE_STACK_TELEMETRY = 104400;

    // The IDE plugin's exchange: same framing, never handled by the agent.
    public static final int PACKET_IDE_PROBE_REQ = 30000;
    public static final int PACKET_IDE_PROBE_RESP = 30001;
    public static final int PACKET_IDE_NAVIGATE_REQ = 31000;
    public static final int PACKET_IDE_NAVIGATE_RESP = 31001;
    public static final int PACKET_IDE_NAVIGATE_TO_LINE_REQ = 33000;
    public static final int PACKET_IDE_NAVIGATE_TO_LINE_RESP = 33001;

    public static final int TRANSFER_UNCOMPRESSED_CHUNK_SIZE = 131072;
    public static final int TRANSFER_COMPRESSED_CHUNK_SIZE = 65536;

    public static final String INCOMPATIBLE_AGENT_MESSAGE = "Communication with the profiled application failed.\n"
            + "The profiled application has been started with profiler agent\n"
            + "incompatible with the current version of the profiler.";
    public static final String INCOMPATIBLE_IDE_PLUGIN_MESSAGE = "Communication with the plugin failed."
            + "Possible reason: the plugin is incompatible with the current version of the profiler.";
    public static final String INCORRECT_DATA_FROM_AGENT_MESSAGE = "Communication with the profiled application failed.\n"
            + "The agent has returned incorrect data.";
    public static final String INCORRECT_DATA_MESSAGE = "Communication with failed.\n"
            + "The response contains incorrect data.";

    /** The start of the error text an agent sends for a request it doesn't know. */
    public static final String UNKNOWN_PACKET_TYPE_PREFIX = "Unknown packet type:";

    private Protocol() {
    }
}
