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
 *
 * The agent books a request at the call path of its service method, and the requests of
 * servlets that don't override it all run through HttpServlet's, at one path per thread: what
 * is made inside that path belongs to all its URIs together and cannot be divided. Such URIs
 * form a group, and the calls inside them are listed for the group, not for a URI.
 */
final class RequestReport {
    /** What the requests of a URI did: one kind, probed method and text. */
    record Nested(int kind, String method, String text, long timeNs, long count) {
        /** "SQL executeQuery", "dispatch include", "JNDI lookup". */
        String label() {
            return J2EEEvents.kindName(kind) + " " + method;
        }
    }

    /**
     * The requests of one URI; 'kind' tells a servlet from a JSP. 'sharedWith' names the other
     * URIs of its group, and then the calls inside are in the group's list, not in 'nested'.
     */
    record Uri(String uri, int kind, long timeNs, long count, int threads, List<String> sharedWith, List<Nested> nested,
            int nestedLeftOut) {
        long meanNs() {
            return count == 0 ? 0 : timeNs / count;
        }
    }

    /** URIs whose requests share a call path, and the calls made inside them. */
    record Group(List<String> uris, List<Nested> nested, int nestedLeftOut) {
    }

    private static final class Sum {
        final String uri;
        final int kind;
        long timeNs;
        long count;
        final Set<Integer> threads = new HashSet<>();
        final Map<String, Nested> nested = new LinkedHashMap<>();
        /** The first URI of its group, by union of those that share a path; itself when alone. */
        Sum group = this;

        Sum(String uri, int kind) {
            this.uri = uri;
            this.kind = kind;
        }

        Sum root() {
            Sum s = this;
            while (s.group != s) {
                s = s.group;
            }
            return s;
        }
    }

    /** The kinds of event listed under a request, each with the calls made inside another of its kind left out. */
    private static final List<Predicate<J2EEEvents.Event>> NESTED_KINDS = List.of(J2EEEvents.Event::isSql,
            e -> e.kind() == J2EEEvents.KIND_DISPATCH, e -> e.kind() == J2EEEvents.KIND_JNDI);

    final Profile myProfile;
    final boolean mySelected;
    long myRequests;
    long myTimeNs;
    int myThreads;
    int myDistinctUris;
    /** Events of the listed kinds made inside requests and outside them, by kind. */
    final Map<Integer, long[]> myInsideOutside = new HashMap<>();
    final List<Uri> myUris = new ArrayList<>();
    final List<Group> myGroups = new ArrayList<>();

    RequestReport(Profile profile, Set<String> threadNames, int top, int nestedLines) {
        myProfile = profile;
        mySelected = !threadNames.isEmpty();
        List<J2EEEvents.Event> events = J2EEEvents.read(profile);
        List<J2EEEvents.Event> requests = J2EEEvents.outermost(profile, events, J2EEEvents.Event::isRequest);
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
            Sum other = byThreadFrame.putIfAbsent(key(e.thread(), e.frame()), sum);
            if (other != null && other.root() != sum.root()) {
                sum.root().group = other.root();
            }
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
                    request = request.root();
                    String method = leafMethod(e.frame());
                    request.nested.merge(e.kind() + " " + method + " " + e.text(),
                            new Nested(e.kind(), method, e.text(), e.timeNs(), e.count()),
                            (a, b) -> new Nested(a.kind(), a.method(), a.text(), a.timeNs() + b.timeNs(),
                                    a.count() + b.count()));
                }
            }
        }
        Map<Sum, List<String>> groups = new LinkedHashMap<>();
        for (Sum sum : byUri.values()) {
            groups.computeIfAbsent(sum.root(), k -> new ArrayList<>()).add(label(sum.uri, sum.kind));
        }
        for (Sum sum : byUri.values()) {
            List<String> group = groups.get(sum.root());
            List<String> others = new ArrayList<>(group);
            others.remove(label(sum.uri, sum.kind));
            List<Nested> nested = others.isEmpty() ? sorted(sum.nested) : List.of();
            int shown = Math.min(nestedLines, nested.size());
            myUris.add(new Uri(sum.uri, sum.kind, sum.timeNs, sum.count, sum.threads.size(), others,
                    new ArrayList<>(nested.subList(0, shown)), nested.size() - shown));
        }
        myUris.sort(Comparator.comparingLong(Uri::timeNs).reversed()
                .thenComparing(Comparator.comparingLong(Uri::count).reversed()).thenComparing(Uri::uri));
        if (myUris.size() > top) {
            myUris.subList(top, myUris.size()).clear();
        }
        Set<String> listed = new HashSet<>();
        for (Uri u : myUris) {
            listed.add(label(u.uri(), u.kind()));
        }
        for (Map.Entry<Sum, List<String>> group : groups.entrySet()) {
            List<String> uris = group.getValue();
            if (uris.size() > 1 && uris.stream().anyMatch(listed::contains)) {
                List<Nested> nested = sorted(group.getKey().nested);
                int shown = Math.min(nestedLines, nested.size());
                myGroups.add(new Group(uris, new ArrayList<>(nested.subList(0, shown)), nested.size() - shown));
            }
        }
    }

    /** The URI as listed: "[JSP] " before a page's. */
    private static String label(String uri, int kind) {
        return (kind == J2EEEvents.KIND_JSP ? "[JSP] " : "") + uri;
    }

    private static List<Nested> sorted(Map<String, Nested> calls) {
        List<Nested> nested = new ArrayList<>(calls.values());
        nested.sort(Comparator.comparingInt(Nested::kind).thenComparing(
                Comparator.comparingLong(Nested::timeNs).reversed())
                .thenComparing(Comparator.comparingLong(Nested::count).reversed())
                .thenComparing(Nested::method).thenComparing(Nested::text));
        return nested;
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

    /** "inside them 1,050 SQL calls, 1,000 dispatch calls, 500 JNDI calls; outside them 3 SQL calls". */
    String nestedTotals() {
        long[] sql = new long[2];
        for (int kind : new int[] {J2EEEvents.KIND_JDBC, J2EEEvents.KIND_CONNECT}) {
            long[] figures = myInsideOutside.getOrDefault(kind, new long[2]);
            sql[0] += figures[0];
            sql[1] += figures[1];
        }
        long[] dispatch = myInsideOutside.getOrDefault(J2EEEvents.KIND_DISPATCH, new long[2]);
        long[] jndi = myInsideOutside.getOrDefault(J2EEEvents.KIND_JNDI, new long[2]);
        String[] inside = new String[2];
        for (int where = 0; where < 2; where++) {
            List<String> parts = new ArrayList<>();
            if (where == 0 || sql[where] > 0) {
                parts.add(Listing.counted(sql[where], "SQL call", "SQL calls"));
            }
            if (where == 0 || dispatch[where] > 0) {
                parts.add(Listing.counted(dispatch[where], "dispatch call", "dispatch calls"));
            }
            if (where == 0 || jndi[where] > 0) {
                parts.add(Listing.counted(jndi[where], "JNDI call", "JNDI calls"));
            }
            inside[where] = String.join(", ", parts);
        }
        return "inside them " + inside[0] + (inside[1].isEmpty() ? "" : "; outside them " + inside[1]);
    }

    /** The rest of kjp's message for a snapshot with J2EE events but no request, after "FILE: ". */
    static final String NO_REQUESTS = "has no servlet requests: its J2EE events are SQL statements or JNDI calls made"
            + " outside requests (see kjp sql)";

    void writeText(ZoneId zone, PrintWriter out) {
        if (myUris.isEmpty()) {
            out.println("No requests recorded for the selected threads.");
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
            List<String> below = u.sharedWith().isEmpty() ? nestedLines(u.nested(), u.nestedLeftOut())
                    : List.of("  shares its service method's call path with " + String.join(", ", u.sharedWith())
                            + ": the calls inside are listed for them together below");
            listing.add(below, Format.millis(u.timeNs()), Format.count(u.count()), SqlReport.meanMillis(u.meanNs()),
                    label(u.uri(), u.kind()));
        }
        listing.write(out);
        for (Group g : myGroups) {
            out.println();
            out.println("Inside the requests of " + String.join(", ", g.uris()) + " together (one call path):");
            List<String> lines = nestedLines(g.nested(), g.nestedLeftOut());
            for (String line : lines.isEmpty() ? List.of("  (nothing)") : lines) {
                out.println("  " + line);
            }
        }
        out.flush();
    }

    /** Per kind and method the calls, their time and the text. */
    private static List<String> nestedLines(List<Nested> nested, int leftOut) {
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
        if (leftOut > 0) {
            lines.add("  ... " + Listing.counted(leftOut, "more line", "more lines") + " (--paths)");
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
            json.name("sharedWith").beginArray();
            for (String other : u.sharedWith()) {
                json.value(other);
            }
            json.endArray();
            nestedJson(json, u.nested());
            json.endObject();
        }
        json.endArray();
        json.name("groups").beginArray();
        for (Group g : myGroups) {
            json.beginObject().name("uris").beginArray();
            for (String uri : g.uris()) {
                json.value(uri);
            }
            json.endArray().field("nestedLeftOut", g.nestedLeftOut());
            nestedJson(json, g.nested());
            json.endObject();
        }
        json.endArray();
        json.name("outsideRequests").beginObject();
        for (int kind : new int[] {J2EEEvents.KIND_JDBC, J2EEEvents.KIND_CONNECT, J2EEEvents.KIND_DISPATCH,
                J2EEEvents.KIND_JNDI}) {
            json.field(J2EEEvents.kindName(kind), myInsideOutside.getOrDefault(kind, new long[2])[1]);
        }
        return json.endObject().endObject().toString();
    }

    private static void nestedJson(Json json, List<Nested> nested) {
        json.name("nested").beginArray();
        for (Nested n : nested) {
            json.beginObject().field("kind", J2EEEvents.kindName(n.kind())).field("method", n.method())
                    .field("text", n.text()).field("timeNs", n.timeNs()).field("count", n.count()).endObject();
        }
        json.endArray();
    }
}
