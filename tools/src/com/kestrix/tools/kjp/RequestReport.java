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
import java.util.function.Predicate;

/**
 * The servlet requests of a snapshot by URI and total time, and under each URI what its requests
 * did: the SQL statements, request dispatching and JNDI calls made on the request's thread while
 * its service method ran (the request's frame lies on the event's path). A container runs a
 * forwarded or included servlet inside the first one; those inner requests belong to the URI the
 * client asked for and are not counted again.
 */
final class RequestReport {
    /** What the requests of a URI did: one kind, probed method and text. */
    record Nested(int kind, String method, String text, long timeNs, long count) {
        /** "SQL executeQuery", "dispatch include", "JNDI lookup". */
        String label() {
            return J2EEEvents.kindName(kind) + " " + method;
        }
    }

    /** The requests of one URI; 'kind' tells a servlet from a JSP. */
    record Uri(String uri, int kind, long timeNs, long count, int threads, List<Nested> nested, int nestedLeftOut) {
        long meanNs() {
            return count == 0 ? 0 : timeNs / count;
        }
    }

    private static final class Sum {
        final String uri;
        final int kind;
        long timeNs;
        long count;
        final Set<Integer> threads = new HashSet<>();
        final Map<String, Nested> nested = new LinkedHashMap<>();

        Sum(String uri, int kind) {
            this.uri = uri;
            this.kind = kind;
        }
    }

    /** The kinds of event listed under a request, each with the calls made inside another of its kind left out. */
    private static final List<Predicate<J2EEEvents.Event>> NESTED_KINDS = List.of(J2EEEvents.Event::isSql,
            e -> e.kind() == J2EEEvents.KIND_DISPATCH, e -> e.kind() == J2EEEvents.KIND_JNDI);

    final Profile myProfile;
    final boolean mySelected;
    final boolean myAnyEvents;
    final boolean myAnyRequests;
    long myRequests;
    long myTimeNs;
    int myThreads;
    int myDistinctUris;
    /** Events of the listed kinds made inside requests and outside them, by kind. */
    final Map<Integer, long[]> myInsideOutside = new HashMap<>();
    final List<Uri> myUris = new ArrayList<>();

    RequestReport(Profile profile, Set<String> threadNames, int top, int nestedLines) {
        myProfile = profile;
        mySelected = !threadNames.isEmpty();
        List<J2EEEvents.Event> events = J2EEEvents.read(profile);
        myAnyEvents = !events.isEmpty();
        List<J2EEEvents.Event> requests = J2EEEvents.outermost(profile, events, J2EEEvents.Event::isRequest);
        myAnyRequests = !requests.isEmpty();
        // A request row is the sum of a thread's requests to a URI at one call path; two URIs may
        // share a path, so events inside a path go to each of its rows... which cannot be told
        // apart. They are booked with the first URI on that thread and path (see README).
        Map<Long, Sum> byThreadFrame = new HashMap<>();
        Map<String, Sum> byUri = new LinkedHashMap<>();
        Set<Integer> threads = new HashSet<>();
        for (J2EEEvents.Event e : requests) {
            if (mySelected && !threadNames.contains(e.threadName())) {
                continue;
            }
            Sum sum = byUri.computeIfAbsent(e.kind() + " " + e.text(), k -> new Sum(e.text(), e.kind()));
            sum.timeNs += e.timeNs();
            sum.count += e.count();
            sum.threads.add(e.thread());
            threads.add(e.thread());
            byThreadFrame.putIfAbsent(key(e.thread(), e.frame()), sum);
            myRequests += e.count();
            myTimeNs += e.timeNs();
        }
        myThreads = threads.size();
        myDistinctUris = byUri.size();
        for (Predicate<J2EEEvents.Event> kind : NESTED_KINDS) {
            for (J2EEEvents.Event e : J2EEEvents.outermost(profile, events, kind)) {
                if (mySelected && !threadNames.contains(e.threadName())) {
                    continue;
                }
                Sum request = enclosingRequest(byThreadFrame, e);
                myInsideOutside.computeIfAbsent(e.kind(), k -> new long[2])[request == null ? 1 : 0] += e.count();
                if (request != null) {
                    String method = leafMethod(e.frame());
                    request.nested.merge(e.kind() + " " + method + " " + e.text(),
                            new Nested(e.kind(), method, e.text(), e.timeNs(), e.count()),
                            (a, b) -> new Nested(a.kind(), a.method(), a.text(), a.timeNs() + b.timeNs(),
                                    a.count() + b.count()));
                }
            }
        }
        for (Sum sum : byUri.values()) {
            List<Nested> nested = new ArrayList<>(sum.nested.values());
            nested.sort(Comparator.comparingInt(Nested::kind).thenComparing(
                    Comparator.comparingLong(Nested::timeNs).reversed())
                    .thenComparing(Comparator.comparingLong(Nested::count).reversed())
                    .thenComparing(Nested::method).thenComparing(Nested::text));
            int shown = Math.min(nestedLines, nested.size());
            myUris.add(new Uri(sum.uri, sum.kind, sum.timeNs, sum.count, sum.threads.size(),
                    new ArrayList<>(nested.subList(0, shown)), nested.size() - shown));
        }
        myUris.sort(Comparator.comparingLong(Uri::timeNs).reversed()
                .thenComparing(Comparator.comparingLong(Uri::count).reversed()).thenComparing(Uri::uri));
        if (myUris.size() > top) {
            myUris.subList(top, myUris.size()).clear();
        }
    }

    private static long key(int thread, int frame) {
        return ((long) thread << 32) | (frame & 0xffffffffL);
    }

    /** The request whose frame is on the event's path, on the event's thread; null outside requests. */
    private Sum enclosingRequest(Map<Long, Sum> byThreadFrame, J2EEEvents.Event e) {
        for (int frame : myProfile.framesLeafFirst(e.frame())) {
            Sum sum = byThreadFrame.get(key(e.thread(), frame));
            if (sum != null) {
                return sum;
            }
        }
        return null;
    }

    /** "executeQuery" for a row of org.h2.jdbc.JdbcPreparedStatement.executeQuery(). */
    private String leafMethod(int frame) {
        List<Integer> methods = myProfile.methodsLeafFirst(frame);
        return methods.isEmpty() ? "?" : J2EEEvents.simpleName(myProfile.methodName(methods.get(0)));
    }

    /** "1,050 SQL statements, 1,000 dispatches and 500 JNDI calls inside them; 3 SQL statements outside". */
    String nestedTotals() {
        long[] sql = new long[2];
        for (int kind : new int[] {J2EEEvents.KIND_JDBC, J2EEEvents.KIND_CONNECT}) {
            long[] figures = myInsideOutside.getOrDefault(kind, new long[2]);
            sql[0] += figures[0];
            sql[1] += figures[1];
        }
        long[] dispatch = myInsideOutside.getOrDefault(J2EEEvents.KIND_DISPATCH, new long[2]);
        long[] jndi = myInsideOutside.getOrDefault(J2EEEvents.KIND_JNDI, new long[2]);
        return "inside them " + Listing.counted(sql[0], "SQL call", "SQL calls") + ", "
                + Listing.counted(dispatch[0], "dispatch call", "dispatch calls") + ", "
                + Listing.counted(jndi[0], "JNDI call", "JNDI calls") + "; outside requests "
                + Format.count(sql[1]) + ", " + Format.count(dispatch[1]) + ", " + Format.count(jndi[1]);
    }

    void writeText(ZoneId zone, PrintWriter out) {
        if (myUris.isEmpty()) {
            out.println(mySelected && myAnyRequests ? "No requests recorded for the selected threads."
                    : "No servlet requests recorded in this snapshot; its J2EE events are SQL statements or JNDI"
                            + " calls made outside requests (see kjp sql).");
            out.flush();
            return;
        }
        Listing.snapshotHeader(myProfile, zone, out);
        out.println(Format.padRight("Recorded", 10) + Listing.counted(myRequests, "request", "requests") + " ("
                + Listing.counted(myDistinctUris, "URI", "URIs") + "), " + Listing.duration(myTimeNs) + " in "
                + Listing.counted(myThreads, "thread", "threads") + "; " + nestedTotals());
        out.println(Format.padRight("Times", 10) + (myProfile.hasCounts()
                ? "CPU data of the service method's path, traced"
                : "CPU data of the service method's path, sampled: a request shorter than the sampling interval"
                        + " often shows 0"));
        out.println();
        out.println("Requests by URI and total time, " + (mySelected ? "selected threads" : "all threads"));
        Listing listing = new Listing("Time", "Count", "Mean", "URI");
        for (Uri u : myUris) {
            listing.add(nestedLines(u), Format.millis(u.timeNs()), Format.count(u.count()),
                    SqlReport.meanMillis(u.meanNs()), (u.kind() == J2EEEvents.KIND_JSP ? "[JSP] " : "") + u.uri());
        }
        listing.write(out);
        out.flush();
    }

    /** Under a URI: per kind and method the calls, their time and the text. */
    private static List<String> nestedLines(Uri u) {
        List<Nested> nested = u.nested();
        int labelWidth = 0;
        int countWidth = 0;
        int timeWidth = 0;
        for (Nested n : nested) {
            labelWidth = Math.max(labelWidth, n.label().length());
            countWidth = Math.max(countWidth, Format.count(n.count()).length());
            timeWidth = Math.max(timeWidth, Format.millis(n.timeNs()).length());
        }
        List<String> lines = new ArrayList<>();
        for (Nested n : nested) {
            lines.add("  " + Format.padRight(n.label(), labelWidth) + "  " + Format.padLeft(Format.count(n.count()),
                    countWidth) + "  " + Format.padLeft(Format.millis(n.timeNs()), timeWidth) + "  "
                    + (n.text().isEmpty() ? "(no text)" : n.text()));
        }
        if (u.nestedLeftOut() > 0) {
            lines.add("  ... " + Listing.counted(u.nestedLeftOut(), "more line", "more lines") + " (--paths)");
        }
        return lines;
    }

    String renderJson() {
        Json json = Listing.snapshotJson(myProfile);
        json.field("requests", myRequests).field("distinctUris", myDistinctUris).field("timeNs", myTimeNs)
                .field("threads", myThreads).name("timesTraced").value(myProfile.hasCounts());
        json.name("byUri").beginArray();
        for (Uri u : myUris) {
            json.beginObject().field("uri", u.uri()).field("kind", J2EEEvents.kindName(u.kind()))
                    .field("timeNs", u.timeNs()).field("count", u.count()).field("meanNs", u.meanNs())
                    .field("threads", u.threads()).field("nestedLeftOut", u.nestedLeftOut());
            json.name("nested").beginArray();
            for (Nested n : u.nested()) {
                json.beginObject().field("kind", J2EEEvents.kindName(n.kind())).field("method", n.method())
                        .field("text", n.text()).field("timeNs", n.timeNs()).field("count", n.count()).endObject();
            }
            json.endArray().endObject();
        }
        json.endArray();
        json.name("outsideRequests").beginObject();
        for (int kind : new int[] {J2EEEvents.KIND_JDBC, J2EEEvents.KIND_CONNECT, J2EEEvents.KIND_DISPATCH,
                J2EEEvents.KIND_JNDI}) {
            json.field(J2EEEvents.kindName(kind), myInsideOutside.getOrDefault(kind, new long[2])[1]);
        }
        return json.endObject().endObject().toString();
    }
}
