package com.kestrix.agent;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Pattern;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** The agent as a JVM meets it at start-up: loading, option errors, the report line. */
class AgentStartupTest {
    private static final String CANNOT_START = "Kestrix Java Profiler 8.0.1 cannot start";
    private static final String USAGE_FIRST_LINE =
            "Kestrix Java Profiler 8.0.1 JVMTI agent usage: -agentlib:kjpagent=[help]|[<option>, ...]\n";
    private static final Pattern REPORT_LINE = Pattern.compile(
            "\\[Kestrix Java Profiler 8\\.0\\.1\\] JVMTI version 3[0-9a-f]{7}; [^;]+; [^;]+; [^;]+; Linux; 64-bit JVM\n");

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    private static Jvm.Result runHello(Path jdk, String options) throws Exception {
        return Jvm.run(jdk, 120, Jvm.agentArgument(options), "-cp", Jvm.programs().toString(),
                "com.kestrix.programs.Hello");
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void helpPrintsTheUsageAndEndsTheJvmWithStatus1(Path jdk) throws Exception {
        Jvm.Result result = runHello(jdk, "help");
        assertEquals(1, result.exitCode, result.toString());
        assertTrue(result.stdout.startsWith(USAGE_FIRST_LINE), result.toString());
        assertTrue(result.stdout.contains("java -agentlib:kjpagent=usedmem=70 FooClass\n"), result.toString());
        assertFalse(result.stdout.contains("hello from"), "the program must not run");
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void malformedOptionsGiveTheirMessageOnStdoutThenTheUsage(Path jdk) throws Exception {
        String[][] cases = {
            {"port=0", CANNOT_START + ": port is invalid\n\n"},
            {"bogus", CANNOT_START + ": unknown option 'bogus'\n\n"},
            {"usedmem=91", CANNOT_START + ": usedmem parameter is invalid; should be an integer in the range 50..90\n\n"},
            {"tracing,disablecounts,sampling", CANNOT_START + ": 'tracing' cannot be used in combination with 'sampling'\n\n"
                    + CANNOT_START + ": 'tracing' cannot be used in combination with 'disablecounts'\n\n"},
        };
        for (String[] c : cases) {
            Jvm.Result result = runHello(jdk, c[0]);
            assertEquals(1, result.exitCode, c[0] + ": " + result);
            assertEquals(c[1] + usageOf(result.stdout), result.stdout, c[0]);
            assertTrue(result.stdout.endsWith("java -agentlib:kjpagent=usedmem=70 FooClass\n"), c[0]);
            assertFalse(result.stdout.contains("hello from"), c[0]);
        }
    }

    /** The usage text that follows the messages: from its first line to the end. */
    private static String usageOf(String stdout) {
        int start = stdout.indexOf(USAGE_FIRST_LINE);
        return start < 0 ? "<no usage>" : stdout.substring(start);
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void javaVersionEndsNormallyUnderTheAgentWithEveryEngineOn(Path jdk) throws Exception {
        // The JVM prepares classes while it dies after printing its version, when JVMTI
        // answers no questions about them; every mode is on, so every engine hears of them.
        for (String options : new String[] {"quiet", "quiet,tracing,alloc,monitors"}) {
            Jvm.Result result = Jvm.run(jdk, 120, Jvm.agentArgument(options), "-version");
            assertEquals(0, result.exitCode, options + ": " + result);
            assertTrue(result.stderr.contains("64-Bit Server VM"), result.toString());
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void optionFilesThatCannotBeReadAreNamedAndTheDefaultsServe(Path jdk) throws Exception {
        Jvm.Result result = Jvm.run(jdk, 120,
                Jvm.agentArgument("tracing,filters=/nonexistent/filters,walltimespec=/nonexistent/walltime"), "-cp",
                Jvm.programs().toString(), "com.kestrix.programs.Hello", "wait-for-agent");
        assertEquals(0, result.exitCode, result.toString());
        assertTrue(result.stdout.startsWith("hello from"), result.toString());
        for (String option : new String[] {"filters=/nonexistent/filters", "walltimespec=/nonexistent/walltime"}) {
            assertTrue(result.stderr.contains("[Kestrix Java Profiler 8.0.1] *** Warning ***: '" + option
                    + "' cannot be read (No such file or directory); the defaults are used\n"), result.toString());
        }
        // The hint names the command line client and the port.
        java.util.regex.Matcher port = java.util.regex.Pattern.compile("listening on port (\\d+)").matcher(result.stderr);
        assertTrue(port.find(), result.toString());
        assertTrue(result.stderr.contains("[Kestrix Java Profiler 8.0.1] *** HINT ***: Or from a terminal: kjp connect localhost:"
                + port.group(1) + " status\n"), result.toString());
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void reportLineNamesTheJvmtiVersionAndTheJvm(Path jdk) throws Exception {
        Jvm.Result result = runHello(jdk, null);
        assertEquals(0, result.exitCode, result.toString());
        assertTrue(result.stdout.startsWith("hello from " + Jvm.majorVersion(jdk)), result.toString());
        assertTrue(REPORT_LINE.matcher(result.stderr).find(), result.toString());
        int jvmtiMajor = Jvm.majorVersion(jdk);
        assertTrue(result.stderr.contains("JVMTI version 30" + Integer.toHexString(jvmtiMajor) + "0000;"), result.toString());
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void quietSilencesTheAgent(Path jdk) throws Exception {
        Jvm.Result result = runHello(jdk, "quiet,cpu=full");
        assertEquals(0, result.exitCode, result.toString());
        assertTrue(result.stdout.startsWith("hello from"), result.toString());
        assertFalse(result.stderr.contains("Kestrix"), result.toString());
    }
}
