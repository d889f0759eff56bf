package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.SnapshotHeader;
import java.io.PrintWriter;
import java.time.Instant;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.List;

/** The report as plain text for a terminal: aligned columns, one fact a line. */
final class TextReport {
    private final Report myReport;
    private final ZoneId myZone;
    private final PrintWriter myOut;
    private final int myPathDepth;

    TextReport(Report report, ZoneId zone, PrintWriter out, int pathDepth) {
        myPathDepth = pathDepth;
        myReport = report;
        myZone = zone;
        myOut = out;
    }

    void write() {
        SnapshotHeader h = myReport.myHeader;
        myOut.println("Kestrix Java Profiler snapshot " + myReport.myProfile.snapshot().file());
        myOut.println();
        field("Session", h.sessionName().isEmpty() ? "(unnamed)" : h.sessionName());
        field("Started", Format.dateTime(Instant.ofEpochSecond(h.startTimeSeconds()), myZone));
        field("Captured", Format.dateTime(Instant.ofEpochMilli(h.captureTimeMillis()), myZone) + ", "
                + h.cause());
        field("Snapshot", "#" + h.snapshotNumber() + ", format " + h.formatVersion() + ", " + h.creator());
        List<String> flags = h.flagNames();
        field("Flags", flags.isEmpty() ? "none" : String.join(", ", flags));
        String jvm = myReport.jvm();
        if (jvm != null) {
            field("JVM", jvm);
        }
        String command = myReport.command();
        if (command != null && !command.isEmpty()) {
            field("Command", command);
        }
        String cpu = myReport.cpuMode();
        if (myReport.myThreadsWithCpu > 0) {
            cpu += "; " + Format.millis(myReport.myCpuNs) + " in " + myReport.myThreadsWithCpu
                    + (myReport.myThreadsWithCpu == 1 ? " thread" : " threads");
        }
        field("CPU", cpu);
        String times = myReport.timesSource();
        if (times != null) {
            field("Times", times);
        }
        String filters = myReport.filtersNote();
        if (filters != null) {
            field("Filters", filters);
        }
        writeLocksAndExceptions();
        writeThreads();
        if (myReport.mySections.isEmpty()) {
            myOut.println();
            myOut.println("No CPU data in this snapshot: CPU times are recorded while sampling or tracing");
            myOut.println("runs (-agentlib:kjpagent=sampling, or =tracing for invocation counts).");
        }
        for (Report.Section section : myReport.mySections) {
            writeSection(section);
        }
        myOut.flush();
    }

    private void field(String name, String value) {
        myOut.println(Format.padRight(name, 10) + value);
    }

    /** A line each for monitor contention, exceptions and J2EE events, only when the snapshot has some. */
    private void writeLocksAndExceptions() {
        List<String> lines = new ArrayList<>();
        for (String line : new String[] {myReport.myLocks.summaryLine(), myReport.myExceptions.summaryLine(),
            myReport.myJ2EE.line()}) {
            if (line != null) {
                lines.add(line);
            }
        }
        if (!lines.isEmpty()) {
            myOut.println();
            lines.forEach(myOut::println);
        }
    }

    private void writeThreads() {
        myOut.println();
        myOut.println("Threads (" + myReport.myThreads.size() + ")");
        List<String[]> rows = new ArrayList<>();
        rows.add(new String[] {"#", "Name", "Group", "CPU time"});
        for (Report.ThreadLine line : myReport.myThreads) {
            rows.add(new String[] {String.valueOf(line.thread().runningNumber()), line.thread().name(),
                line.thread().group(), line.cpuNs() == null ? "-" : Format.millis(line.cpuNs())});
        }
        table(rows, new boolean[] {true, false, false, true});
    }

    private void writeSection(Report.Section section) {
        String scope = section.thread() == null
                ? (myReport.mySettings.threadNames().isEmpty() ? "all threads" : "selected threads")
                : "thread " + section.thread();
        boolean counts = myReport.myProfile.hasCounts();
        long whole = section.cpuNs();
        myOut.println();
        myOut.println("Hot spots by own time, " + scope + " (" + Format.millis(whole) + ")");
        hotSpots(section.byOwnTime(), whole, counts);
        myOut.println();
        myOut.println("Hot spots by total time, " + scope);
        hotSpots(section.byTotalTime(), whole, counts);
        if (section.paths().isEmpty()) {
            return;
        }
        myOut.println();
        myOut.println("Hottest call paths, " + scope);
        List<String[]> rows = new ArrayList<>();
        for (Report.HotPath path : section.paths()) {
            rows.add(new String[] {Format.millis(path.ownNs()), Format.percent(path.ownNs(), whole)});
        }
        int timeWidth = 0;
        int percentWidth = 0;
        for (String[] row : rows) {
            timeWidth = Math.max(timeWidth, row[0].length());
            percentWidth = Math.max(percentWidth, row[1].length());
        }
        for (int i = 0; i < rows.size(); i++) {
            String lead = "  " + Format.padLeft(rows.get(i)[0], timeWidth) + "  "
                    + Format.padLeft(rows.get(i)[1], percentWidth) + "  ";
            List<String> methods = section.paths().get(i).methodsLeafFirst();
            myOut.println(lead + methods.get(0));
            String indent = " ".repeat(lead.length());
            // The deepest frames tell where the time went; the callers far below are cut.
            int shown = Math.min(methods.size(), myPathDepth);
            for (int m = 1; m < shown; m++) {
                myOut.println(indent + "<- " + methods.get(m));
            }
            if (shown < methods.size()) {
                int left = methods.size() - shown;
                myOut.println(indent + "<- ... " + left + (left == 1 ? " more frame" : " more frames")
                        + " (--path-depth)");
            }
        }
    }

    private void hotSpots(List<Report.HotSpot> spots, long whole, boolean counts) {
        List<String[]> rows = new ArrayList<>();
        rows.add(counts ? new String[] {"Own time", "%", "Total time", "%", "Invocations", "Method"}
                : new String[] {"Own time", "%", "Total time", "%", "Method"});
        for (Report.HotSpot spot : spots) {
            List<String> row = new ArrayList<>(List.of(Format.millis(spot.ownNs()), Format.percent(spot.ownNs(), whole),
                    Format.millis(spot.totalNs()), Format.percent(spot.totalNs(), whole)));
            if (counts) {
                row.add(Format.count(spot.invocations()));
            }
            row.add(spot.method());
            rows.add(row.toArray(new String[0]));
        }
        boolean[] right = counts ? new boolean[] {true, true, true, true, true, false}
                : new boolean[] {true, true, true, true, false};
        table(rows, right);
    }

    /** Rows under a heading row, columns as wide as their widest cell; the last column is not padded. */
    private void table(List<String[]> rows, boolean[] rightAligned) {
        int columns = rows.get(0).length;
        int[] widths = new int[columns];
        for (String[] row : rows) {
            for (int c = 0; c < columns; c++) {
                widths[c] = Math.max(widths[c], row[c].length());
            }
        }
        for (String[] row : rows) {
            StringBuilder line = new StringBuilder(" ");
            for (int c = 0; c < columns; c++) {
                line.append(' ');
                boolean last = c == columns - 1;
                if (rightAligned[c]) {
                    line.append(Format.padLeft(row[c], widths[c]));
                } else {
                    line.append(last ? row[c] : Format.padRight(row[c], widths[c]));
                }
                if (!last) {
                    line.append(' ');
                }
            }
            myOut.println(stripTrailing(line.toString()));
        }
    }

    private static String stripTrailing(String text) {
        return text.stripTrailing();
    }
}
