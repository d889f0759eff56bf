package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.PrintWriter;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;

/**
 * The exceptions the agent counted: by class, by the path that threw them and by the path that
 * caught them. An exception that was caught and thrown on is one exception, counted at its last
 * catch with the path where it was first thrown; one that escaped its thread has no catching path.
 */
final class ExceptionReport {
    /** One class: how often it was thrown and how many of those escaped their thread. */
    record ClassLine(String className, long count, long uncaught) {
    }

    /** Exceptions of one class that share a path; a catching path of frame 0 means uncaught. */
    record PathLine(String className, int frame, List<String> methodsLeafFirst, long count) {
    }

    private record PathKey(String className, int frame) {
    }

    final Profile myProfile;
    final boolean mySelected;
    final boolean myAnyRows;
    long myThrown;
    long myUncaught;
    int myClasses;
    int myThreads;
    final List<ClassLine> myByClass = new ArrayList<>();
    final List<PathLine> myByThrow = new ArrayList<>();
    final List<PathLine> myByCatch = new ArrayList<>();

    ExceptionReport(Profile profile, Set<String> threadNames, int top, int paths) {
        myProfile = profile;
        mySelected = !threadNames.isEmpty();
        Map<Integer, Profile.ThreadEntry> threads = new HashMap<>();
        for (Profile.ThreadEntry thread : profile.threads()) {
            threads.put(thread.runningNumber(), thread);
        }
        TableLayout l = TableLayout.EXCEPTION;
        Table table = profile.snapshot().table(l);
        int threadField = l.field("thread");
        int throwField = l.field("throwFrame");
        int catchField = l.field("catchFrame");
        int classField = l.field("classNameStrID");
        int countField = l.field("count");
        Map<String, long[]> byClass = new HashMap<>();
        Map<PathKey, long[]> byThrow = new HashMap<>();
        Map<PathKey, long[]> byCatch = new HashMap<>();
        Set<Integer> threadsSeen = new HashSet<>();
        boolean any = false;
        for (int row = 0; row < table.size(); row++) {
            long count = table.getLong(row, countField);
            int thread = table.getInt(row, threadField);
            // A rethrown exception leaves the rows of its earlier catches at 0; folded rows are zeroed.
            if (table.stamp(row) <= 0 || count <= 0 || thread == 0) {
                continue;
            }
            any = true;
            Profile.ThreadEntry entry = threads.get(thread);
            if (mySelected && (entry == null || !threadNames.contains(entry.name()))) {
                continue;
            }
            String className = Objects.requireNonNullElse(
                    profile.snapshot().string(table.getInt(row, classField)), "<unknown class>");
            int catchFrame = table.getInt(row, catchField);
            long[] classFigures = byClass.computeIfAbsent(className, k -> new long[2]);
            classFigures[0] += count;
            if (catchFrame == 0) {
                classFigures[1] += count;
                myUncaught += count;
            }
            myThrown += count;
            threadsSeen.add(thread);
            byThrow.computeIfAbsent(new PathKey(className, table.getInt(row, throwField)), k -> new long[1])[0] += count;
            byCatch.computeIfAbsent(new PathKey(className, catchFrame), k -> new long[1])[0] += count;
        }
        myAnyRows = any;
        myClasses = byClass.size();
        myThreads = threadsSeen.size();
        for (Map.Entry<String, long[]> e : byClass.entrySet()) {
            myByClass.add(new ClassLine(e.getKey(), e.getValue()[0], e.getValue()[1]));
        }
        myByClass.sort(Comparator.comparingLong(ClassLine::count).reversed().thenComparing(ClassLine::className));
        if (myByClass.size() > top) {
            myByClass.subList(top, myByClass.size()).clear();
        }
        myByThrow.addAll(pathLines(byThrow, paths));
        myByCatch.addAll(pathLines(byCatch, paths));
    }

    private List<PathLine> pathLines(Map<PathKey, long[]> sums, int paths) {
        List<PathLine> lines = new ArrayList<>();
        for (Map.Entry<PathKey, long[]> e : sums.entrySet()) {
            List<String> names = new ArrayList<>();
            for (int method : myProfile.methodsLeafFirst(e.getKey().frame())) {
                names.add(myProfile.methodName(method));
            }
            lines.add(new PathLine(e.getKey().className(), e.getKey().frame(), names, e.getValue()[0]));
        }
        lines.sort(Comparator.comparingLong(PathLine::count).reversed().thenComparing(PathLine::className)
                .thenComparing(p -> String.join(";", p.methodsLeafFirst())));
        return new ArrayList<>(lines.subList(0, Math.min(paths, lines.size())));
    }

    /** "1,002 thrown (3 classes), 1 uncaught". */
    String totals() {
        return Format.count(myThrown) + " thrown (" + Listing.counted(myClasses, "class", "classes") + "), "
                + Format.count(myUncaught) + " uncaught";
    }

    /** The one line of "kjp report", or null when nothing was counted. */
    String summaryLine() {
        return myThrown == 0 ? null : "Exceptions: " + totals() + "; see kjp exceptions";
    }

    String nothingRecorded() {
        if (mySelected && myAnyRows) {
            return "No exceptions recorded for the selected threads.";
        }
        return "No exceptions recorded in this snapshot (none were thrown, or the agent ran with disableexceptions).";
    }

    void writeText(ZoneId zone, PrintWriter out) {
        if (myThrown == 0) {
            out.println(nothingRecorded());
            out.flush();
            return;
        }
        String scope = mySelected ? "selected threads" : "all threads";
        Listing.snapshotHeader(myProfile, zone, out);
        out.println(Format.padRight("Recorded", 10) + totals() + ", in "
                + Listing.counted(myThreads, "thread", "threads"));
        out.println();
        out.println("Exceptions by class, " + scope + " (" + Format.count(myThrown) + ")");
        Listing classes = new Listing("Count", "%", "Uncaught", "Class");
        for (ClassLine line : myByClass) {
            classes.add(Format.count(line.count()), Format.percent(line.count(), myThrown), Format.count(line.uncaught()),
                    line.className());
        }
        classes.write(out);
        out.println();
        out.println("Exceptions by throwing path, " + scope);
        Listing thrown = new Listing("Count", "Class and path");
        for (PathLine p : myByThrow) {
            thrown.add(path("at ", p.methodsLeafFirst()), Format.count(p.count()), p.className());
        }
        thrown.write(out);
        out.println();
        out.println("Exceptions by catching path, " + scope);
        Listing caught = new Listing("Count", "Class and path");
        for (PathLine p : myByCatch) {
            caught.add(p.frame() == 0 ? List.of("uncaught") : path("caught in ", p.methodsLeafFirst()),
                    Format.count(p.count()), p.className());
        }
        caught.write(out);
        out.flush();
    }

    private static List<String> path(String lead, List<String> methodsLeafFirst) {
        List<String> lines = new ArrayList<>();
        lines.add(lead + Listing.leaf(methodsLeafFirst));
        lines.addAll(Listing.callers(methodsLeafFirst));
        return lines;
    }

    String renderJson() {
        Json json = Listing.snapshotJson(myProfile);
        json.field("thrown", myThrown).field("uncaught", myUncaught).field("classes", myClasses)
                .field("threads", myThreads);
        json.name("byClass").beginArray();
        for (ClassLine line : myByClass) {
            json.beginObject().field("class", line.className()).field("count", line.count())
                    .field("uncaught", line.uncaught()).endObject();
        }
        json.endArray();
        paths(json, "byThrowingPath", myByThrow, false);
        paths(json, "byCatchingPath", myByCatch, true);
        return json.endObject().toString();
    }

    private static void paths(Json json, String name, List<PathLine> lines, boolean catching) {
        json.name(name).beginArray();
        for (PathLine p : lines) {
            json.beginObject().field("class", p.className()).field("count", p.count());
            if (catching) {
                json.name("uncaught").value(p.frame() == 0);
            }
            json.name("methodsLeafFirst").beginArray();
            for (String method : p.methodsLeafFirst()) {
                json.value(method);
            }
            json.endArray().endObject();
        }
        json.endArray();
    }
}
