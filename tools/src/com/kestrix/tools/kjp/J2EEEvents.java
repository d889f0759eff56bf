package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Objects;
import java.util.Set;
import java.util.function.Predicate;

/**
 * The J2EE events of a snapshot: SQL statements, servlet requests, request dispatching and JNDI
 * calls, each a sum per thread, call path, text and kind. The call path ends in the method that
 * carries the probe (the driver's executeQuery, the servlet's service); its time is what the CPU
 * data of that path grew by during the calls, so it is CPU time where the CPU data is.
 */
final class J2EEEvents {
    static final int KIND_JDBC = 1;
    static final int KIND_CONNECT = 2;
    static final int KIND_SERVLET = 4;
    static final int KIND_JSP = 5;
    static final int KIND_DISPATCH = 6;
    static final int KIND_JNDI = 7;

    /** One row: 'text' is the SQL, the request URI or the JNDI name, "" when unknown. */
    record Event(int thread, String threadName, int frame, String text, int kind, long timeNs, long count) {
        boolean isSql() {
            return kind == KIND_JDBC || kind == KIND_CONNECT;
        }

        boolean isRequest() {
            return kind == KIND_SERVLET || kind == KIND_JSP;
        }
    }

    private J2EEEvents() {
    }

    /**
     * The rows with at least one call, of the agent's threads only when those are shown. Rows of
     * threads folded at their end belong to "<Oldest dead threads>" and keep their paths.
     */
    static List<Event> read(Profile profile) {
        TableLayout l = TableLayout.J2EE;
        Table table = profile.snapshot().table(l);
        int threadField = l.field("thread");
        int frameField = l.field("frame");
        int textField = l.field("strID");
        int kindField = l.field("kind");
        int timeField = l.field("timeNs");
        int countField = l.field("count");
        List<Event> events = new ArrayList<>();
        for (int row = 0; row < table.size(); row++) {
            long count = table.getLong(row, countField);
            int thread = table.getInt(row, threadField);
            if (table.stamp(row) <= 0 || count <= 0 || thread == 0) {
                continue;
            }
            Profile.ThreadEntry entry = profile.threadByNumber(thread);
            String threadName = entry == null ? "<thread " + thread + ">" : entry.name();
            if (!Profile.showsThread(threadName)) {
                continue;
            }
            String text = Objects.requireNonNullElse(profile.snapshot().string(table.getInt(row, textField)), "");
            events.add(new Event(thread, threadName, table.getInt(row, frameField), text,
                    table.getInt(row, kindField), Math.max(0, table.getLong(row, timeField)), count));
        }
        return events;
    }

    /** The rest of kjp's message for a snapshot without J2EE events, after "FILE: ". */
    static final String NONE_RECORDED = "has no J2EE events (SQL statements, requests, JNDI calls): they are recorded"
            + " while CPU profiling runs with J2EE on (-agentlib:kjpagent=sampling or =tracing, without noj2ee or"
            + " disablej2ee)";

    /** The names of the methods that carry J2EE probes, whatever their class. */
    private static final Set<String> PROBED_NAMES = Set.of("close", "commit", "createStatement", "prepareCall",
            "prepareStatement", "rollback", "execute", "executeBatch", "executeQuery", "executeUpdate", "connect",
            "service", "_jspService", "forward", "include", "getRequestDispatcher", "getNamedDispatcher", "list",
            "lookup", "bind", "listBindings", "lookupLink", "rebind", "unbind", "rename", "composeName",
            "createSubcontext", "destroySubcontext", "getNameParser", "search", "getAttributes", "getSchema",
            "getSchemaClassDefinition", "modifyAttributes");

    /**
     * The events that 'kind' selects, less those made inside another of them: a pool's statement
     * that calls the driver's, or a prepareStatement that calls its own overloads, is one call of
     * the application. A row is inner when a frame above its own is the frame of a selected row
     * that ends in a probed method. Tracing folds calls of filtered classes (the JDK's
     * InitialContext, say) into their callers, and such a row's frame ends in the caller: the
     * caller's other calls are not inside it.
     */
    static List<Event> outermost(Profile profile, List<Event> events, Predicate<Event> kind) {
        Set<Integer> frames = new HashSet<>();
        for (Event e : events) {
            if (kind.test(e) && !frames.contains(e.frame())) {
                List<Integer> methods = profile.methodsLeafFirst(e.frame());
                if (!methods.isEmpty() && PROBED_NAMES.contains(simpleName(profile.methodName(methods.get(0))))) {
                    frames.add(e.frame());
                }
            }
        }
        List<Event> outer = new ArrayList<>();
        for (Event e : events) {
            if (!kind.test(e)) {
                continue;
            }
            List<Integer> path = profile.framesLeafFirst(e.frame());
            boolean inner = false;
            for (int i = 1; i < path.size() && !inner; i++) {
                inner = frames.contains(path.get(i));
            }
            if (!inner) {
                outer.add(e);
            }
        }
        return outer;
    }

    /** "prepareStatement" of "org.h2.jdbc.JdbcConnection.prepareStatement(String)". */
    static String simpleName(String method) {
        int paren = method.indexOf('(');
        String name = paren < 0 ? method : method.substring(0, paren);
        return name.substring(name.lastIndexOf('.') + 1);
    }

    /** Whether 'ancestor' is 'frame' or lies on its path to the root. */
    static boolean isAncestor(Profile profile, int ancestor, int frame) {
        if (ancestor <= 0) {
            return false;
        }
        for (int current : profile.framesLeafFirst(frame)) {
            if (current == ancestor) {
                return true;
            }
        }
        return false;
    }

    /** "SQL", "connect", "request", "JSP", "dispatch", "JNDI" for a kind. */
    static String kindName(int kind) {
        return switch (kind) {
            case KIND_JDBC -> "SQL";
            case KIND_CONNECT -> "connect";
            case KIND_SERVLET -> "request";
            case KIND_JSP -> "JSP";
            case KIND_DISPATCH -> "dispatch";
            case KIND_JNDI -> "JNDI";
            default -> "kind " + kind;
        };
    }
}
