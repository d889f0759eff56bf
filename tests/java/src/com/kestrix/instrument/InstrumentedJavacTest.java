package com.kestrix.instrument;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipInputStream;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * The JDK's own compiler, a large program nobody here wrote, compiles java.util and its
 * subpackages under the agent, with every class verified, to class files identical to those
 * it writes without the agent.
 */
class InstrumentedJavacTest {
    static final Path JDK17_SOURCES = Paths.get("/usr/lib/jvm/openjdk-17/src.zip");
    static final String SOURCE_PREFIX = "java.base/java/util/";
    static final int SOURCE_COUNT = 354;
    static final String AGENT_LINE = "[Kestrix Java Profiler 8.0.1] ";

    @TempDir
    static Path ourDir;
    static List<String> ourSourceFiles;

    @BeforeAll
    static void extractSources() throws IOException {
        Assumptions.assumeTrue(Files.exists(JDK17_SOURCES), "no JDK 17 sources at " + JDK17_SOURCES);
        Path root = ourDir.resolve("src");
        ourSourceFiles = new ArrayList<>();
        try (ZipInputStream zip = new ZipInputStream(Files.newInputStream(JDK17_SOURCES))) {
            for (ZipEntry entry; (entry = zip.getNextEntry()) != null;) {
                String name = entry.getName();
                if (!entry.isDirectory() && name.startsWith(SOURCE_PREFIX) && name.endsWith(".java")) {
                    Path file = root.resolve(name);
                    Files.createDirectories(file.getParent());
                    Files.copy(zip, file);
                    ourSourceFiles.add(file.toString());
                }
            }
        }
        assertEquals(SOURCE_COUNT, ourSourceFiles.size());
        Files.write(ourDir.resolve("files.txt"), ourSourceFiles);
    }

    private record Run(int exitCode, String stdout, String stderr, Map<String, byte[]> classes) {
    }

    /** javac of the JDK, itself started with the agent options given (null: without the agent). */
    private static Run javac(Path jdk, String agentOptions, String name) throws Exception {
        Path out = ourDir.resolve(name);
        List<String> command = new ArrayList<>(List.of(jdk.resolve("bin").resolve("javac").toString(),
                "-J-XX:+UnlockDiagnosticVMOptions", "-J-XX:+BytecodeVerificationLocal",
                "-J-XX:+BytecodeVerificationRemote"));
        if (agentOptions != null) {
            command.add("-J" + Jvm.agentArgument(agentOptions));
        }
        command.addAll(List.of("--patch-module", "java.base=" + ourDir.resolve("src").resolve("java.base"), "-nowarn",
                "-d", out.toString(), "@" + ourDir.resolve("files.txt")));
        Path stdout = ourDir.resolve(name + ".out");
        Path stderr = ourDir.resolve(name + ".err");
        Process process = new ProcessBuilder(command).redirectOutput(stdout.toFile()).redirectError(stderr.toFile())
                .start();
        if (!process.waitFor(600, TimeUnit.SECONDS)) {
            process.destroyForcibly().waitFor();
            throw new AssertionError("javac did not end in time: " + command);
        }
        Map<String, byte[]> classes = new TreeMap<>();
        if (Files.isDirectory(out)) {
            try (Stream<Path> files = Files.walk(out)) {
                for (Path file : files.filter(Files::isRegularFile).toList()) {
                    classes.put(out.relativize(file).toString(), Files.readAllBytes(file));
                }
            }
        }
        return new Run(process.exitValue(), read(stdout), read(stderr), classes);
    }

    private static String read(Path file) throws IOException {
        try (InputStream in = Files.newInputStream(file)) {
            return new String(in.readAllBytes(), StandardCharsets.UTF_8);
        }
    }

    /** What javac itself wrote, without the agent's own lines. */
    private static String compilerMessages(String stderr) {
        return stderr.lines().filter(line -> !line.startsWith(AGENT_LINE) && !line.startsWith("instrumentation of class "))
                .collect(Collectors.joining("\n"));
    }

    private static void assertSameCompilation(Run plain, Run profiled) {
        assertEquals(plain.exitCode, profiled.exitCode, profiled.stderr);
        assertEquals(plain.stdout, profiled.stdout);
        assertEquals(compilerMessages(plain.stderr), compilerMessages(profiled.stderr));
        assertEquals(plain.classes.keySet(), profiled.classes.keySet());
        for (Map.Entry<String, byte[]> entry : plain.classes.entrySet()) {
            assertArrayEquals(entry.getValue(), profiled.classes.get(entry.getKey()), entry.getKey());
        }
    }

    private static long changedClassesOfJavac(String stderr) {
        return stderr.lines().filter(line -> line.startsWith("instrumentation of class 'com/sun/tools/javac/")
                && line.endsWith(" changed=true")).count();
    }

    @Test
    void jdk17JavacCompilesJavaUtilIdenticallyWithTracingAndWithDefaultOptions() throws Exception {
        Path jdk = Jvm.jdks().get(0);
        assertEquals(17, Jvm.majorVersion(jdk));
        Run plain = javac(jdk, null, "plain");
        assertEquals(0, plain.exitCode, plain.stderr);
        assertTrue(plain.classes.size() > SOURCE_COUNT, String.valueOf(plain.classes.size()));

        Run instrumented = javac(jdk, "printInstrTimes,dir=" + ourDir.resolve("snapshots"), "default");
        assertSameCompilation(plain, instrumented);
        assertTrue(changedClassesOfJavac(instrumented.stderr) > 500, instrumented.stderr);
        assertFalse(instrumented.stderr.contains("cannot be instrumented"), instrumented.stderr);

        Run traced = javac(jdk, "tracing,printInstrTimes,dir=" + ourDir.resolve("snapshots"), "traced");
        assertSameCompilation(plain, traced);
        assertTrue(changedClassesOfJavac(traced.stderr) > 500, traced.stderr);
        assertTrue(traced.stderr.contains(AGENT_LINE + "CPU profiling is started\n"), traced.stderr);
    }

    // JDK 25's compiler cannot build JDK 17's java.util against its own java.base (internal
    // packages are gone), so what is compared here is a failing compilation: the same
    // diagnostics, the same exit code and the same (partial) output.
    @Test
    void jdk25JavacReportsTheSameCompilationWithTheAgent() throws Exception {
        Path jdk = Jvm.jdks().stream().filter(home -> {
            try {
                return Jvm.majorVersion(home) == 25;
            } catch (IOException e) {
                return false;
            }
        }).findFirst().orElse(null);
        Assumptions.assumeTrue(jdk != null, "no JDK 25 configured");
        Run plain = javac(jdk, null, "plain25");
        Run instrumented = javac(jdk, "printInstrTimes,dir=" + ourDir.resolve("snapshots"), "default25");
        assertSameCompilation(plain, instrumented);
        assertTrue(changedClassesOfJavac(instrumented.stderr) > 500, instrumented.stderr);
        assertFalse(instrumented.stderr.contains("cannot be instrumented"), instrumented.stderr);
    }
}
