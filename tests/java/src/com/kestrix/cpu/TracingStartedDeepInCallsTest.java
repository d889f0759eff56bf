package com.kestrix.cpu;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.tools.connect.Connect;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.io.PrintStream;
import java.net.ServerSocket;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Tracing started from the client while a thread is 20 calls deep: the thread's first traced
 * entry finds no shadow stack and rebuilds it from the real one, so its path runs from run() all
 * the way down, once.
 */
class TracingStartedDeepInCallsTest {
    static final String PROGRAM = "com.kestrix.programs.DeepStacks";
    static final int DEPTH = 20;

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void theRebuiltPathRunsFromRunDownOnceAndNewCallsHangUnderIt(Path jdk, @TempDir Path dir) throws Exception {
        int port;
        try (ServerSocket socket = new ServerSocket(0)) {
            port = socket.getLocalPort();
        }
        List<String> command = List.of(jdk.resolve("bin").resolve("java").toString(),
                Jvm.agentArgument("port=" + port + ",dir=" + dir), "-cp", Jvm.programs().toString(), PROGRAM);
        Process process = new ProcessBuilder(command).start();
        StringBuffer stdout = collect(process.getInputStream());
        StringBuffer stderr = collect(process.getErrorStream());
        String capture;
        try {
            await(process, stderr, "Profiler agent is listening on port " + port, stdout, stderr);
            await(process, stdout, "deep ready", stdout, stderr);
            assertEquals("CPU tracing started\n", kjp(port, "start-cpu", "tracing"));
            // The deep thread runs traced for a while, its stack rebuilt at the first step().
            Thread.sleep(1500);
            capture = kjp(port, "capture").strip();
        } finally {
            OutputStream stdin = process.getOutputStream();
            stdin.write("exit\n".getBytes(StandardCharsets.UTF_8));
            stdin.close();
            if (!process.waitFor(120, TimeUnit.SECONDS)) {
                process.destroyForcibly();
            }
        }
        String output = "--- stdout\n" + stdout + "\n--- stderr\n" + stderr;
        assertEquals(0, process.exitValue(), output);
        assertTrue(stdout.indexOf("deep done ") >= 0, output);

        CpuProfile profile = CpuProfile.read(Path.of(capture));
        String deep = PROGRAM + "$Deep.run";
        String descend = PROGRAM + ".descend";
        String bottom = PROGRAM + ".bottom";
        String step = PROGRAM + ".step";
        List<String> chain = new ArrayList<>();
        chain.add(deep);
        chain.addAll(Collections.nCopies(DEPTH, descend));
        chain.add(bottom);

        List<CpuProfile.Node> steps = profile.endingWith("deep", bottom, step);
        assertEquals(1, steps.size(), profile.dump("deep"));
        CpuProfile.Node stepNode = steps.get(0);
        List<String> expected = new ArrayList<>(chain);
        expected.add(step);
        assertEquals(expected, stepNode.path, "the path must start at run(), the thread's first frame\n"
                + profile.dump("deep"));
        assertTrue(stepNode.count > 0 && stepNode.time > 0, profile.dump("deep"));

        // Every other node of the thread is one of the callers on that path, each once, with no
        // count (their entries happened before tracing) and a time that includes its callee's.
        List<CpuProfile.Node> callers = new ArrayList<>(profile.nodes("deep"));
        callers.remove(stepNode);
        assertEquals(chain.size(), callers.size(), "no second copy of the chain\n" + profile.dump("deep"));
        callers.sort((a, b) -> Integer.compare(a.path.size(), b.path.size()));
        long below = Long.MAX_VALUE;
        for (int depth = 0; depth < chain.size(); depth++) {
            CpuProfile.Node node = callers.get(depth);
            assertEquals(chain.subList(0, depth + 1), node.path, profile.dump("deep"));
            assertEquals(0, node.count, node + "\n" + profile.dump("deep"));
            assertTrue(node.time >= stepNode.time && node.time <= below, node + "\n" + profile.dump("deep"));
            below = node.time;
        }
    }

    private static String kjp(int port, String... subCommand) {
        String[] args = new String[subCommand.length + 1];
        args[0] = "localhost:" + port;
        System.arraycopy(subCommand, 0, args, 1, subCommand.length);
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Connect.run(args, new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8), false);
        String text = out.toString(StandardCharsets.UTF_8);
        assertEquals(0, status, String.join(" ", args) + "\n" + text + err.toString(StandardCharsets.UTF_8));
        return text;
    }

    private static StringBuffer collect(InputStream stream) {
        StringBuffer target = new StringBuffer();
        Thread reader = new Thread(() -> {
            byte[] buffer = new byte[8192];
            try {
                int n;
                while ((n = stream.read(buffer)) > 0) {
                    target.append(new String(buffer, 0, n, StandardCharsets.UTF_8));
                }
            } catch (IOException e) {
                // The process has gone.
            }
        });
        reader.setDaemon(true);
        reader.start();
        return target;
    }

    private static void await(Process process, StringBuffer buffer, String text, StringBuffer stdout,
            StringBuffer stderr) throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
        while (buffer.indexOf(text) < 0) {
            if (System.nanoTime() > end || !process.isAlive()) {
                Thread.sleep(200);
                if (buffer.indexOf(text) >= 0) {
                    return;
                }
                throw new AssertionError("no '" + text + "'\n--- stdout\n" + stdout + "\n--- stderr\n" + stderr);
            }
            Thread.sleep(50);
        }
    }
}
