package com.kestrix.tools.kjp;

import java.io.PrintWriter;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * The SQL statements of a snapshot by total time, with the call paths that issued them. The agent
 * books a statement at the driver method that ran it, once per thread and path; here the rows of
 * one text come together whatever thread or path ran them, and the paths are listed under it.
 * A prepareStatement or prepareCall carries the text as well, but prepares it, and is counted as
 * a prepare, not as an execution; calls without a text (close, commit, executeBatch) are named by
 * their driver method.
 */
final class SqlReport {
    /** The calls of one path: executions, or prepares when 'prepare'. */
    record PathLine(List<String> methodsLeafFirst, boolean prepare, long timeNs, long count) {
    }

    /** One statement: its executions, its prepares and the paths of both, the costliest first. */
    record Statement(String label, String text, int kind, long timeNs, long count, long prepareTimeNs, long prepares,
            int threads, List<PathLine> paths) {
        long meanNs() {
            return count == 0 ? 0 : timeNs / count;
        }
    }

    private static final class Sum {
        long timeNs;
        long count;
        long prepareTimeNs;
        long prepares;
        final Set<Integer> threads = new HashSet<>();
        final Map<Integer, long[]> byFrame = new LinkedHashMap<>();
    }

    final Profile myProfile;
    final boolean mySelected;
    final boolean myAnySql;
    /** Executions of statements with a text, their time, and how many texts they had. */
    long myExecutions;
    long myTimeNs;
    int myDistinct;
    long myPrepares;
    /** Calls without a text and connects. */
    long myOtherCalls;
    int myThreads;
    final List<Statement> myStatements = new ArrayList<>();

    SqlReport(Profile profile, Set<String> threadNames, int top, int paths) {
        myProfile = profile;
        mySelected = !threadNames.isEmpty();
        List<J2EEEvents.Event> events = J2EEEvents.read(profile);
        List<J2EEEvents.Event> sql = J2EEEvents.outermost(profile, events, J2EEEvents.Event::isSql);
        myAnySql = !sql.isEmpty();
        Map<String, Sum> byLabel = new HashMap<>();
        Map<String, J2EEEvents.Event> first = new HashMap<>();
        Set<Integer> threads = new HashSet<>();
        Set<String> texts = new HashSet<>();
        for (J2EEEvents.Event e : sql) {
            if (mySelected && !threadNames.contains(e.threadName())) {
                continue;
            }
            String leaf = leafMethod(e.frame());
            String label = label(e, leaf);
            Sum sum = byLabel.computeIfAbsent(label, k -> new Sum());
            first.putIfAbsent(label, e);
            boolean prepare = isPrepare(e, leaf);
            if (prepare) {
                sum.prepareTimeNs += e.timeNs();
                sum.prepares += e.count();
                myPrepares += e.count();
            } else {
                sum.timeNs += e.timeNs();
                sum.count += e.count();
                if (e.kind() == J2EEEvents.KIND_JDBC && !e.text().isEmpty()) {
                    myExecutions += e.count();
                    myTimeNs += e.timeNs();
                    texts.add(e.text());
                } else {
                    myOtherCalls += e.count();
                }
            }
            sum.threads.add(e.thread());
            threads.add(e.thread());
            long[] figures = sum.byFrame.computeIfAbsent(e.frame(), k -> new long[2]);
            figures[0] += e.timeNs();
            figures[1] += e.count();
        }
        myDistinct = texts.size();
        myThreads = threads.size();
        for (Map.Entry<String, Sum> entry : byLabel.entrySet()) {
            Sum sum = entry.getValue();
            J2EEEvents.Event e = first.get(entry.getKey());
            List<PathLine> pathLines = new ArrayList<>();
            for (Map.Entry<Integer, long[]> f : sum.byFrame.entrySet()) {
                List<String> names = new ArrayList<>();
                for (int method : profile.methodsLeafFirst(f.getKey())) {
                    names.add(profile.methodName(method));
                }
                pathLines.add(new PathLine(names, isPrepare(e, names.isEmpty() ? "" : names.get(0)),
                        f.getValue()[0], f.getValue()[1]));
            }
            pathLines.sort(Comparator.comparing(PathLine::prepare).thenComparing(
                    Comparator.comparingLong(PathLine::timeNs).reversed())
                    .thenComparing(Comparator.comparingLong(PathLine::count).reversed())
                    .thenComparing(p -> String.join(";", p.methodsLeafFirst())));
            myStatements.add(new Statement(entry.getKey(), e.text(), e.kind(), sum.timeNs, sum.count,
                    sum.prepareTimeNs, sum.prepares, sum.threads.size(),
                    new ArrayList<>(pathLines.subList(0, Math.min(paths, pathLines.size())))));
        }
        myStatements.sort(Comparator.comparingLong(Statement::timeNs).reversed()
                .thenComparing(Comparator.comparingLong(Statement::count).reversed())
                .thenComparing(Comparator.comparingLong(Statement::prepares).reversed())
                .thenComparing(Statement::label));
        if (myStatements.size() > top) {
            myStatements.subList(top, myStatements.size()).clear();
        }
    }

    private String leafMethod(int frame) {
        List<Integer> methods = myProfile.methodsLeafFirst(frame);
        return methods.isEmpty() ? "" : myProfile.methodName(methods.get(0));
    }

    private static boolean isPrepare(J2EEEvents.Event e, String leafMethod) {
        String name = J2EEEvents.simpleName(leafMethod);
        return e.kind() == J2EEEvents.KIND_JDBC && !e.text().isEmpty()
                && (name.equals("prepareStatement") || name.equals("prepareCall"));
    }

    /** The text, "connect URL" for a driver's connect, and the driver method in brackets when there is no text. */
    private static String label(J2EEEvents.Event e, String leafMethod) {
        if (e.text().isEmpty()) {
            return "[" + (leafMethod.isEmpty() ? "unknown JDBC call" : leafMethod) + "]";
        }
        return e.kind() == J2EEEvents.KIND_CONNECT ? "connect " + e.text() : e.text();
    }

    /** "1,010 SQL statements (2 distinct), 12.3 ms". */
    String statements() {
        return Listing.counted(myExecutions, "SQL statement", "SQL statements") + " (" + Format.count(myDistinct)
                + " distinct), " + Listing.duration(myTimeNs);
    }

    /** The same with the threads, prepares and the other JDBC calls. */
    String totals() {
        return statements() + " in " + Listing.counted(myThreads, "thread", "threads") + "; "
                + Listing.counted(myPrepares, "prepare", "prepares") + ", "
                + Listing.counted(myOtherCalls, "other JDBC call", "other JDBC calls") + " (connects, and calls"
                + " without SQL text)";
    }

    /** One line in place of the list when there is nothing to list. */
    String nothingRecorded() {
        if (mySelected && myAnySql) {
            return "No SQL statements recorded for the selected threads.";
        }
        return "No SQL statements recorded in this snapshot; its J2EE events are requests, dispatches or JNDI calls"
                + " (see kjp requests).";
    }

    /** A mean that a few microseconds don't round to 0: "0.012 ms". */
    static String meanMillis(long ns) {
        return String.format(java.util.Locale.ROOT, "%,.3f ms", ns / 1e6);
    }

    void writeText(ZoneId zone, PrintWriter out, int pathDepth) {
        if (myStatements.isEmpty()) {
            out.println(nothingRecorded());
            out.flush();
            return;
        }
        Listing.snapshotHeader(myProfile, zone, out);
        out.println(Format.padRight("Recorded", 10) + totals());
        out.println(Format.padRight("Times", 10) + (myProfile.hasCounts()
                ? "CPU data of the calling path, traced: each call's own growth"
                : "CPU data of the calling path, sampled: a statement shorter than the sampling interval often shows 0"));
        out.println();
        out.println("SQL statements by total time, " + (mySelected ? "selected threads" : "all threads"));
        Listing listing = new Listing("Time", "Count", "Mean", "Prepares", "Statement");
        for (Statement s : myStatements) {
            listing.add(pathLines(s, pathDepth), Format.millis(s.timeNs()), Format.count(s.count()),
                    meanMillis(s.meanNs()), Format.count(s.prepares()), s.label());
        }
        listing.write(out);
        out.flush();
    }

    /** The lines under a statement: per path its calls, the driver method, and the callers up to 'depth'. */
    private static List<String> pathLines(Statement s, int depth) {
        List<String> lines = new ArrayList<>();
        for (PathLine p : s.paths()) {
            String lead = (p.prepare() ? Listing.counted(p.count(), "prepare", "prepares")
                    : Listing.counted(p.count(), "call", "calls")) + ", " + Format.millis(p.timeNs()) + ": ";
            List<String> methods = p.methodsLeafFirst();
            lines.add("  " + lead + Listing.leaf(methods));
            String indent = " ".repeat(2 + lead.length());
            int shown = Math.min(methods.size(), depth);
            for (int m = 1; m < shown; m++) {
                lines.add(indent + "<- " + methods.get(m));
            }
            if (shown < methods.size()) {
                int left = methods.size() - shown;
                lines.add(indent + "<- ... " + Listing.counted(left, "more frame", "more frames") + " (--path-depth)");
            }
        }
        return lines;
    }

    String renderJson() {
        Json json = Listing.snapshotJson(myProfile);
        json.field("statements", myExecutions).field("distinct", myDistinct).field("prepares", myPrepares)
                .field("otherCalls", myOtherCalls).field("timeNs", myTimeNs).field("threads", myThreads).name("timesTraced").value(myProfile.hasCounts());
        json.name("byStatement").beginArray();
        for (Statement s : myStatements) {
            json.beginObject().field("statement", s.label()).field("text", s.text())
                    .field("kind", J2EEEvents.kindName(s.kind())).field("timeNs", s.timeNs()).field("count", s.count())
                    .field("meanNs", s.meanNs()).field("prepares", s.prepares()).field("prepareTimeNs", s.prepareTimeNs())
                    .field("threads", s.threads());
            json.name("paths").beginArray();
            for (PathLine p : s.paths()) {
                json.beginObject().name("prepare").value(p.prepare()).field("timeNs", p.timeNs())
                        .field("count", p.count());
                json.name("methodsLeafFirst").beginArray();
                for (String method : p.methodsLeafFirst()) {
                    json.value(method);
                }
                json.endArray().endObject();
            }
            json.endArray().endObject();
        }
        return json.endArray().endObject().toString();
    }
}
