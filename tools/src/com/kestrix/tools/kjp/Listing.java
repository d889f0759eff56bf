package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.SnapshotHeader;
import java.io.PrintWriter;
import java.time.Instant;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * What the views of a snapshot share: the lines they open with, and text tables with figures
 * right-aligned in columns as wide as their widest cell, a name last, and call paths continued
 * below their first method with "<-".
 */
final class Listing {
    private final List<String[]> myRows = new ArrayList<>();
    private final List<List<String>> myContinuations = new ArrayList<>();

    /** The heading row; every column but the last is right-aligned. */
    Listing(String... headings) {
        myRows.add(headings);
        myContinuations.add(List.of());
    }

    /** A row whose last cell is followed, on lines of their own and under it, by 'below'. */
    void add(List<String> below, String... cells) {
        myRows.add(cells);
        myContinuations.add(below);
    }

    void add(String... cells) {
        add(List.of(), cells);
    }

    void write(PrintWriter out) {
        int columns = myRows.get(0).length;
        int[] widths = new int[columns];
        for (String[] row : myRows) {
            for (int c = 0; c < columns - 1; c++) {
                widths[c] = Math.max(widths[c], row[c].length());
            }
        }
        for (int r = 0; r < myRows.size(); r++) {
            StringBuilder line = new StringBuilder("  ");
            for (int c = 0; c < columns - 1; c++) {
                line.append(Format.padLeft(myRows.get(r)[c], widths[c])).append("  ");
            }
            String lead = line.toString();
            out.println((lead + myRows.get(r)[columns - 1]).stripTrailing());
            String indent = " ".repeat(lead.length());
            for (String text : myContinuations.get(r)) {
                out.println(indent + text);
            }
        }
    }

    /** A call path's first method alone; the callers go below it (see {@link #callers}). */
    static String leaf(List<String> methodsLeafFirst) {
        return methodsLeafFirst.isEmpty() ? "(no Java frames)" : methodsLeafFirst.get(0);
    }

    static List<String> callers(List<String> methodsLeafFirst) {
        List<String> lines = new ArrayList<>();
        for (int i = 1; i < methodsLeafFirst.size(); i++) {
            lines.add("<- " + methodsLeafFirst.get(i));
        }
        return lines;
    }

    /**
     * A length of time for a summary line: milliseconds below a second ("400.1 ms"), else
     * seconds with two decimals ("12.34 s"), which reads better for whole recordings.
     */
    static String duration(long ns) {
        return ns < 1_000_000_000L ? Format.millis(ns) : String.format(Locale.ROOT, "%,.2f s", ns / 1e9);
    }

    /** "1 block", "2 blocks". */
    static String counted(long count, String one, String many) {
        return Format.count(count) + " " + (count == 1 ? one : many);
    }

    /** The lines every view of a snapshot starts with: its file, session and capture. */
    static void snapshotHeader(Profile profile, ZoneId zone, PrintWriter out) {
        SnapshotHeader h = profile.header();
        out.println("Kestrix Java Profiler snapshot " + profile.snapshot().file());
        out.println();
        out.println(Format.padRight("Session", 10) + (h.sessionName().isEmpty() ? "(unnamed)" : h.sessionName()));
        out.println(Format.padRight("Captured", 10) + Format.dateTime(Instant.ofEpochMilli(h.captureTimeMillis()), zone)
                + ", " + h.cause());
    }

    /** An open JSON object with the same: file, session and capture time. */
    static Json snapshotJson(Profile profile) {
        SnapshotHeader h = profile.header();
        return new Json().beginObject().field("file", profile.snapshot().file().toString())
                .field("session", h.sessionName())
                .field("captureTime", Instant.ofEpochMilli(h.captureTimeMillis()).toString());
    }
}
