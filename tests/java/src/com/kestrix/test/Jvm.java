package com.kestrix.test;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * Starts a real JVM, optionally with the agent, and collects what it printed. The reference
 * JVMs come from the system property kjp.test.jdks (colon-separated JDK homes); the agent
 * library from kjp.agent.library; the compiled test programs from kjp.test.programs.
 */
public final class Jvm {
    /** What a finished JVM left behind. */
    public static final class Result {
        public final int exitCode;
        public final String stdout;
        public final String stderr;

        Result(int exitCode, String stdout, String stderr) {
            this.exitCode = exitCode;
            this.stdout = stdout;
            this.stderr = stderr;
        }

        @Override
        public String toString() {
            return "exit " + exitCode + "\n--- stdout\n" + stdout + "\n--- stderr\n" + stderr;
        }
    }

    private Jvm() {
    }

    /** Every reference JDK home configured for this test run; JDK 17 always comes first. */
    public static List<Path> jdks() {
        String value = System.getProperty("kjp.test.jdks");
        List<Path> result = new ArrayList<>();
        if (value == null || value.isEmpty()) {
            result.add(Paths.get(System.getProperty("java.home")));
            return result;
        }
        for (String home : value.split(File.pathSeparator)) {
            if (!home.isEmpty()) {
                result.add(Paths.get(home));
            }
        }
        return result;
    }

    public static Path agentLibrary() {
        String value = System.getProperty("kjp.agent.library");
        if (value == null) {
            throw new IllegalStateException("kjp.agent.library is not set");
        }
        return Paths.get(value);
    }

    public static Path programs() {
        String value = System.getProperty("kjp.test.programs");
        if (value == null) {
            throw new IllegalStateException("kjp.test.programs is not set");
        }
        return Paths.get(value);
    }

    /** The -agentpath argument for the given option string (null or empty: no options). */
    public static String agentArgument(String options) {
        String base = "-agentpath:" + agentLibrary().toAbsolutePath();
        return options == null || options.isEmpty() ? base : base + "=" + options;
    }

    /**
     * Runs java from the given JDK with the given arguments and waits for it, at most the given
     * number of seconds; a JVM that doesn't end by then is killed and the test fails.
     */
    public static Result run(Path jdk, long timeoutSeconds, String... arguments) throws IOException, InterruptedException {
        return run(jdk, timeoutSeconds, null, arguments);
    }

    public static Result run(Path jdk, long timeoutSeconds, Path workDir, String... arguments)
            throws IOException, InterruptedException {
        List<String> command = new ArrayList<>();
        command.add(jdk.resolve("bin").resolve("java").toString());
        // Exit snapshots of runs that name no directory go to <user home>/Snapshots; they belong
        // in the build, not in the home of whoever runs the tests.
        command.add("-Duser.home=" + testHome());
        command.addAll(Arrays.asList(arguments));
        ProcessBuilder builder = new ProcessBuilder(command);
        if (workDir != null) {
            builder.directory(workDir.toFile());
        }
        Path out = Files.createTempFile("kjp-jvm-", ".out");
        Path err = Files.createTempFile("kjp-jvm-", ".err");
        builder.redirectOutput(out.toFile());
        builder.redirectError(err.toFile());
        Process process = builder.start();
        try {
            if (!process.waitFor(timeoutSeconds, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                process.waitFor();
                throw new AssertionError("JVM did not end within " + timeoutSeconds + " s: " + command + "\n"
                        + read(out) + "\n" + read(err));
            }
            return new Result(process.exitValue(), read(out), read(err));
        } finally {
            Files.deleteIfExists(out);
            Files.deleteIfExists(err);
        }
    }

    private static String read(Path file) throws IOException {
        try (InputStream in = Files.newInputStream(file)) {
            return new String(in.readAllBytes(), StandardCharsets.UTF_8);
        }
    }

    /** The user home of the JVMs the tests start: a directory of the build. */
    public static synchronized Path testHome() throws IOException {
        Path home = Paths.get(System.getProperty("kjp.build.dir", "build"), "test-home").toAbsolutePath();
        Files.createDirectories(home);
        return home;
    }

    /** The major version of a JDK home, read from its release file. */
    public static int majorVersion(Path jdk) throws IOException {
        for (String line : Files.readAllLines(jdk.resolve("release"))) {
            if (line.startsWith("JAVA_VERSION=")) {
                String version = line.substring("JAVA_VERSION=".length()).replace("\"", "");
                int dot = version.indexOf('.');
                return Integer.parseInt(dot < 0 ? version : version.substring(0, dot));
            }
        }
        throw new IOException("no JAVA_VERSION in " + jdk.resolve("release"));
    }
}
