package com.kestrix.test;

import static org.junit.jupiter.api.Assertions.assertEquals;

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
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;

/**
 * A JVM running a test program (Remote unless told otherwise) under the agent, listening on a
 * port of its own, kept alive while a test talks to it. Standard output and error are collected
 * as they come; "exit" on standard input ends the program.
 */
public final class LiveAgent implements AutoCloseable {
    public static final String LISTENING = "Profiler agent is listening on port ";

    /** What one kjp connect run printed. */
    public record Run(int status, String out, String err) {
        @Override
        public String toString() {
            return "status " + status + "\n--- out\n" + out + "\n--- err\n" + err;
        }
    }

    private final Process myProcess;
    private final int myPort;
    private final Path myDir;
    private final StringBuffer myStdout = new StringBuffer();
    private final StringBuffer myStderr = new StringBuffer();
    private final OutputStream myStdin;

    private LiveAgent(Process process, int port, Path dir) {
        myProcess = process;
        myPort = port;
        myDir = dir;
        myStdin = process.getOutputStream();
        collect(process.getInputStream(), myStdout);
        collect(process.getErrorStream(), myStderr);
    }

    /** A port that was free a moment ago. */
    public static int freePort() throws IOException {
        try (ServerSocket socket = new ServerSocket(0)) {
            return socket.getLocalPort();
        }
    }

    /**
     * Starts Remote on the JDK with the agent on a free port, snapshots into dir, with more agent
     * options and JVM arguments if given; returns once the agent listens.
     */
    public static LiveAgent start(Path jdk, Path dir, String moreOptions, String... jvmArguments) throws Exception {
        int port = freePort();
        String options = "port=" + port + ",dir=" + dir + ",sessionname=Remote"
                + (moreOptions == null || moreOptions.isEmpty() ? "" : "," + moreOptions);
        LiveAgent agent = launch(jdk, dir, options, port, jvmArguments);
        agent.awaitStderr(LISTENING + port + "...", 60);
        agent.awaitStdout("ready", 60);
        return agent;
    }

    /** Starts Remote with exactly these agent options and doesn't wait for anything. */
    public static LiveAgent launch(Path jdk, Path dir, String options, int port, String... jvmArguments) throws IOException {
        return launchProgram(jdk, dir, options, port, "com.kestrix.programs.Remote", jvmArguments);
    }

    /** Starts the test program with the main class with exactly these agent options. */
    public static LiveAgent launchProgram(Path jdk, Path dir, String options, int port, String mainClass,
            String... jvmArguments) throws IOException {
        List<String> command = new ArrayList<>();
        command.add(jdk.resolve("bin").resolve("java").toString());
        command.add(Jvm.agentArgument(options));
        command.addAll(Arrays.asList(jvmArguments));
        command.addAll(List.of("-cp", Jvm.programs().toString(), mainClass));
        Process process = new ProcessBuilder(command).start();
        return new LiveAgent(process, port, dir);
    }

    private static void collect(InputStream stream, StringBuffer target) {
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
    }

    public int port() {
        return myPort;
    }

    public Path dir() {
        return myDir;
    }

    public String address() {
        return "localhost:" + myPort;
    }

    public String stdout() {
        return myStdout.toString();
    }

    public String stderr() {
        return myStderr.toString();
    }

    public long pid() {
        return myProcess.pid();
    }

    public boolean isAlive() {
        return myProcess.isAlive();
    }

    /** Waits for the process to end; its exit status. */
    public int waitFor(long seconds) throws InterruptedException {
        if (!myProcess.waitFor(seconds, TimeUnit.SECONDS)) {
            throw new AssertionError("the JVM did not end within " + seconds + " s\n" + this);
        }
        return myProcess.exitValue();
    }

    public void awaitStderr(String text, long seconds) throws InterruptedException {
        await(myStderr, text, seconds);
    }

    public void awaitStdout(String text, long seconds) throws InterruptedException {
        await(myStdout, text, seconds);
    }

    private void await(StringBuffer buffer, String text, long seconds) throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        while (buffer.indexOf(text) < 0) {
            if (System.nanoTime() > end) {
                throw new AssertionError("no '" + text + "' within " + seconds + " s\n" + this);
            }
            if (!myProcess.isAlive() && buffer.indexOf(text) < 0) {
                Thread.sleep(200);
                if (buffer.indexOf(text) < 0) {
                    throw new AssertionError("the JVM ended without printing '" + text + "'\n" + this);
                }
            }
            Thread.sleep(50);
        }
    }

    /** Sends one command to the program and waits until it is done. */
    public void command(String line, long seconds) throws IOException, InterruptedException {
        myStdin.write((line + "\n").getBytes(StandardCharsets.UTF_8));
        myStdin.flush();
        awaitStdout("done " + line + "\n", seconds);
    }

    /** Runs kjp connect on this agent with the sub-command and its arguments. */
    public Run kjp(String... subCommand) {
        String[] args = new String[subCommand.length + 1];
        args[0] = address();
        System.arraycopy(subCommand, 0, args, 1, subCommand.length);
        return connect(args);
    }

    /** Like kjp, and the run must succeed. */
    public String kjpOk(String... subCommand) {
        Run run = kjp(subCommand);
        assertEquals(0, run.status(), run + "\n" + this);
        return run.out();
    }

    /** Runs kjp connect with exactly these arguments, in this process; progress bars on. */
    public static Run connect(String... args) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Connect.run(args, new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8), true);
        return new Run(status, out.toString(StandardCharsets.UTF_8), err.toString(StandardCharsets.UTF_8));
    }

    /** The files in the snapshot directory whose names contain the text. */
    public List<Path> snapshots(String nameContains) throws IOException {
        try (Stream<Path> files = Files.list(myDir)) {
            return files.filter(f -> f.getFileName().toString().contains(nameContains)).sorted().toList();
        }
    }

    /** Asks the program to exit and waits for it; its exit status. */
    public int exit(long seconds) throws InterruptedException {
        close();
        return waitFor(seconds);
    }

    @Override
    public void close() throws InterruptedException {
        try {
            myStdin.write("exit\n".getBytes(StandardCharsets.UTF_8));
            myStdin.close();
        } catch (IOException e) {
            // Already gone.
        }
        if (!myProcess.waitFor(30, TimeUnit.SECONDS)) {
            myProcess.destroyForcibly();
            myProcess.waitFor();
        }
    }

    @Override
    public String toString() {
        return "--- JVM stdout\n" + myStdout + "\n--- JVM stderr\n" + myStderr;
    }
}
