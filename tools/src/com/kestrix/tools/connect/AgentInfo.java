package com.kestrix.tools.connect;

import com.kestrix.Constants;
import com.kestrix.runtime.Packet;
import com.kestrix.runtime.Protocol;
import java.io.DataInputStream;
import java.io.IOException;

/** What an agent tells about itself: its protocol, product, session and where its snapshots go. */
public record AgentInfo(int protocolVersion, String product, long capabilities, String sessionName, long sessionId,
        String hostId, String snapshotDirectory, long pid, int telemetryLimitSeconds) {

    static AgentInfo request(AgentClient client) throws IOException {
        client.send(Protocol.PACKET_GET_AGENT_INFO_REQ);
        client.expectOk();
        DataInputStream in = client.in();
        int version = Packet.readInt(in);
        if (version != Constants.AGENT_PROTOCOL_VERSION) {
            // The rest of the response may be laid out differently: don't read it.
            throw new ClientFailure("protocol mismatch: the agent speaks protocol version " + version
                    + ", this kjp speaks " + Constants.AGENT_PROTOCOL_VERSION);
        }
        String product = Packet.readString(in);
        long capabilities = Packet.readLong(in);
        String session = Packet.readString(in);
        long sessionId = Packet.readLong(in);
        String hostId = Packet.readString(in);
        String directory = Packet.readString(in);
        long pid = Packet.readLong(in);
        int telemetryLimit = Packet.readInt(in);
        return new AgentInfo(version, product, capabilities, session, sessionId, hostId, directory, pid,
                telemetryLimit);
    }
}
