package com.kestrix.memory;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import com.kestrix.tools.kjp.Kjp;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.ZoneId;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** kjp alloc, kjp heap and the allocation flame graph on snapshots of real JVMs. */
class KjpMemoryTest {
    static final String GRAPH = "com.kestrix.programs.HeapGraph";

    record Run(int status, String out, String err) {
    }

    static Run kjp(String... args) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Kjp.run(args, new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8), ZoneId.of("UTC"));
        return new Run(status, out.toString(StandardCharsets.UTF_8), err.toString(StandardCharsets.UTF_8));
    }

    static Run kjpOk(String... args) {
        Run run = kjp(args);
        assertEquals(0, run.status(), run.err());
        return run;
    }

    /** Instances and bytes per class name from the text of GC.class_histogram. */
    static Map<String, long[]> histogram(String text) {
        Map<String, long[]> result = new HashMap<>();
        Matcher m = Pattern.compile("(?m)^\\s*\\d+:\\s+(\\d+)\\s+(\\d+)\\s+(\\S+)").matcher(text);
        while (m.find()) {
            result.put(m.group(3), new long[] {Long.parseLong(m.group(1)), Long.parseLong(m.group(2))});
        }
        return result;
    }

    @ParameterizedTest
    @MethodSource("com.kestrix.test.Jvm#jdks")
    void heapHistogramAgreesWithTheJvmsAndGenerationsTellTheMarks(Path jdk, @TempDir Path dir) throws Exception {
        Path file;
        String jcmd;
        try (LiveAgent agent = HeapDumpTest.startGraph(jdk, dir, "alloc")) {
            assertTrue(agent.kjpOk("mark", "graph built").contains("Heap marked: graph built"));
            String pid = agent.kjpOk("info").lines().filter(l -> l.startsWith("Process id")).findFirst().orElseThrow()
                    .replaceAll("\\D", "");
            Process process = new ProcessBuilder(jdk.resolve("bin/jcmd").toString(), pid, "GC.class_histogram")
                    .redirectErrorStream(true).start();
            jcmd = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertEquals(0, process.waitFor(), jcmd);
            file = HeapDumpTest.captureHeap(agent);
            assertEquals(0, agent.exit(60), agent.toString());
        }
        Map<String, long[]> expected = histogram(jcmd);
        String json = kjpOk("heap", "--format", "json", "--top", "100000", file.toString()).out();
        for (String name : List.of(GRAPH + "$ListNode", GRAPH + "$TreeNode", GRAPH + "$Marker")) {
            long[] jvm = expected.get(name);
            assertTrue(jvm != null, name + " not in\n" + jcmd);
            Matcher m = Pattern.compile("\\{\"name\":\"" + Pattern.quote(name) + "\",\"instances\":(\\d+),\"bytes\":(\\d+)\\}")
                    .matcher(json);
            assertTrue(m.find(), name + " not in " + json);
            assertEquals(jvm[0], Long.parseLong(m.group(1)), name);
            assertEquals(jvm[1], Long.parseLong(m.group(2)), name);
        }

        // Two generations: the mark holds the graph, the capture's what came after it.
        Matcher generations = Pattern.compile("\\{\"id\":(\\d+),\"description\":\"([^\"]*)\",\"uptimeMs\":\\d+,"
                + "\"objects\":(\\d+),\"bytes\":\\d+\\}").matcher(json);
        Map<String, Long> objectsByMark = new HashMap<>();
        long inGenerations = 0;
        while (generations.find()) {
            objectsByMark.put(generations.group(2), Long.parseLong(generations.group(3)));
            inGenerations += Long.parseLong(generations.group(3));
        }
        assertEquals(2, objectsByMark.size(), json);
        assertTrue(objectsByMark.get("graph built") > 100_000, objectsByMark.toString());
        assertTrue(objectsByMark.get("Captured snapshot " + file.getFileName()) < objectsByMark.get("graph built"));
        Matcher total = Pattern.compile("\"objects\":(\\d+),\"bytes\":\\d+,\"classes\"").matcher(json);
        assertTrue(total.find());
        assertEquals(Long.parseLong(total.group(1)), inGenerations);

        // Allocation sites of a class's live objects.
        String sites = kjpOk("heap", "--class", GRAPH + "$ListNode", file.toString()).out();
        assertTrue(sites.contains("Live instances of " + GRAPH + "$ListNode: 100,000, "), sites);
        assertTrue(sites.matches("(?s).*\\n\\s+100,000\\s+[\\d,]+  thread main\\n\\s+at " + Pattern.quote(GRAPH)
                + "\\.makeList\\(\\)\\n\\s+<- " + Pattern.quote(GRAPH) + "\\.main\\(String\\[\\]\\)\\n.*"), sites);
    }

    @ParameterizedTest
    @MethodSource("com.kestrix.test.Jvm#jdks")
    void allocationHotSpotsAndFlameGraph(Path jdk, @TempDir Path dir) throws Exception {
        Jvm.Result run = Jvm.run(jdk, 120, Jvm.agentArgument("alloc,quiet,dir=" + dir), "-cp",
                Jvm.programs().toString(), AllocationRecordingTest.PROGRAM, "20000", "3");
        assertEquals(0, run.exitCode, run.toString());
        Path file;
        try (var files = Files.list(dir)) {
            file = files.filter(f -> f.toString().endsWith(".snapshot")).findFirst().orElseThrow();
        }
        String text = kjpOk("alloc", "--top", "3", file.toString()).out();
        String blobs = AllocationRecordingTest.PROGRAM + ".makeBlobs(int)";
        String big = AllocationRecordingTest.PROGRAM + ".makeBigArrays(int)";
        // By bytes, the three big arrays come first, the 20,000 small objects second.
        Matcher methods = Pattern.compile("(?m)^\\s+([\\d,]+)\\s+[\\d.]+%\\s+([\\d,]+)\\s+[\\d.]+%\\s+(\\S.*)$").matcher(text);
        assertTrue(methods.find(), text);
        assertEquals("3", methods.group(1));
        assertEquals(big, methods.group(3));
        assertTrue(methods.find(), text);
        assertEquals("20,000", methods.group(1));
        assertEquals(blobs, methods.group(3));
        assertTrue(text.contains("<- " + AllocationRecordingTest.PROGRAM + ".allocateAll(int, int)"), text);

        String json = kjpOk("alloc", "--format", "json", "--by-thread", "--thread", "main", file.toString()).out();
        assertTrue(json.contains("\"thread\":\"main\""), json);
        assertTrue(json.contains("{\"method\":\"" + blobs + "\",\"objects\":20000,"), json);

        Path page = dir.resolve("alloc.html");
        kjpOk("flame", "--value", "alloc-count", "--merged", "-o", page.toString(), file.toString());
        String html = Files.readString(page);
        assertTrue(html.contains("\"unit\":\"objects\""), html.substring(0, 400));
        String folded = kjpOk("collapsed", "--value", "alloc-bytes", "--merged", file.toString()).out();
        // 20,000 objects of one small class: a whole multiple of 20,000 bytes, 16 to 32 bytes each.
        String line = folded.lines().filter(l -> l.contains(";" + blobs.replace(" ", "") + " ")).findFirst()
                .orElseThrow(() -> new AssertionError(folded));
        long bytes = Long.parseLong(line.substring(line.lastIndexOf(' ') + 1));
        assertEquals(0, bytes % 20_000, line);
        assertTrue(bytes / 20_000 >= 16 && bytes / 20_000 <= 32, line);

        // Snapshots without what is asked for say so in one line.
        Path plainDir = Files.createDirectories(dir.resolve("plain"));
        Jvm.Result hello = Jvm.run(jdk, 120, Jvm.agentArgument("onexit=snapshot,quiet,dir=" + plainDir), "-cp",
                Jvm.programs().toString(), "com.kestrix.programs.Hello");
        assertEquals(0, hello.exitCode, hello.toString());
        Path plain;
        try (var files = Files.list(plainDir)) {
            plain = files.findFirst().orElseThrow();
        }
        Run noHeap = kjp("heap", plain.toString());
        assertEquals(1, noHeap.status());
        assertEquals("kjp: " + plain + ": has no heap dump: capture one with 'kjp connect HOST:PORT capture --heap', "
                + "or start the JVM with -agentlib:kjpagent=onexit=memory", noHeap.err().strip());
        Run noAllocations = kjp("alloc", plain.toString());
        assertEquals(1, noAllocations.status());
        assertEquals("kjp: " + plain + ": has no recorded allocations: they are recorded while allocation recording "
                + "runs (-agentlib:kjpagent=alloc, or kjp connect HOST:PORT start-alloc)", noAllocations.err().strip());
        assertFalse(noHeap.err().contains("Exception") || noAllocations.err().contains("Exception"));
    }
}
