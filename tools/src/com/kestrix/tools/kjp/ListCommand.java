package com.kestrix.tools.kjp;

import com.kestrix.Natives;
import com.kestrix.tools.connect.AgentClient;
import com.kestrix.tools.connect.AgentInfo;
import java.io.IOException;
import java.io.PrintStream;
import java.util.ArrayList;
import java.util.List;

/**
 * kjp list: the JVMs on this machine that run the agent, the way jps lists JVMs. Each agent marks
 * the port it listens on in shared memory; the agent behind each port is then asked for its
 * process id and session name. An agent busy with another client is listed without them; a port
 * that nothing listens on any more is left out.
 */
final class ListCommand {
    record Entry(int port, long pid, String session, String problem) {
    }

    private ListCommand() {
    }

    static List<Entry> entries() throws AgentLibrary.Missing {
        AgentLibrary.load();
        int[] ports = Natives.fillPorts(Natives.MARKER_TYPE_BIT_JAVA);
        List<Entry> entries = new ArrayList<>();
        if (ports == null) {
            return null;
        }
        for (int port : ports) {
            try (AgentClient client = AgentClient.connect("127.0.0.1", port)) {
                AgentInfo info = client.info();
                entries.add(new Entry(port, info.pid(), info.sessionName() == null ? "" : info.sessionName(), null));
            } catch (IOException | RuntimeException e) {
                String message = e.getMessage();
                if (message != null && message.startsWith("connection refused")) {
                    // The marker's process lives, but no agent listens: the pid was reused by
                    // a process that is no JVM of ours.
                    continue;
                }
                entries.add(new Entry(port, -1, "", message == null ? e.getClass().getSimpleName() : message));
            }
        }
        return entries;
    }

    static int run(String format, PrintStream out, PrintStream err) {
        List<Entry> entries;
        try {
            entries = entries();
        } catch (AgentLibrary.Missing e) {
            err.println("kjp: list " + e.getMessage());
            return Kjp.FILE_ERROR;
        }
        if (entries == null) {
            err.println("kjp: list: shared memory is not available on this machine, so agents cannot be found");
            return Kjp.FILE_ERROR;
        }
        if (format.equals("json")) {
            Json json = new Json().beginArray();
            for (Entry e : entries) {
                json.beginObject().field("port", e.port()).field("pid", e.pid()).field("session", e.session());
                if (e.problem() != null) {
                    json.field("problem", e.problem());
                }
                json.endObject();
            }
            out.println(json.endArray());
            return Kjp.OK;
        }
        out.println(Format.padRight("PORT", 7) + Format.padRight("PID", 9) + "SESSION");
        for (Entry e : entries) {
            out.println(Format.padRight(Integer.toString(e.port()), 7)
                    + Format.padRight(e.pid() < 0 ? "-" : Long.toString(e.pid()), 9)
                    + (e.problem() != null ? "(" + e.problem() + ")" : e.session().isEmpty() ? "(unnamed)" : e.session()));
        }
        return Kjp.OK;
    }
}
