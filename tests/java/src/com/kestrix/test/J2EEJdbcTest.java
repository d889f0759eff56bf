package com.kestrix.test;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.IOException;
import java.net.ServerSocket;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * SQL statements recorded from real drivers: H2 in memory and a PostgreSQL server started for
 * the test, on every reference JDK, with the bytecode verifier on for all classes. Texts, exact
 * counts and the call paths that issued them, the text of a prepared statement through its tag,
 * a refused statement (caught two frames up, and caught inside a wrapper that runs a fallback),
 * kjp sql on the snapshot, and what noj2ee and disablej2ee leave out.
 */
class J2EEJdbcTest {
    static final String PROGRAM = "com.kestrix.programs.JdbcStatements";
    static final String P = "com.kestrix.programs.JdbcStatements.";
    static final String PREPARED = "SELECT name FROM item WHERE id = ?";
    static final String PLAIN = "SELECT COUNT(*) FROM item";
    static final String FAILING = "SELECT * FROM no_such_table";
    static final String AFTER_FAILURE = "SELECT MAX(id) FROM item";
    static final String REFUSED_IN_WRAPPER = "SELECT no_such_column FROM item";
    static final String FALLBACK = "SELECT MIN(id) FROM item";
    static final Path PG_BIN = Paths.get("/usr/lib/postgresql/15/bin");
    static final String H2_JAR = "/usr/share/java/h2.jar";
    static final String PG_JAR = "/usr/share/java/postgresql.jar";
    static final String[] VERIFY = {"-XX:+UnlockDiagnosticVMOptions", "-XX:+BytecodeVerificationLocal",
        "-XX:+BytecodeVerificationRemote"};
    static final int MF_J2EE = 16;

    static Path ourPgDir;
    static int ourPgPort;

    /** A PostgreSQL server of its own: a data directory in a temporary directory, a free local port, trust. */
    @BeforeAll
    static void startPostgres() throws Exception {
        if (!Files.isExecutable(PG_BIN.resolve("postgres")) || !Files.exists(Paths.get(PG_JAR))) {
            return;
        }
        ourPgDir = Files.createTempDirectory("kjp-pg-");
        try (ServerSocket socket = new ServerSocket(0)) {
            ourPgPort = socket.getLocalPort();
        }
        if (isRoot()) {
            // The server refuses to run as root.
            command(60, "chown", "postgres:postgres", ourPgDir.toString());
        }
        command(120, asPostgres(PG_BIN.resolve("initdb").toString(), "-D", ourPgDir.resolve("data").toString(),
                "-A", "trust", "-U", "postgres", "--no-sync"));
        command(120, asPostgres(PG_BIN.resolve("pg_ctl").toString(), "-D", ourPgDir.resolve("data").toString(),
                "-l", ourPgDir.resolve("log").toString(), "-w", "-t", "60", "-o", "-p " + ourPgPort + " -k "
                        + ourPgDir + " -c listen_addresses=127.0.0.1 -c fsync=off", "start"));
    }

    @AfterAll
    static void stopPostgres() throws Exception {
        if (ourPgDir == null) {
            return;
        }
        try {
            if (Files.exists(ourPgDir.resolve("data").resolve("postmaster.pid"))) {
                command(120, asPostgres(PG_BIN.resolve("pg_ctl").toString(), "-D", ourPgDir.resolve("data").toString(),
                        "-m", "immediate", "-w", "stop"));
            }
        } finally {
            try (Stream<Path> files = Files.walk(ourPgDir)) {
                for (Path f : files.sorted(Comparator.reverseOrder()).toList()) {
                    Files.deleteIfExists(f);
                }
            }
        }
    }

    static boolean isRoot() {
        return "root".equals(System.getProperty("user.name"));
    }

    static String[] asPostgres(String... command) {
        List<String> all = new ArrayList<>(isRoot() ? List.of("runuser", "-u", "postgres", "--") : List.of());
        all.addAll(List.of(command));
        return all.toArray(new String[0]);
    }

    static void command(long timeoutSeconds, String... command) throws IOException, InterruptedException {
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        byte[] output = process.getInputStream().readAllBytes();
        assertTrue(process.waitFor(timeoutSeconds, TimeUnit.SECONDS), String.join(" ", command));
        assertEquals(0, process.exitValue(), String.join(" ", command) + "\n" + new String(output,
                StandardCharsets.UTF_8));
    }

    static Stream<Arguments> jdksAndDatabases() {
        List<Arguments> cases = new ArrayList<>();
        for (Path jdk : Jvm.jdks()) {
            cases.add(Arguments.of(jdk, "H2"));
            cases.add(Arguments.of(jdk, "PostgreSQL"));
        }
        return cases.stream();
    }

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    /** One row of the j2ee table: its text, kind, figures and path, outermost method first. */
    record Row(String text, int kind, long timeNs, long count, List<String> path) {
        String leaf() {
            return path.isEmpty() ? "" : path.get(path.size() - 1);
        }

        /** The method that called the probed one. */
        String caller() {
            return path.size() < 2 ? "" : path.get(path.size() - 2);
        }
    }

    record Run(Path snapshot, List<Row> rows, int j2eeMethods, boolean cpuData) {
        List<Row> rows(String text, String leafName) {
            return rows.stream().filter(r -> r.text().equals(text) && r.leaf().endsWith("." + leafName)).toList();
        }

        long count(String text, String leafName) {
            return rows(text, leafName).stream().mapToLong(Row::count).sum();
        }
    }

    static Run run(Path jdk, Path dir, String options, String url, String jar) throws Exception {
        List<String> command = new ArrayList<>(List.of(VERIFY));
        command.addAll(List.of(Jvm.agentArgument(options + ",onexit=snapshot,dir=" + dir), "-cp",
                Jvm.programs() + ":" + jar, PROGRAM, url, "1000", "10"));
        Jvm.Result result = Jvm.run(jdk, 180, command.toArray(new String[0]));
        assertEquals(0, result.exitCode, result.toString());
        assertFalse(result.stderr.contains("VerifyError") || result.stderr.contains("cannot be instrumented"),
                result.toString());
        Path file;
        try (Stream<Path> files = Files.list(dir)) {
            List<Path> snapshots = files.filter(f -> f.toString().endsWith(".snapshot")).toList();
            assertEquals(1, snapshots.size(), result.toString());
            file = snapshots.get(0);
        }
        Snapshot snapshot = SnapshotReader.read(file);
        TableLayout l = TableLayout.J2EE;
        Table t = snapshot.table(l);
        List<Row> rows = new ArrayList<>();
        for (int r = 0; r < t.size(); r++) {
            if (!t.isDeleted(r) && t.getInt(r, l.field("thread")) != 0 && t.getLong(r, l.field("count")) > 0) {
                String text = snapshot.string(t.getInt(r, l.field("strID")));
                rows.add(new Row(text == null ? "" : text, t.getInt(r, l.field("kind")),
                        t.getLong(r, l.field("timeNs")), t.getLong(r, l.field("count")),
                        SnapshotPaths.methods(snapshot, t.getInt(r, l.field("frame")))));
            }
        }
        Table methods = snapshot.table(TableLayout.METHOD);
        int j2eeMethods = 0;
        for (int r = 0; r < methods.size(); r++) {
            if ((methods.getInt(r, TableLayout.METHOD.field("flags")) & MF_J2EE) != 0) {
                j2eeMethods++;
            }
        }
        Table cpu = snapshot.table(TableLayout.CPUPROFILING);
        boolean cpuData = false;
        for (int r = 0; r < cpu.size() && !cpuData; r++) {
            cpuData = !cpu.isDeleted(r) && cpu.getLong(r, TableLayout.CPUPROFILING.field("time")) > 0;
        }
        return new Run(file, rows, j2eeMethods, cpuData);
    }


    @ParameterizedTest(name = "{1} on {0}")
    @MethodSource("jdksAndDatabases")
    void statementsAreCountedByTextAndPathWithSamplingAndTracing(Path jdk, String database, @TempDir Path dir)
            throws Exception {
        String url;
        String jar;
        if (database.equals("H2")) {
            url = "jdbc:h2:mem:kjp";
            jar = H2_JAR;
        } else {
            Assumptions.assumeTrue(ourPgDir != null, "PostgreSQL cases skipped: no server binaries in " + PG_BIN
                    + " or no driver at " + PG_JAR + " (scripts/install-deps.sh installs them)");
            url = "jdbc:postgresql://127.0.0.1:" + ourPgPort + "/postgres?user=postgres";
            jar = PG_JAR;
        }
        for (String mode : List.of("sampling", "tracing")) {
            Path modeDir = Files.createDirectories(dir.resolve(mode));
            // Traced times from the clock, not from samples the agent may choose on a slow clock.
            Run run = run(jdk, modeDir, mode.equals("tracing") ? "tracing,tracingtimes=clock" : mode, url, jar);
            String where = database + ", " + mode + ": " + run.rows();
            // The prepared statement's text reaches its executions through the tag set at prepare.
            assertEquals(1000, run.count(PREPARED, "executeQuery"), where);
            assertEquals(10, run.count(PLAIN, "executeQuery"), where);
            for (Row row : run.rows(PREPARED, "executeQuery")) {
                assertEquals(P + "runPrepared", row.caller(), where);
            }
            for (Row row : run.rows(PLAIN, "executeQuery")) {
                assertEquals(P + "runPlain", row.caller(), where);
            }
            assertTrue(run.rows(PREPARED, "prepareStatement").stream()
                    .anyMatch(r -> r.caller().equals(P + "runPrepared") && r.count() == 1), where);

            // Refused, its exit skipped: counted once, no time; the statement after it is booked
            // at its own path, not under the one the exception left.
            List<Row> failing = run.rows(FAILING, "executeQuery");
            assertEquals(1, failing.size(), where);
            assertEquals(P + "queryFailing", failing.get(0).caller(), where);
            assertEquals(1, failing.get(0).count(), where);
            assertEquals(0, failing.get(0).timeNs(), where);
            List<Row> after = run.rows(AFTER_FAILURE, "executeQuery");
            assertEquals(1, after.size(), where);
            assertEquals(List.of(P + "main", P + "runAfterFailure"), after.get(0).path().subList(
                    after.get(0).path().size() - 3, after.get(0).path().size() - 1), where);

            assertWrapperCalls(run, mode.equals("tracing"), where);
            assertTrue(run.j2eeMethods() > 0, where);

            KjpRunner.Result text = KjpRunner.run("sql", "--top", "50", run.snapshot().toString());
            assertEquals(0, text.status(), text.err());
            assertStatementLine(text.out(), PREPARED, 1000, where);
            assertStatementLine(text.out(), PLAIN, 10, where);
            assertTrue(text.out().contains("<- " + P + "runPrepared(Connection, int)"), text.out());
            KjpRunner.Result json = KjpRunner.run("sql", "--format", "json", "--top", "50", run.snapshot().toString());
            assertEquals(0, json.status(), json.err());
            assertTrue(Pattern.compile("\\{\"statement\":\"" + Pattern.quote(PREPARED) + "\",[^{]*\"count\":1000,")
                    .matcher(json.out()).find(), json.out());
            assertTrue(Pattern.compile("\\{\"statement\":\"" + Pattern.quote(PLAIN) + "\",[^{]*\"count\":10,")
                    .matcher(json.out()).find(), json.out());
        }
    }

    /**
     * The wrapper's own call stays open over the exception caught inside it and closes with
     * time; the refused driver call gets none, although the fallback at the same driver method
     * ran and ended inside the wrapper's call.
     */
    static void assertWrapperCalls(Run run, boolean traced, String where) {
        List<Row> wrapped = run.rows().stream().filter(r -> r.text().equals(REFUSED_IN_WRAPPER)).toList();
        Row outer = wrapped.stream().filter(r -> r.caller().equals(P + "runThroughWrapper")).findFirst()
                .orElseThrow(() -> new AssertionError("no wrapper call: " + where));
        assertEquals(1, outer.count(), where);
        Row refused = wrapped.stream().filter(r -> r != outer).findFirst()
                .orElseThrow(() -> new AssertionError("no driver call in the wrapper: " + where));
        assertEquals(1, refused.count(), where);
        assertEquals(0, refused.timeNs(), where);
        assertEquals(1, run.count(FALLBACK, "executeQuery"), where);
        if (traced) {
            assertTrue(outer.timeNs() > 0, where);
        }
    }

    /** The statement's line of kjp sql: time, count, mean, prepares, then its text. */
    static void assertStatementLine(String out, String text, long count, String where) {
        Matcher m = Pattern.compile("^ +[\\d,.]+ ms +([\\d,]+) +[\\d,.]+ ms +[\\d,]+  " + Pattern.quote(text) + "$",
                Pattern.MULTILINE).matcher(out);
        assertTrue(m.find(), where + "\n" + out);
        assertEquals(count, Long.parseLong(m.group(1).replace(",", "")), out);
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void withoutExceptionEventsNoj2eeAndDisablej2ee(Path jdk, @TempDir Path dir) throws Exception {
        // No catch events: the J2EE calls notice the unwound ones from the real stack.
        Run noEvents = run(jdk, Files.createDirectories(dir.resolve("noevents")),
                "tracing,tracingtimes=clock,disableexceptions", "jdbc:h2:mem:kjp", H2_JAR);
        assertWrapperCalls(noEvents, true, "disableexceptions: " + noEvents.rows());
        assertEquals(1, noEvents.count(FAILING, "executeQuery"));

        // noj2ee records CPU data and keeps the probes, but books nothing.
        Run noj2ee = run(jdk, Files.createDirectories(dir.resolve("noj2ee")), "sampling,noj2ee", "jdbc:h2:mem:kjp",
                H2_JAR);
        assertTrue(noj2ee.cpuData());
        assertEquals(List.of(), noj2ee.rows());
        assertTrue(noj2ee.j2eeMethods() > 0);
        KjpRunner.Result sql = KjpRunner.run("sql", noj2ee.snapshot().toString());
        assertEquals(1, sql.status());
        assertEquals("", sql.out());
        assertEquals(1, sql.err().strip().lines().count(), sql.err());
        assertTrue(sql.err().contains("has no J2EE events") && sql.err().contains("noj2ee"), sql.err());

        // disablej2ee leaves the probes out.
        Run disabled = run(jdk, Files.createDirectories(dir.resolve("disablej2ee")), "sampling,disablej2ee",
                "jdbc:h2:mem:kjp", H2_JAR);
        assertTrue(disabled.cpuData());
        assertEquals(List.of(), disabled.rows());
        assertEquals(0, disabled.j2eeMethods());
    }
}
