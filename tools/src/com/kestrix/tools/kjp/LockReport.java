package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.PrintWriter;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * Where threads waited for locks: the rows of monitor profiling by lock class, by the waiting
 * thread's call path and by the thread that held the lock. The agent books three kinds of wait
 * in one table, and they mean different things, so each kind is summed and listed on its own:
 * a block on a synchronized monitor, a park on a java.util.concurrent lock, and Object.wait.
 */
final class LockReport {
    static final String DURATION_LOW = "kjp.monitor.profiling.duration.ns.low";
    static final String DURATION_HIGH = "kjp.monitor.profiling.duration.ns.high";

    enum Kind {
        BLOCK("block", "blocks", "blocked", "Blocks on synchronized monitors", "Monitor class", "Owner thread"),
        PARK("park", "parks", "parked", "Parks on java.util.concurrent locks", "Lock class", "Owner thread"),
        WAIT("wait", "waits", "waiting", "Waits in Object.wait", "Monitor class", "Waiting thread");

        final String one;
        final String many;
        final String verb;
        final String title;
        final String classHeading;
        final String ownerHeading;

        Kind(String one, String many, String verb, String title, String classHeading, String ownerHeading) {
            this.one = one;
            this.many = many;
            this.verb = verb;
            this.title = title;
            this.classHeading = classHeading;
            this.ownerHeading = ownerHeading;
        }
    }

    /**
     * A named line of a list: a lock class, or a thread with its name as shown and its bare name
     * and running number (0 when the lock named no owner).
     */
    record Line(String name, String thread, int runningNumber, long timeNs, long count) {
    }

    record PathLine(List<String> methodsLeafFirst, long timeNs, long count) {
    }

    record Section(Kind kind, long timeNs, long count, List<Line> classes, List<PathLine> paths, List<Line> owners) {
    }

    private static final class Sum {
        long timeNs;
        long count;

        void add(long time, long n) {
            timeNs += time;
            count += n;
        }
    }

    final Profile myProfile;
    final boolean mySelected;
    /** Length of the recording, or null when the snapshot doesn't say. */
    final Long myDurationNs;
    /** One section per kind that has rows, in the order of {@link Kind}. */
    final List<Section> mySections = new ArrayList<>();
    /** Whether the table has rows at all, of any thread. */
    final boolean myAnyRows;

    LockReport(Profile profile, Set<String> threadNames, int top, int paths) {
        myProfile = profile;
        mySelected = !threadNames.isEmpty();
        myDurationNs = durationNs(profile);
        Map<Integer, Profile.ThreadEntry> threads = new HashMap<>();
        for (Profile.ThreadEntry thread : profile.threads()) {
            threads.put(thread.runningNumber(), thread);
        }
        TableLayout l = TableLayout.MONITOR;
        Table table = profile.snapshot().table(l);
        int threadField = l.field("thread");
        int frameField = l.field("frame");
        int ownerField = l.field("owner");
        int classField = l.field("classNameStrID");
        int timeField = l.field("timeNs");
        int countField = l.field("count");
        Map<Kind, Sum> totals = new LinkedHashMap<>();
        Map<Kind, Map<String, Sum>> byClass = new HashMap<>();
        Map<Kind, Map<Integer, Sum>> byFrame = new HashMap<>();
        Map<Kind, Map<Integer, Sum>> byOwner = new HashMap<>();
        boolean any = false;
        for (int row = 0; row < table.size(); row++) {
            long count = table.getLong(row, countField);
            // Rows folded into another thread or cleared stay behind zeroed, or with a negative stamp.
            if (table.stamp(row) <= 0 || count <= 0 || table.getInt(row, threadField) == 0) {
                continue;
            }
            any = true;
            int thread = table.getInt(row, threadField);
            Profile.ThreadEntry entry = threads.get(thread);
            if (mySelected && (entry == null || !threadNames.contains(entry.name()))) {
                continue;
            }
            int frame = table.getInt(row, frameField);
            int owner = table.getInt(row, ownerField);
            long time = Math.max(0, table.getLong(row, timeField));
            Kind kind = kindOf(frame, thread, owner);
            if (kind == Kind.BLOCK && owner == thread) {
                // The monitor was let go before the agent asked who held it; the agent then names
                // the blocked thread itself, which is no owner at all.
                owner = 0;
            }
            totals.computeIfAbsent(kind, k -> new Sum()).add(time, count);
            String className = profile.snapshot().string(table.getInt(row, classField));
            byClass.computeIfAbsent(kind, k -> new HashMap<>())
                    .computeIfAbsent(className == null ? "<unknown class>" : className, k -> new Sum()).add(time, count);
            byFrame.computeIfAbsent(kind, k -> new HashMap<>()).computeIfAbsent(frame, k -> new Sum()).add(time, count);
            byOwner.computeIfAbsent(kind, k -> new HashMap<>()).computeIfAbsent(owner, k -> new Sum()).add(time, count);
        }
        myAnyRows = any;
        for (Kind kind : Kind.values()) {
            Sum total = totals.get(kind);
            if (total == null) {
                continue;
            }
            List<PathLine> pathLines = new ArrayList<>();
            for (Map.Entry<Integer, Sum> e : byFrame.get(kind).entrySet()) {
                pathLines.add(new PathLine(methodNames(e.getKey()), e.getValue().timeNs, e.getValue().count));
            }
            pathLines.sort(Comparator.comparingLong(PathLine::timeNs).reversed()
                    .thenComparing(Comparator.comparingLong(PathLine::count).reversed())
                    .thenComparing(p -> String.join(";", p.methodsLeafFirst())));
            List<Line> classes = new ArrayList<>();
            for (Map.Entry<String, Sum> e : byClass.get(kind).entrySet()) {
                classes.add(new Line(e.getKey(), null, 0, e.getValue().timeNs, e.getValue().count));
            }
            List<Line> owners = new ArrayList<>();
            for (Map.Entry<Integer, Sum> e : byOwner.get(kind).entrySet()) {
                Profile.ThreadEntry owner = threads.get(e.getKey());
                owners.add(new Line(threadName(e.getKey(), owner), owner == null ? null : owner.name(), e.getKey(),
                        e.getValue().timeNs, e.getValue().count));
            }
            mySections.add(new Section(kind, total.timeNs, total.count, top(classes, top),
                    pathLines.subList(0, Math.min(paths, pathLines.size())), top(owners, top)));
        }
    }

    /**
     * A park is told by its call path, which ends in LockSupport. A wait is owned by the waiting
     * thread, since a thread in Object.wait owns the monitor it waits on, and its path ends in
     * Object.wait (wait0 on newer JVMs). The owner alone doesn't tell: a contended enter whose
     * monitor was released before the agent asked for the owner is booked with the blocked
     * thread as owner too, and under heavy contention that is a good share of the blocks.
     */
    private Kind kindOf(int frame, int thread, int owner) {
        List<Integer> methods = myProfile.methodsLeafFirst(frame);
        String name = "";
        if (!methods.isEmpty()) {
            String leaf = myProfile.methodName(methods.get(0));
            int paren = leaf.indexOf('(');
            name = paren < 0 ? leaf : leaf.substring(0, paren);
        }
        switch (name) {
            case "java.util.concurrent.locks.LockSupport.park":
            case "java.util.concurrent.locks.LockSupport.parkNanos":
            case "java.util.concurrent.locks.LockSupport.parkUntil":
                return Kind.PARK;
            case "java.lang.Object.wait":
            case "java.lang.Object.wait0":
                return owner == thread ? Kind.WAIT : Kind.BLOCK;
            default:
                return Kind.BLOCK;
        }
    }

    private List<String> methodNames(int frame) {
        List<String> names = new ArrayList<>();
        for (int method : myProfile.methodsLeafFirst(frame)) {
            names.add(myProfile.methodName(method));
        }
        return names;
    }

    /** "worker-3 (#12)": names repeat (thread pools, restarted threads), running numbers don't. */
    private static String threadName(int runningNumber, Profile.ThreadEntry thread) {
        if (runningNumber == 0) {
            return "(no owner known)";
        }
        return thread == null ? "thread #" + runningNumber : thread.name() + " (#" + runningNumber + ")";
    }

    private static List<Line> top(List<Line> lines, int top) {
        lines.sort(Comparator.comparingLong(Line::timeNs).reversed()
                .thenComparing(Comparator.comparingLong(Line::count).reversed()).thenComparing(Line::name));
        return lines.subList(0, Math.min(top, lines.size()));
    }

    /** The length of monitor recording from its two 32-bit halves, or null when either is missing. */
    static Long durationNs(Profile profile) {
        Integer low = numericProperty(profile, DURATION_LOW);
        Integer high = numericProperty(profile, DURATION_HIGH);
        if (low == null || high == null) {
            return null;
        }
        return (low & 0xFFFFFFFFL) | ((long) high << 32);
    }

    /** A property the agent stores as a plain number rather than as the index of a text. */
    private static Integer numericProperty(Profile profile, String name) {
        Table properties = profile.snapshot().table(TableLayout.PROPERTIES);
        int nameField = TableLayout.PROPERTIES.field("nameStrID");
        int valueField = TableLayout.PROPERTIES.field("value");
        for (int row = 0; row < properties.size(); row++) {
            if (properties.stamp(row) > 0 && name.equals(profile.snapshot().string(properties.getInt(row, nameField)))) {
                return properties.getInt(row, valueField);
            }
        }
        return null;
    }

    Section section(Kind kind) {
        for (Section section : mySections) {
            if (section.kind() == kind) {
                return section;
            }
        }
        return null;
    }

    /** "blocked 1.23 s in 456 blocks, waiting 500.0 ms in 12 waits", the kinds that have rows. */
    String totals() {
        List<String> parts = new ArrayList<>();
        for (Section section : mySections) {
            Kind kind = section.kind();
            parts.add(kind.verb + " " + Listing.duration(section.timeNs()) + " in "
                    + Listing.counted(section.count(), kind.one, kind.many));
        }
        return String.join(", ", parts);
    }

    /** The totals and, when the snapshot tells it, the length of the recording they come from. */
    String totalsInRecording() {
        return totals() + (myDurationNs == null ? "" : ", in a " + Listing.duration(myDurationNs) + " recording");
    }

    /** The one line of "kjp report", or null when nothing was recorded. */
    String summaryLine() {
        return mySections.isEmpty() ? null : "Locks: " + totalsInRecording() + "; see kjp locks";
    }

    /** One line in place of the lists when there is nothing to list. */
    String nothingRecorded() {
        String recording = myDurationNs == null ? "" : " in a " + Listing.duration(myDurationNs) + " recording";
        if (mySelected && myAnyRows) {
            return "No monitor contention recorded for the selected threads" + recording + ".";
        }
        if (myDurationNs == null) {
            return "No monitor contention recorded in this snapshot: monitor profiling records it while it runs "
                    + "(-agentlib:kjpagent=monitors, or kjp connect HOST:PORT start-monitors).";
        }
        return "No monitor contention recorded" + recording + ".";
    }

    void writeText(ZoneId zone, PrintWriter out) {
        if (mySections.isEmpty()) {
            out.println(nothingRecorded());
            out.flush();
            return;
        }
        Listing.snapshotHeader(myProfile, zone, out);
        out.println(Format.padRight("Recorded", 10) + totalsInRecording());
        String scope = mySelected ? "selected threads" : "all threads";
        for (Section section : mySections) {
            Kind kind = section.kind();
            out.println();
            out.println(section.kind().title + ", " + scope + " (" + Format.millis(section.timeNs()) + " in "
                    + Listing.counted(section.count(), kind.one, kind.many) + ")");
            lines(section.classes(), section, kind.classHeading, out);
            out.println();
            Listing listing = new Listing("Time", "Count", "Path");
            for (PathLine p : section.paths()) {
                listing.add(Listing.callers(p.methodsLeafFirst()), Format.millis(p.timeNs()), Format.count(p.count()),
                        Listing.leaf(p.methodsLeafFirst()));
            }
            listing.write(out);
            out.println();
            lines(section.owners(), section, kind.ownerHeading, out);
        }
        out.flush();
    }

    private static void lines(List<Line> lines, Section section, String heading, PrintWriter out) {
        Listing listing = new Listing("Time", "%", "Count", heading);
        for (Line line : lines) {
            listing.add(Format.millis(line.timeNs()), Format.percent(line.timeNs(), section.timeNs()),
                    Format.count(line.count()), line.name());
        }
        listing.write(out);
    }

    String renderJson() {
        Json json = Listing.snapshotJson(myProfile);
        json.name("recordingDurationNs");
        if (myDurationNs == null) {
            json.value((String) null);
        } else {
            json.value(myDurationNs);
        }
        for (Kind kind : Kind.values()) {
            json.name(kind.many).beginObject();
            Section section = section(kind);
            json.field("timeNs", section == null ? 0 : section.timeNs())
                    .field("count", section == null ? 0 : section.count());
            json.name("byClass").beginArray();
            for (Line line : section == null ? List.<Line>of() : section.classes()) {
                json.beginObject().field("class", line.name()).field("timeNs", line.timeNs())
                        .field("count", line.count()).endObject();
            }
            json.endArray().name("byPath").beginArray();
            for (PathLine p : section == null ? List.<PathLine>of() : section.paths()) {
                json.beginObject().field("timeNs", p.timeNs()).field("count", p.count());
                json.name("methodsLeafFirst").beginArray();
                for (String method : p.methodsLeafFirst()) {
                    json.value(method);
                }
                json.endArray().endObject();
            }
            json.endArray().name("byOwner").beginArray();
            for (Line line : section == null ? List.<Line>of() : section.owners()) {
                json.beginObject().field("owner", line.thread()).field("ownerRunningNumber", line.runningNumber())
                        .field("timeNs", line.timeNs()).field("count", line.count()).endObject();
            }
            json.endArray().endObject();
        }
        return json.endObject().toString();
    }
}
