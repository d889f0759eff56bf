package com.kestrix.tools.connect;

import com.kestrix.runtime.Packet;
import com.kestrix.runtime.Protocol;
import java.io.DataInputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.util.ArrayList;
import java.util.List;

/** The JVM's threads with their stacks, as the agent reads them through the thread bean. */
public record ThreadDump(long uptimeMs, List<ThreadDump.Entry> threads) {
    /** One frame; a line below 0 means unknown, -2 a native method. */
    public record Frame(String className, String method, String file, int line) {
    }

    /** One thread; the contention figures are -1 unless the JVM measures them. */
    public record Entry(long id, String name, long blockedTimeMs, long blockedCount, long waitedTimeMs,
            long waitedCount, String lockName, long lockOwnerId, boolean inNative, boolean suspended, int state,
            List<Frame> frames) {
    }

    static ThreadDump request(AgentClient client) throws IOException {
        client.send(Protocol.PACKET_GET_JVM_THREAD_DUMP_REQ);
        client.expectOk();
        DataInputStream in = client.in();
        long uptime = Packet.readLong(in);
        int count = Packet.readInt(in);
        List<Entry> threads = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            long id = Packet.readLong(in);
            String name = Packet.readString(in);
            long blockedTime = Packet.readLong(in);
            long blockedCount = Packet.readLong(in);
            long waitedTime = Packet.readLong(in);
            long waitedCount = Packet.readLong(in);
            String lock = Packet.readString(in);
            long owner = Packet.readLong(in);
            boolean inNative = Packet.readInt(in) != 0;
            boolean suspended = Packet.readInt(in) != 0;
            int state = Packet.readInt(in);
            int frameCount = Packet.readInt(in);
            List<Frame> frames = new ArrayList<>();
            for (int f = 0; f < frameCount; f++) {
                frames.add(new Frame(Packet.readString(in), Packet.readString(in), Packet.readString(in),
                        Packet.readInt(in)));
            }
            threads.add(new Entry(id, name, blockedTime, blockedCount, waitedTime, waitedCount, lock, owner,
                    inNative, suspended, state, frames));
        }
        return new ThreadDump(uptime, threads);
    }

    /** The name of a java.lang.Thread.State ordinal. */
    static String stateName(int ordinal) {
        Thread.State[] states = Thread.State.values();
        return ordinal >= 0 && ordinal < states.length ? states[ordinal].name() : "state " + ordinal;
    }

    void print(PrintStream out) {
        out.printf("Thread dump at uptime %s, %d threads%n", Units.seconds(uptimeMs), threads.size());
        for (Entry t : threads) {
            out.println();
            StringBuilder head = new StringBuilder();
            head.append('"').append(t.name()).append("\" #").append(t.id()).append(' ').append(stateName(t.state()));
            if (t.inNative()) {
                head.append(", in native code");
            }
            if (t.suspended()) {
                head.append(", suspended");
            }
            out.println(head);
            if (t.lockName() != null) {
                out.println("   waiting for " + t.lockName()
                        + (t.lockOwnerId() > 0 ? " held by #" + t.lockOwnerId() : ""));
            }
            if (t.blockedCount() >= 0) {
                out.printf("   blocked %d times (%d ms), waited %d times (%d ms)%n", t.blockedCount(),
                        t.blockedTimeMs(), t.waitedCount(), t.waitedTimeMs());
            }
            for (Frame f : t.frames()) {
                String where;
                if (f.line() == -2) {
                    where = "Native Method";
                } else if (f.file() == null) {
                    where = "Unknown Source";
                } else {
                    where = f.line() >= 0 ? f.file() + ":" + f.line() : f.file();
                }
                out.println("    at " + f.className() + "." + f.method() + "(" + where + ")");
            }
        }
    }
}
