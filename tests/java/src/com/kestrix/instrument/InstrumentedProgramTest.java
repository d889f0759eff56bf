package com.kestrix.instrument;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * A program built with records, sealed types, lambdas, streams, string switches,
 * try-with-resources, inner classes, reflection, threads and NIO runs under the agent, with
 * every class verified, to exactly the output it has without the agent.
 */
class InstrumentedProgramTest {
    static final String[] VERIFY_ALL = {"-XX:+UnlockDiagnosticVMOptions", "-XX:+BytecodeVerificationLocal",
            "-XX:+BytecodeVerificationRemote"};
    static final String MAIN = "com.kestrix.programs17.Everything";
    // fib(15) makes 2 * fib(16) - 1 calls.
    static final long FIB_CALLS = 1973;

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    static Path programs17() {
        return Paths.get(System.getProperty("kjp.build.dir"), "tests", "programs17");
    }

    private static Jvm.Result run(Path jdk, String agentOptions) throws Exception {
        List<String> arguments = new java.util.ArrayList<>(List.of(VERIFY_ALL));
        if (agentOptions != null) {
            arguments.add(Jvm.agentArgument(agentOptions));
        }
        arguments.addAll(List.of("-cp", programs17().toString(), MAIN));
        return Jvm.run(jdk, 180, arguments.toArray(new String[0]));
    }

    /** Calls of the program's methods of this name, summed over the call tree of the snapshot. */
    static long tracedCalls(Snapshot snapshot, String className, String methodName) {
        Table cpu = snapshot.table(TableLayout.CPUPROFILING);
        Table threadFrames = snapshot.table(TableLayout.THREADFRAME);
        Table frames = snapshot.table(TableLayout.FRAME);
        Table methods = snapshot.table(TableLayout.METHOD);
        long calls = 0;
        for (int row = 0; row < cpu.size(); row++) {
            int threadFrame = threadFrames.rowOf(cpu.index(row));
            if (threadFrame < 0) {
                continue;
            }
            int frame = frames.rowOf(threadFrames.getInt(threadFrame, TableLayout.THREADFRAME.field("frameID")));
            if (frame < 0) {
                continue;
            }
            int method = methods.rowOf(frames.getInt(frame, TableLayout.FRAME.field("callee")));
            if (method < 0) {
                continue;
            }
            String owner = snapshot.string(methods.getInt(method, TableLayout.METHOD.field("classNameStrID")));
            String name = snapshot.string(methods.getInt(method, TableLayout.METHOD.field("nameStrID")));
            if (owner.equals(className) && name.equals(methodName)) {
                calls += cpu.getLong(row, TableLayout.CPUPROFILING.field("count"));
            }
        }
        return calls;
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void runsAsWithoutTheAgentWithDefaultOptionsAndWithTracing(Path jdk, @TempDir Path dir) throws Exception {
        Jvm.Result plain = run(jdk, null);
        assertEquals(0, plain.exitCode, plain.toString());
        assertTrue(plain.stdout.endsWith("done\n"), plain.toString());

        Jvm.Result instrumented = run(jdk, "printInstrTimes,dir=" + dir);
        assertEquals(0, instrumented.exitCode, instrumented.toString());
        assertEquals(plain.stdout, instrumented.stdout, instrumented.stderr);
        // The program's classes went through the hook and came out changed, none refused.
        for (String cls : List.of("Everything", "Everything$Rect", "Everything$Counter", "Everything$Resource")) {
            assertTrue(instrumented.stderr.matches("(?s).*instrumentation of class 'com/kestrix/programs17/"
                    + cls.replace("$", "\\$") + "' has taken \\d+ ms changed=true\n.*"), cls + "\n" + instrumented.stderr);
        }
        assertFalse(instrumented.stderr.contains("cannot be instrumented"), instrumented.stderr);

        Path snapshots = dir.resolve("traced");
        Jvm.Result traced = run(jdk, "tracing,dir=" + snapshots);
        assertEquals(0, traced.exitCode, traced.toString());
        assertEquals(plain.stdout, traced.stdout, traced.stderr);
        assertFalse(traced.stderr.contains("cannot be instrumented"), traced.stderr);

        // The probes reported: every call of fib, and no more, reached the call tree.
        List<Path> files;
        try (Stream<Path> list = Files.list(snapshots)) {
            files = list.toList();
        }
        assertEquals(1, files.size(), traced.toString());
        Snapshot snapshot = SnapshotReader.read(files.get(0));
        assertEquals(FIB_CALLS, tracedCalls(snapshot, "com.kestrix.programs17.Everything", "fib"), traced.stderr);
        assertTrue(tracedCalls(snapshot, "com.kestrix.programs17.Everything", "main") >= 1);
    }
}
