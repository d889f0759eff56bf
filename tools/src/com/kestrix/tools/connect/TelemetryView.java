package com.kestrix.tools.connect;

import com.kestrix.tools.snapshot.TableLayout;
import java.io.IOException;
import java.io.PrintStream;
import java.util.Arrays;
import java.util.Comparator;
import java.util.HashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/**
 * A live view of the agent's telemetry: heap, threads, CPU and garbage collection, one line for
 * each sample the agent takes, once a second. Each poll is a connection of its own, because the
 * agent serves one client at a time and a view that held the socket would lock out all others.
 * Only the rows changed since the last poll travel.
 */
final class TelemetryView {
    // Fields of a tele row.
    private static final int HEAP_USED_KB = 0;
    private static final int HEAP_COMMITTED_KB = 1;
    private static final int NON_HEAP_USED_KB = 2;
    private static final int LOADED_CLASSES = 4;
    private static final int LIVE_THREADS = 5;
    private static final int DAEMON_THREADS = 6;
    private static final int GC1_COUNT = 7;
    private static final int GC2_COUNT = 8;
    private static final int GC_TIME_MS = 9;
    private static final int CPU_TIME_MS = 10;
    private static final int PROCESSORS = 11;
    private static final int UPTIME_DS = 12;

    private static final String HEAP_MAX_PROPERTY = "telec.heap.memory.max.kb";
    private static final int MASK = 1 << TableLayout.STRING.id | 1 << TableLayout.PROPERTIES.id
            | 1 << TableLayout.TELE.id;
    private static final long POLL_MS = 1000;

    private final String myHost;
    private final int myPort;
    private final PrintStream myOut;
    private final Map<Integer, String> myStrings = new HashMap<>();
    private final Map<String, Long> myProperties = new HashMap<>();
    private int myStamp;
    private long[] myPrevious;
    private int myLastRow = -1;

    TelemetryView(String host, int port, PrintStream out) {
        myHost = host;
        myPort = port;
        myOut = out;
    }

    /** Prints rows until the given number was shown (0: until the process is interrupted). */
    void run(int count) throws IOException, InterruptedException {
        int shown = 0;
        boolean first = true;
        while (count == 0 || shown < count) {
            long started = System.nanoTime();
            TableUpdate update;
            try (AgentClient client = AgentClient.connect(myHost, myPort)) {
                update = client.updateTables(MASK, stampsFor(myStamp));
            }
            if (first) {
                myOut.printf("%9s %12s %12s %12s %12s %8s %7s %8s %6s %6s %9s%n", "Uptime", "Heap used", "Committed",
                        "Max", "Non-heap", "Threads", "Daemon", "Classes", "CPU", "GCs", "GC time");
            }
            absorbNames(update);
            List<TableUpdate.Row> rows = update.rows(TableLayout.TELE.id).stream()
                    .filter(r -> r.stamp() > 0 && r.index() > myLastRow)
                    .sorted(Comparator.comparingInt(TableUpdate.Row::index)).toList();
            // The first answer holds the whole history: only its latest sample is news.
            if (first && rows.size() > 1) {
                myPrevious = rows.get(rows.size() - 2).values();
                rows = rows.subList(rows.size() - 1, rows.size());
            }
            first = false;
            for (TableUpdate.Row row : rows) {
                if (count != 0 && shown >= count) {
                    break;
                }
                print(row.values());
                myPrevious = row.values();
                myLastRow = row.index();
                shown++;
            }
            myOut.flush();
            myStamp = Math.max(myStamp, update.maxStamp());
            long left = POLL_MS - (System.nanoTime() - started) / 1_000_000;
            if (left > 0 && (count == 0 || shown < count)) {
                Thread.sleep(left);
            }
        }
    }

    private static int[] stampsFor(int stamp) {
        int[] stamps = new int[32];
        Arrays.fill(stamps, stamp);
        return stamps;
    }

    private void absorbNames(TableUpdate update) {
        for (TableUpdate.Row row : update.rows(TableLayout.STRING.id)) {
            if (row.stamp() < 0) {
                myStrings.remove(row.index());
            } else {
                myStrings.put(row.index(), row.text());
            }
        }
        int name = TableLayout.PROPERTIES.field("nameStrID");
        int value = TableLayout.PROPERTIES.field("value");
        for (TableUpdate.Row row : update.rows(TableLayout.PROPERTIES.id)) {
            String text = myStrings.get((int) row.values()[name]);
            if (text != null) {
                myProperties.put(text, row.values()[value]);
            }
        }
    }

    private void print(long[] v) {
        Long maxKb = myProperties.get(HEAP_MAX_PROPERTY);
        String cpu = "-";
        long processors = Math.max(1, v[PROCESSORS]);
        if (myPrevious != null && v[UPTIME_DS] > myPrevious[UPTIME_DS]) {
            double wallMs = (v[UPTIME_DS] - myPrevious[UPTIME_DS]) * 100.0;
            cpu = percent((v[CPU_TIME_MS] - myPrevious[CPU_TIME_MS]) / wallMs / processors);
        } else if (v[UPTIME_DS] > 0) {
            cpu = percent(v[CPU_TIME_MS] / (v[UPTIME_DS] * 100.0) / processors);
        }
        myOut.printf("%9s %12s %12s %12s %12s %8d %7d %8d %6s %6d %9s%n", Units.seconds(v[UPTIME_DS] * 100),
                Units.megabytesFromKb(v[HEAP_USED_KB]), Units.megabytesFromKb(v[HEAP_COMMITTED_KB]),
                maxKb == null || maxKb <= 0 ? "-" : Units.megabytesFromKb(maxKb),
                Units.megabytesFromKb(v[NON_HEAP_USED_KB]), v[LIVE_THREADS], v[DAEMON_THREADS], v[LOADED_CLASSES],
                cpu, v[GC1_COUNT] + v[GC2_COUNT], v[GC_TIME_MS] + " ms");
    }

    private static String percent(double fraction) {
        return String.format(Locale.ROOT, "%.1f%%", Math.max(0, fraction * 100));
    }
}
