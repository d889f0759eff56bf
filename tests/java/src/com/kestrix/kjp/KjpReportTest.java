package com.kestrix.kjp;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.tools.kjp.Kjp;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.time.ZoneId;
import org.junit.jupiter.api.Test;

/** "kjp report" of a profile whose figures are known. */
class KjpReportTest {
    static final ZoneId UTC = ZoneId.of("UTC");

    /** Exit status, standard output and standard error of one kjp run. */
    record Run(int status, String out, String err) {
    }

    static Run kjp(String... args) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Kjp.run(args, new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8), UTC);
        return new Run(status, out.toString(StandardCharsets.UTF_8), err.toString(StandardCharsets.UTF_8));
    }

    /** The capture time is the only figure the test can't know in advance. */
    static String maskCaptureTime(String text) {
        return text.replaceAll("Captured  \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC", "Captured  <time>");
    }

    @Test
    void textReportShowsSessionThreadsHotSpotsAndPaths() throws Exception {
        Path file = KnownProfile.file();
        Run run = kjp("report", file.toString());
        assertEquals(0, run.status(), run.err());
        assertEquals("", run.err());
        String expected = String.join("\n",
                "Kestrix Java Profiler snapshot " + file,
                "",
                "Session   FixtureApp",
                "Started   2009-02-13 23:31:30 UTC",
                "Captured  <time>, JVM exit",
                "Snapshot  #1, format 9, Created by Kestrix Java Profiler 8.0.1",
                "Flags     invocation counts, shutdown",
                "JVM       OpenJDK 64-Bit Server VM 17.0.99 (17.0.99+1-Debian)",
                "CPU       tracing, with invocation counts; 1,500.0 ms in 2 threads",
                "",
                "Threads (5)",
                "  #  Name                   Group    CPU time",
                "  1  <Oldest dead threads>                  -",
                "  2  VM Start                               -",
                "  3  main                   main   1,000.0 ms",
                "  4  worker-1               main     500.0 ms",
                "  5  idle                   main            -",
                "",
                "Hot spots by own time, all threads (1,500.0 ms)",
                "  Own time      %  Total time      %  Invocations  Method",
                "  600.0 ms  40.0%  1,150.0 ms  76.7%           14  com.example.App.compute(int, long[])",
                "  450.0 ms  30.0%    450.0 ms  30.0%        1,200  java.lang.Math.sqrt(double)",
                "  300.0 ms  20.0%    300.0 ms  20.0%           25  com.example.App.helper()",
                "  100.0 ms   6.7%  1,000.0 ms  66.7%            1  com.example.App.main(String[])",
                "   50.0 ms   3.3%    500.0 ms  33.3%            1  com.example.Worker.run()",
                "",
                "Hot spots by total time, all threads",
                "  Own time      %  Total time      %  Invocations  Method",
                "  600.0 ms  40.0%  1,150.0 ms  76.7%           14  com.example.App.compute(int, long[])",
                "  100.0 ms   6.7%  1,000.0 ms  66.7%            1  com.example.App.main(String[])",
                "   50.0 ms   3.3%    500.0 ms  33.3%            1  com.example.Worker.run()",
                "  450.0 ms  30.0%    450.0 ms  30.0%        1,200  java.lang.Math.sqrt(double)",
                "  300.0 ms  20.0%    300.0 ms  20.0%           25  com.example.App.helper()",
                "",
                "Hottest call paths, all threads",
                "  300.0 ms  20.0%  com.example.App.compute(int, long[])",
                "                   <- com.example.App.main(String[])",
                "  300.0 ms  20.0%  java.lang.Math.sqrt(double)",
                "                   <- com.example.App.compute(int, long[])",
                "                   <- com.example.App.main(String[])",
                "  300.0 ms  20.0%  com.example.App.compute(int, long[])",
                "                   <- com.example.Worker.run()",
                "  200.0 ms  13.3%  com.example.App.helper()",
                "                   <- com.example.App.main(String[])",
                "  150.0 ms  10.0%  java.lang.Math.sqrt(double)",
                "                   <- com.example.App.compute(int, long[])",
                "                   <- com.example.Worker.run()",
                "  100.0 ms   6.7%  com.example.App.main(String[])",
                "  100.0 ms   6.7%  com.example.App.helper()",
                "                   <- com.example.App.compute(int, long[])",
                "                   <- com.example.App.main(String[])",
                "   50.0 ms   3.3%  com.example.Worker.run()",
                "");
        assertEquals(expected, maskCaptureTime(run.out()));
    }

    @Test
    void perThreadSectionsAndThreadSelectionAndLimits() throws Exception {
        Path file = KnownProfile.file();
        Run byThread = kjp("report", "--by-thread", "--top", "2", "--paths", "1", file.toString());
        assertEquals(0, byThread.status(), byThread.err());
        String out = byThread.out();
        // Three methods have 300 ms of own time in main: the larger total, then the lower method index wins.
        assertTrue(out.contains("Hot spots by own time, thread main (1,000.0 ms)\n"
                + "  Own time      %  Total time      %  Invocations  Method\n"
                + "  300.0 ms  30.0%    700.0 ms  70.0%           10  com.example.App.compute(int, long[])\n"
                + "  300.0 ms  30.0%    300.0 ms  30.0%           25  com.example.App.helper()\n\n"), out);
        assertTrue(out.contains("Hot spots by total time, thread worker-1\n"
                + "  Own time      %  Total time       %  Invocations  Method\n"
                + "   50.0 ms  10.0%    500.0 ms  100.0%            1  com.example.Worker.run()\n"
                + "  300.0 ms  60.0%    450.0 ms   90.0%            4  com.example.App.compute(int, long[])\n\n"),
                out);
        assertTrue(out.contains("Hottest call paths, thread worker-1\n"
                + "  300.0 ms  60.0%  com.example.App.compute(int, long[])\n"
                + "                   <- com.example.Worker.run()\n"), out);

        Run worker = kjp("report", "--thread", "worker-1", file.toString());
        assertEquals(0, worker.status(), worker.err());
        assertTrue(worker.out().contains("Threads (1)\n  #  Name      Group  CPU time\n  4  worker-1  main   500.0 ms\n"),
                worker.out());
        assertTrue(worker.out().contains("Hot spots by own time, selected threads (500.0 ms)\n"
                + "  Own time      %  Total time       %  Invocations  Method\n"
                + "  300.0 ms  60.0%    450.0 ms   90.0%            4  com.example.App.compute(int, long[])\n"
                + "  150.0 ms  30.0%    150.0 ms   30.0%          200  java.lang.Math.sqrt(double)\n"
                + "   50.0 ms  10.0%    500.0 ms  100.0%            1  com.example.Worker.run()\n\n"), worker.out());
        assertTrue(worker.out().contains("CPU       tracing, with invocation counts; 500.0 ms in 1 thread\n"),
                worker.out());
    }

    @Test
    void jsonReportCarriesTheSameFigures() throws Exception {
        Path file = KnownProfile.file();
        Run run = kjp("report", "--format", "json", "--top", "1", "--paths", "1", file.toString());
        assertEquals(0, run.status(), run.err());
        String json = run.out().replaceAll("\"captureTime\":\"[^\"]*\",\"captureTimeEpochMillis\":\\d+",
                "\"captureTime\":\"<time>\"");
        String expected = "{\"file\":\"" + file + "\","
                + "\"session\":{\"name\":\"FixtureApp\",\"startTime\":\"2009-02-13T23:31:30Z\","
                + "\"startTimeEpochSeconds\":1234567890,\"captureTime\":\"<time>\",\"cause\":\"JVM exit\","
                + "\"snapshotNumber\":1,\"formatVersion\":\"9\",\"creator\":\"Created by Kestrix Java Profiler 8.0.1\","
                + "\"flags\":552,\"flagNames\":[\"invocation counts\",\"shutdown\"],"
                + "\"jvm\":\"OpenJDK 64-Bit Server VM 17.0.99 (17.0.99+1-Debian)\",\"command\":null},"
                + "\"cpu\":{\"mode\":\"tracing, with invocation counts\",\"timesSource\":null,\"invocationCounts\":true,"
                + "\"totalTimeNs\":1500000000,\"threadsWithData\":2},"
                + "\"threads\":["
                + "{\"runningNumber\":1,\"name\":\"\\u003cOldest dead threads>\",\"group\":\"\",\"osThreadId\":0,\"cpuTimeNs\":null},"
                + "{\"runningNumber\":2,\"name\":\"VM Start\",\"group\":\"\",\"osThreadId\":0,\"cpuTimeNs\":null},"
                + "{\"runningNumber\":3,\"name\":\"main\",\"group\":\"main\",\"osThreadId\":4242,\"cpuTimeNs\":1000000000},"
                + "{\"runningNumber\":4,\"name\":\"worker-1\",\"group\":\"main\",\"osThreadId\":4242,\"cpuTimeNs\":500000000},"
                + "{\"runningNumber\":5,\"name\":\"idle\",\"group\":\"main\",\"osThreadId\":4242,\"cpuTimeNs\":null}],"
                + "\"sections\":[{\"thread\":null,\"cpuTimeNs\":1500000000,"
                + "\"hotSpotsByOwnTime\":[{\"method\":\"com.example.App.compute(int, long[])\",\"ownTimeNs\":600000000,"
                + "\"totalTimeNs\":1150000000,\"invocations\":14}],"
                + "\"hotSpotsByTotalTime\":[{\"method\":\"com.example.App.compute(int, long[])\",\"ownTimeNs\":600000000,"
                + "\"totalTimeNs\":1150000000,\"invocations\":14}],"
                + "\"hottestPaths\":[{\"ownTimeNs\":300000000,\"totalTimeNs\":700000000,\"invocations\":10,"
                + "\"methodsLeafFirst\":[\"com.example.App.compute(int, long[])\",\"com.example.App.main(String[])\"]}]}]}\n";
        assertEquals(expected, json);
    }
}
