package com.kestrix.memory;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.Constants;
import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.Stream;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Heaps captured from real JVMs with a known object graph, read back with the test's own reader
 * of the file format: every JDK with its default collector, and with uncompressed references,
 * the serial and the parallel collector.
 */
class HeapDumpTest {
    static final String PROGRAM = "com.kestrix.programs.HeapGraph";

    static Stream<Arguments> setups() {
        List<Arguments> setups = new ArrayList<>();
        for (Path jdk : Jvm.jdks()) {
            setups.add(Arguments.of(jdk, new String[] {}));
            setups.add(Arguments.of(jdk, new String[] {"-XX:-UseCompressedOops", "-XX:+UseSerialGC"}));
        }
        setups.add(Arguments.of(Jvm.jdks().get(0), new String[] {"-XX:+UseParallelGC"}));
        return setups.stream();
    }

    /** Starts the program under the agent, waits until its graph is built. */
    static LiveAgent startGraph(Path jdk, Path dir, String options, String... jvmArguments) throws Exception {
        int port = LiveAgent.freePort();
        LiveAgent agent = LiveAgent.launchProgram(jdk, dir, "port=" + port + ",dir=" + dir + ",sessionname=HeapGraph"
                + (options.isEmpty() ? "" : "," + options), port, PROGRAM, jvmArguments);
        agent.awaitStderr(LiveAgent.LISTENING + port + "...", 60);
        agent.awaitStdout("ready", 60);
        return agent;
    }

    static Path captureHeap(LiveAgent agent) {
        String[] lines = agent.kjpOk("capture", "--heap").trim().split("\n");
        return Paths.get(lines[lines.length - 1]);
    }

    @ParameterizedTest
    @MethodSource("setups")
    void theKnownGraphReadsBackWhole(Path jdk, String[] jvmArguments, @TempDir Path dir) throws Exception {
        Path file;
        try (LiveAgent agent = startGraph(jdk, dir, "alloc", jvmArguments)) {
            file = captureHeap(agent);
            assertEquals(0, agent.exit(60), agent.toString());
        }
        HeapFile heap = HeapFile.read(file);
        assertTrue((heap.flags & Constants.SNAPSHOT_WITH_HEAP) != 0);
        assertEquals(null, heap.problems());
        assertEquals(heap.announcedAllocators, heap.allocators.size());

        // The list: 100,000 nodes, each linked to the next by its field, values counting up.
        List<HeapFile.ObjectRecord> nodes = heap.instancesOf(PROGRAM + "$ListNode");
        assertEquals(100_000, nodes.size());
        int node = heap.staticField(PROGRAM, "ourList");
        for (int i = 0; i < 100_000; i++) {
            assertNotEquals(0, node, "list ends at " + i);
            assertEquals(i, heap.primitive(node, "value"));
            node = heap.field(node, "next");
        }
        assertEquals(0, node);

        // The map: 1,000 entries of strings, read through the table and its nodes.
        int map = heap.staticField(PROGRAM, "ourMap");
        assertEquals("java.util.HashMap", heap.classOf(heap.objects.get(map)).name);
        Map<String, String> entries = new HashMap<>();
        HeapFile.ObjectRecord table = heap.objects.get(heap.field(map, "table"));
        assertEquals(4, table.tag);
        for (int bucket : table.references.values()) {
            for (int entry = bucket; entry != 0; entry = heap.field(entry, "next")) {
                entries.put(heap.stringValue(heap.field(entry, "key")), heap.stringValue(heap.field(entry, "value")));
            }
        }
        assertEquals(1_000, entries.size());
        for (int i = 0; i < 1_000; i++) {
            assertEquals("value-" + i, entries.get("key-" + i));
        }

        // The tree: three levels, each node labelled by its path.
        int root = heap.staticField(PROGRAM, "ourTree");
        assertEquals("root", heap.stringValue(heap.field(root, "label")));
        assertEquals("LR", heap.stringValue(heap.field(heap.field(heap.field(root, "left"), "right"), "label")));
        assertEquals("RR", heap.stringValue(heap.field(heap.field(heap.field(root, "right"), "right"), "label")));
        assertEquals(0, heap.field(heap.field(heap.field(root, "left"), "left"), "left"));
        assertEquals(7, heap.instancesOf(PROGRAM + "$TreeNode").size());

        // The static array, element by element.
        int numbers = heap.staticField(PROGRAM, "ourNumbers");
        assertEquals("int[]", heap.classOf(heap.objects.get(numbers)).name);
        assertArrayEquals(new int[] {3, 1, 4, 1, 5, 9, 2, 6}, heap.intArray(numbers));

        // Roots: the program's main thread, and its local variable, named, in main's frame.
        HeapFile.ObjectRecord marker = heap.instancesOf(PROGRAM + "$Marker").get(0);
        HeapFile.Root local = heap.roots.stream().filter(r -> r.oid() == marker.oid && r.kind() == 8).findFirst()
                .orElseThrow(() -> new AssertionError("no stack root of the marker: " + heap.roots.size() + " roots"));
        assertEquals("marker", local.localName());
        assertEquals("main", heap.threadNames.get(local.thread()));
        List<String> path = heap.path(local.frame());
        assertEquals(PROGRAM + ".main", path.get(path.size() - 1), path.toString());
        Set<String> threadRoots = new HashSet<>();
        for (HeapFile.Root r : heap.roots) {
            if (r.kind() == 32 && r.thread() != 0) {
                threadRoots.add(heap.threadNames.get(r.thread()));
            }
        }
        assertTrue(threadRoots.contains("main"), threadRoots.toString());

        // Allocation sites: every node was recorded where the list was made.
        HeapFile.ObjectRecord first = nodes.get(0);
        HeapFile.Allocator allocator = heap.allocators.get(first.oid);
        assertTrue(allocator != null, "no allocator of a list node");
        List<String> site = heap.path(allocator.frame());
        assertEquals(PROGRAM + ".makeList", site.get(site.size() - 1), site.toString());
        assertEquals("main", heap.threadNames.get(allocator.thread()));
        long recordedNodes = nodes.stream().filter(n -> heap.allocators.containsKey(n.oid)).count();
        assertEquals(100_000, recordedNodes);
    }

    /** Waits for one snapshot whose name has the text, and reads it. */
    private static HeapFile awaitSnapshot(LiveAgent agent, String nameContains) throws Exception {
        long end = System.nanoTime() + 60_000_000_000L;
        while (agent.snapshots(nameContains).isEmpty() && System.nanoTime() < end) {
            Thread.sleep(200);
        }
        List<Path> found = agent.snapshots(nameContains);
        assertFalse(found.isEmpty(), "no " + nameContains + " snapshot\n" + agent);
        // The file is complete once the agent has logged it.
        agent.awaitStderr("Snapshot is saved to " + found.get(0), 60);
        return HeapFile.read(found.get(0));
    }

    @ParameterizedTest
    @MethodSource("com.kestrix.test.Jvm#jdks")
    void automaticCapturesCarryTheHeap(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = LiveAgent.start(jdk, dir, "onexit=memory", "-Xmx96m")) {
            agent.kjpOk("threshold", "50");
            agent.command("grow 70", 120);
            HeapFile lowMemory = awaitSnapshot(agent, "low-memory");
            assertTrue((lowMemory.flags & Constants.SNAPSHOT_CAUSE_LOW_MEMORY) != 0);
            assertTrue((lowMemory.flags & Constants.SNAPSHOT_WITH_HEAP) != 0);
            assertEquals(null, lowMemory.problems());
            assertTrue(lowMemory.instancesOf("byte[]").size() > 100);

            agent.kjpOk("periodic", "1", "1");
            HeapFile periodic = awaitSnapshot(agent, "periodic");
            agent.kjpOk("periodic", "off");
            assertTrue((periodic.flags & Constants.SNAPSHOT_CAUSE_PERIODIC) != 0);
            assertEquals(null, periodic.problems());
            assertEquals(0, agent.exit(60), agent.toString());
        }
        HeapFile exit;
        try (var files = java.nio.file.Files.list(dir)) {
            exit = HeapFile.read(files.filter(f -> f.toString().endsWith("-shutdown.snapshot")).findFirst()
                    .orElseThrow(() -> new AssertionError("no exit snapshot")));
        }
        assertTrue((exit.flags & Constants.SNAPSHOT_WITH_HEAP) != 0);
        assertEquals(null, exit.problems());
    }

    @ParameterizedTest
    @MethodSource("com.kestrix.test.Jvm#jdks")
    void aHeapCapturedWhileThreadsAllocateStartAndEndReadsBackWhole(Path jdk, @TempDir Path dir) throws Exception {
        try (LiveAgent agent = startGraph(jdk, dir, "alloceach=7")) {
            agent.command("churn", 60);
            for (int capture = 0; capture < 2; capture++) {
                HeapFile heap = HeapFile.read(captureHeap(agent));
                assertEquals(null, heap.problems(), "capture " + capture);
                assertEquals(100_000, heap.instancesOf(PROGRAM + "$ListNode").size());
                assertTrue(heap.threadNames.containsValue("allocator-7"), heap.threadNames.toString());
            }
            assertTrue(agent.isAlive(), agent.toString());
            assertEquals(0, agent.exit(60), agent.toString());
        }
    }
}
