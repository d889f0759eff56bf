package com.kestrix.cpu;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.kestrix.test.Jvm;
import com.kestrix.test.SnapshotPaths;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * The CPU figures of an exit snapshot, per thread name and call path. A path is the list of
 * methods from the thread's outermost frame down, each written "Class.method" without
 * signature; figures are the time (ns, inclusive) and the count of the path's last frame.
 */
final class CpuProfile {
    static final String PROGRAM = "com.kestrix.programs.CpuScenarios";

    /** The figures of one (thread, frame) pair. */
    static final class Node {
        final List<String> path;
        long time;
        long count;

        Node(List<String> path) {
            this.path = path;
        }

        String last() {
            return path.get(path.size() - 1);
        }

        @Override
        public String toString() {
            return String.join(" > ", path) + " time=" + time + " count=" + count;
        }
    }

    final Path file;
    final Jvm.Result run;
    private final Map<String, List<Node>> myNodesByThread = new LinkedHashMap<>();

    private CpuProfile(Path file, Jvm.Result run, Snapshot snapshot) {
        this.file = file;
        this.run = run;
        Map<Integer, String> threadBySlot = SnapshotPaths.threadNamesBySlot(snapshot);
        Table pairs = snapshot.table(TableLayout.THREADFRAME);
        Table cpu = snapshot.table(TableLayout.CPUPROFILING);
        Map<Integer, List<String>> paths = new HashMap<>();
        for (int row = 0; row < cpu.size(); row++) {
            if (cpu.stamp(row) <= 0) {
                continue;
            }
            int pair = pairs.rowOf(cpu.index(row));
            if (pair < 0 || pairs.stamp(pair) <= 0) {
                continue;
            }
            String thread = threadBySlot.get(pairs.getInt(pair, TableLayout.THREADFRAME.field("threadIndexForTFI")));
            if (thread == null) {
                continue;
            }
            int frame = pairs.getInt(pair, TableLayout.THREADFRAME.field("frameID"));
            List<String> path = paths.computeIfAbsent(frame, f -> SnapshotPaths.methods(snapshot, f));
            Node node = new Node(path);
            node.time = cpu.getLong(row, TableLayout.CPUPROFILING.field("time"));
            node.count = cpu.getLong(row, TableLayout.CPUPROFILING.field("count"));
            myNodesByThread.computeIfAbsent(thread, t -> new ArrayList<>()).add(node);
        }
    }

    /** Runs the program with the agent options (dir= is added) and reads its exit snapshot. */
    static CpuProfile record(Path jdk, Path dir, String options, String... scenarios) throws Exception {
        List<String> args = new ArrayList<>();
        args.add(Jvm.agentArgument(options + ",quiet,dir=" + dir));
        args.add("-cp");
        args.add(Jvm.programs().toString());
        args.add(PROGRAM);
        args.addAll(Arrays.asList(scenarios));
        Jvm.Result run = Jvm.run(jdk, 300, args.toArray(new String[0]));
        assertEquals(0, run.exitCode, run.toString());
        assertEquals(true, run.stdout.contains("scenarios done"), run.toString());
        Path snapshot;
        try (Stream<Path> files = Files.list(dir)) {
            snapshot = files.filter(f -> f.toString().endsWith(".snapshot")).findFirst()
                    .orElseThrow(() -> new AssertionError("no exit snapshot in " + dir + "\n" + run));
        }
        return new CpuProfile(snapshot, run, SnapshotReader.read(snapshot));
    }

    /** Reads a snapshot captured from a JVM that this class did not run; it has no printed figures. */
    static CpuProfile read(Path snapshot) throws Exception {
        return new CpuProfile(snapshot, null, SnapshotReader.read(snapshot));
    }

    /** The figure the program printed after the given label ("spinner cpu ns" and the like). */
    long printed(String label) {
        for (String line : run.stdout.split("\n")) {
            if (line.startsWith(label + " ")) {
                return Long.parseLong(line.substring(label.length() + 1).trim());
            }
        }
        throw new AssertionError("the program printed no \"" + label + "\"\n" + run);
    }

    /** The names of the threads with CPU figures. */
    Set<String> threads() {
        return myNodesByThread.keySet();
    }

    List<Node> nodes(String thread) {
        return myNodesByThread.getOrDefault(thread, new ArrayList<>());
    }

    /** The nodes whose path ends with these methods, in this order, one calling the next. */
    List<Node> endingWith(String thread, String... methods) {
        List<String> tail = Arrays.asList(methods);
        return nodes(thread).stream()
                .filter(n -> n.path.size() >= tail.size()
                        && n.path.subList(n.path.size() - tail.size(), n.path.size()).equals(tail))
                .collect(Collectors.toList());
    }

    long timeEndingWith(String thread, String... methods) {
        return endingWith(thread, methods).stream().mapToLong(n -> n.time).sum();
    }

    long countEndingWith(String thread, String... methods) {
        return endingWith(thread, methods).stream().mapToLong(n -> n.count).sum();
    }

    /** The nodes of a thread that have this method anywhere on their path. */
    List<Node> through(String thread, String method) {
        return nodes(thread).stream().filter(n -> n.path.contains(method)).collect(Collectors.toList());
    }

    /** The nodes of the thread on the path to the given node, not the node itself. */
    List<Node> callersOf(String thread, Node node) {
        return nodes(thread).stream()
                .filter(n -> n.path.size() < node.path.size() && node.path.subList(0, n.path.size()).equals(n.path))
                .collect(Collectors.toList());
    }

    /** The thread's CPU time: the sum over its outermost frames. */
    long threadTime(String thread) {
        return nodes(thread).stream().filter(n -> n.path.size() == 1).mapToLong(n -> n.time).sum();
    }

    /** The time of the thread's outermost frames whose method name ends with 'suffix' (pseudo-methods). */
    long rootTimeEndingWith(String thread, String suffix) {
        return nodes(thread).stream().filter(n -> n.path.size() == 1 && n.path.get(0).endsWith(suffix))
                .mapToLong(n -> n.time).sum();
    }

    String dump(String thread) {
        return "thread " + thread + " of " + file + ":\n"
                + nodes(thread).stream().map(Node::toString).collect(Collectors.joining("\n"));
    }

    static String program(String method) {
        return PROGRAM + "." + method;
    }
}
