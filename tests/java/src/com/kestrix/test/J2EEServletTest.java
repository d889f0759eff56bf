package com.kestrix.test;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.net.Socket;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Servlet requests from real containers driven by a real HTTP client: Jetty 9 (javax.servlet)
 * and Tomcat 10 (jakarta.servlet) embedded in a test program on a free port, on every reference
 * JDK, verifier on, traced and sampled. The URIs with their exact counts, the statements, the
 * dispatching and the JNDI lookups made inside each request on its thread and below its path,
 * and what kjp requests, collapsed --j2ee and flame --j2ee make of it.
 */
class J2EEServletTest {
    static final String ITEM_QUERY = "SELECT name FROM item WHERE id = ?";
    static final String COUNT_QUERY = "SELECT COUNT(*) FROM item";
    static final String[] VERIFY = {"-XX:+UnlockDiagnosticVMOptions", "-XX:+BytecodeVerificationLocal",
        "-XX:+BytecodeVerificationRemote"};
    static final int A = 500;
    static final int B = 50;
    static final int Q = 5;
    static final int FAIL = 3;
    static final int PAGE = 20;

    /** A container program: its class and the JNDI name its /a looks up. */
    enum Container {
        JETTY("com.kestrix.programs.j2ee.JettyServer", "greeting"),
        TOMCAT("com.kestrix.programs.j2ee.TomcatServer", "java:comp/env/greeting");

        final String mainClass;
        final String jndiName;

        Container(String mainClass, String jndiName) {
            this.mainClass = mainClass;
            this.jndiName = jndiName;
        }
    }

    static Stream<Arguments> runs() {
        List<Arguments> runs = new ArrayList<>();
        for (Path jdk : Jvm.jdks()) {
            for (Container container : Container.values()) {
                for (String mode : new String[] {"tracing", "sampling"}) {
                    runs.add(Arguments.of(jdk, container, mode));
                }
            }
        }
        return runs.stream();
    }

    /**
     * Starts the container under the agent, sends each URI its number of GETs, one at a time,
     * stops it through its standard input, and returns the exit snapshot. The server process is
     * killed whatever happens. A URI after "!" gets one request whose client leaves once the
     * answer has begun.
     */
    static Path serve(Path jdk, Container container, String options, Path dir, Object... urisAndCounts)
            throws Exception {
        List<String> command = new ArrayList<>(List.of(jdk.resolve("bin/java").toString(),
                "-Duser.home=" + Jvm.testHome()));
        command.addAll(List.of(VERIFY));
        command.addAll(List.of(Jvm.agentArgument(options + ",onexit=snapshot,dir=" + dir), "-cp",
                System.getProperty("kjp.test.programs.j2ee") + ":" + System.getProperty("kjp.test.j2ee.classpath"),
                container.mainClass));
        Path err = dir.resolve("stderr.txt");
        Process server = new ProcessBuilder(command).redirectError(err.toFile()).start();
        try {
            BufferedReader out = new BufferedReader(new InputStreamReader(server.getInputStream(),
                    StandardCharsets.UTF_8));
            CompletableFuture<String> first = CompletableFuture.supplyAsync(() -> {
                try {
                    return out.readLine();
                } catch (java.io.IOException e) {
                    return null;
                }
            });
            String line = first.get(120, TimeUnit.SECONDS);
            assertTrue(line != null && line.startsWith("port "), line + "\n" + Files.readString(err));
            int port = Integer.parseInt(line.substring(5).trim());
            HttpClient client = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(30)).build();
            for (int i = 0; i < urisAndCounts.length; i += 2) {
                String uri = (String) urisAndCounts[i];
                if (uri.startsWith("!")) {
                    leaveEarly(port, uri.substring(1));
                    continue;
                }
                int expected = uri.startsWith("/fail") ? 500 : 200;
                for (int n = 0; n < (Integer) urisAndCounts[i + 1]; n++) {
                    HttpResponse<String> response = client.send(HttpRequest.newBuilder(
                            URI.create("http://127.0.0.1:" + port + uri)).timeout(Duration.ofSeconds(60)).build(),
                            HttpResponse.BodyHandlers.ofString());
                    assertEquals(expected, response.statusCode(), uri + ": " + response.body());
                }
            }
            server.getOutputStream().close();
            assertTrue(server.waitFor(120, TimeUnit.SECONDS), "the server did not stop");
            assertEquals(0, server.exitValue(), Files.readString(err));
        } finally {
            server.destroyForcibly();
            server.waitFor();
        }
        try (Stream<Path> files = Files.list(dir)) {
            List<Path> snapshots = files.filter(f -> f.toString().endsWith(".snapshot")).toList();
            assertEquals(1, snapshots.size(), Files.readString(err));
            return snapshots.get(0);
        }
    }

    /** A GET whose client reads the start of the answer and resets the connection. */
    static void leaveEarly(int port, String uri) throws Exception {
        try (Socket socket = new Socket("127.0.0.1", port)) {
            socket.setSoLinger(true, 0);
            socket.getOutputStream().write(("GET " + uri + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
                    .getBytes(StandardCharsets.US_ASCII));
            BufferedReader in = new BufferedReader(new InputStreamReader(socket.getInputStream(),
                    StandardCharsets.US_ASCII));
            String line = in.readLine();
            assertTrue(line != null && line.startsWith("HTTP/1.1 200"), line);
            while (line != null && !line.equals("started")) {
                line = in.readLine();
            }
        }
    }

    /** One row of the j2ee table, its path as method names outermost first. */
    record Row(int thread, int frame, List<Integer> frames, List<String> path, String text, int kind, long timeNs,
            long count) {
        String leaf() {
            return path.isEmpty() ? "" : path.get(path.size() - 1);
        }
    }

    static List<Row> rows(Path file) throws Exception {
        Snapshot snapshot = SnapshotReader.read(file);
        Table frames = snapshot.table(TableLayout.FRAME);
        Table methods = snapshot.table(TableLayout.METHOD);
        TableLayout l = TableLayout.J2EE;
        Table t = snapshot.table(l);
        List<Row> rows = new ArrayList<>();
        for (int r = 0; r < t.size(); r++) {
            if (t.isDeleted(r) || t.getInt(r, l.field("thread")) == 0 || t.getLong(r, l.field("count")) == 0) {
                continue;
            }
            List<Integer> ids = new ArrayList<>();
            List<String> path = new ArrayList<>();
            for (int frame = t.getInt(r, l.field("frame")); frame > 0; ) {
                int row = frames.rowOf(frame);
                int method = methods.rowOf(frames.getInt(row, TableLayout.FRAME.field("callee")));
                ids.add(0, frame);
                path.add(0, snapshot.string(methods.getInt(method, TableLayout.METHOD.field("classNameStrID"))) + "."
                        + snapshot.string(methods.getInt(method, TableLayout.METHOD.field("nameStrID"))));
                frame = frames.getInt(row, TableLayout.FRAME.field("parent"));
            }
            String text = snapshot.string(t.getInt(r, l.field("strID")));
            rows.add(new Row(t.getInt(r, l.field("thread")), t.getInt(r, l.field("frame")), ids, path,
                    text == null ? "" : text, t.getInt(r, l.field("kind")), t.getLong(r, l.field("timeNs")),
                    t.getLong(r, l.field("count"))));
        }
        return rows;
    }

    /** The rows of requests to 'uri' that no other request row of their thread encloses. */
    static List<Row> outerRequests(List<Row> rows, String uri) {
        return rows.stream().filter(r -> r.kind() == 4 && r.text().equals(uri))
                .filter(r -> rows.stream().noneMatch(o -> o.kind() == 4 && o.thread() == r.thread()
                        && o.frame() != r.frame() && r.frames().contains(o.frame())))
                .toList();
    }

    /** The calls of statement rows ending in 'leaf' with 'text' whose path holds one of 'requests' on their thread. */
    static long callsInside(List<Row> rows, List<Row> requests, int kind, String leaf, String text) {
        return rows.stream().filter(r -> r.kind() == kind && r.text().equals(text) && r.leaf().endsWith(leaf))
                .filter(r -> requests.stream()
                        .anyMatch(q -> q.thread() == r.thread() && r.frames().contains(q.frame())))
                .mapToLong(Row::count).sum();
    }

    /** The object of 'uri' in the JSON of kjp requests: from its "uri" field to the next URI or the groups. */
    static String uriJson(String json, String uri) {
        int start = json.indexOf("{\"uri\":\"" + uri + "\"");
        assertTrue(start >= 0, uri + " missing in " + json);
        int end = json.indexOf("{\"uri\":", start + 1);
        return json.substring(start, end < 0 ? json.indexOf("\"groups\"", start) : end);
    }

    static long nestedCount(String json, String kind, String method, String text) {
        Matcher m = Pattern.compile("\\{\"kind\":\"" + kind + "\",\"method\":\"" + method + "\",\"text\":\""
                + Pattern.quote(text) + "\",\"timeNs\":\\d+,\"count\":(\\d+)\\}").matcher(json);
        return m.find() ? Long.parseLong(m.group(1)) : -1;
    }

    static long sumOfValues(String collapsed) {
        long sum = 0;
        for (String line : collapsed.split("\n")) {
            if (!line.isEmpty()) {
                sum += Long.parseLong(line.substring(line.lastIndexOf(' ') + 1));
            }
        }
        return sum;
    }

    @ParameterizedTest(name = "{1} {2} on {0}")
    @MethodSource("runs")
    void requestsWithTheCallsMadeInsideThem(Path jdk, Container container, String mode, @TempDir Path dir)
            throws Exception {
        Path file = serve(jdk, container, mode, dir, "!/slow", 1, "/a", A, "/b?x=1", B, "/q", Q, "/fail", FAIL,
                "/page.jsp", PAGE);
        List<Row> rows = rows(file);

        // The table: exact counts per URI, without the query string; what each request did lies
        // on its thread and below its own path.
        List<Row> a = outerRequests(rows, "/a");
        List<Row> b = outerRequests(rows, "/b");
        assertEquals(A, a.stream().mapToLong(Row::count).sum(), a.toString());
        assertEquals(B, b.stream().mapToLong(Row::count).sum(), b.toString());
        assertEquals(FAIL, outerRequests(rows, "/fail").stream().mapToLong(Row::count).sum());
        // A request whose client left: counted once, and the requests after it as they were.
        assertEquals(1, outerRequests(rows, "/slow").stream().mapToLong(Row::count).sum());
        assertTrue(rows.stream().noneMatch(r -> r.text().contains("?x=1")), "query strings are not part of URIs");
        assertEquals(A, callsInside(rows, a, 1, ".executeQuery", ITEM_QUERY));
        assertEquals(B, callsInside(rows, b, 1, ".executeQuery", COUNT_QUERY));
        assertEquals(0, callsInside(rows, b, 1, ".executeQuery", ITEM_QUERY));
        assertEquals(A, callsInside(rows, a, 6, ".include", "/part"));
        assertEquals(B, callsInside(rows, b, 6, ".forward", "/view"));
        assertEquals(A, callsInside(rows, a, 7, "InitialContext.lookup", container.jndiName));
        // The context's close() has a JDBC connection's name and descriptor, and is no JDBC call.
        assertEquals(List.of(), rows.stream().filter(r -> r.leaf().contains("Context.close")).toList());
        // A compiled page: its _jspService inside its servlet's service, both at the page's URI.
        List<Row> pages = outerRequests(rows, "/page.jsp");
        assertEquals(PAGE, pages.stream().mapToLong(Row::count).sum(), pages.toString());
        assertEquals(PAGE, callsInside(rows, pages, 5, "._jspService", "/page.jsp"));
        assertEquals(0, callsInside(rows, b, 7, "InitialContext.lookup", container.jndiName));
        if (mode.equals("tracing")) {
            // A lambda between the container and the servlet is never traced: paths of J2EE calls
            // that held its frame were paths the tracer never charged.
            assertTrue(rows.stream().noneMatch(r -> r.path().stream().anyMatch(m -> m.contains("$$Lambda"))),
                    "a J2EE path through a lambda's frame");
            assertTrue(a.stream().mapToLong(Row::timeNs).sum() > 0, "traced requests take time");
        }

        // kjp requests: the same figures, grouped by URI.
        String json = KjpRunner.succeed("requests", "--format", "json", file.toString());
        assertTrue(json.contains("\"requests\":" + (A + B + Q + FAIL + PAGE + 1) + ",\"distinctUris\":6,"), json);
        String aJson = uriJson(json, "/a");
        assertTrue(aJson.contains("\"count\":" + A + ",") && aJson.contains("\"sharedWith\":[]"), aJson);
        assertEquals(A, nestedCount(aJson, "SQL", "executeQuery", ITEM_QUERY), aJson);
        assertEquals(A, nestedCount(aJson, "SQL", "prepareStatement", ITEM_QUERY), aJson);
        assertEquals(A, nestedCount(aJson, "dispatch", "include", "/part"), aJson);
        assertEquals(A, nestedCount(aJson, "JNDI", "lookup", container.jndiName), aJson);
        String bJson = uriJson(json, "/b");
        assertTrue(bJson.contains("\"count\":" + B + ","), bJson);
        assertEquals(B, nestedCount(bJson, "SQL", "executeQuery", COUNT_QUERY), bJson);
        assertEquals(B, nestedCount(bJson, "dispatch", "forward", "/view"), bJson);
        assertEquals(-1, nestedCount(bJson, "JNDI", "lookup", container.jndiName), bJson);
        // /q and /fail run through HttpServlet's own service method: on a thread that served both,
        // their statements are listed for the two together.
        Matcher q = Pattern.compile("\\{\"kind\":\"SQL\",\"method\":\"executeQuery\",\"text\":\""
                + Pattern.quote(ITEM_QUERY) + "\",\"timeNs\":\\d+,\"count\":(\\d+)\\}")
                .matcher(json.substring(json.indexOf("{\"uri\":\"/q\"")));
        long qCalls = 0;
        while (q.find()) {
            qCalls += Long.parseLong(q.group(1));
        }
        assertEquals(Q, qCalls, json);

        // kjp report's J2EE line counts the requests the same way.
        String report = KjpRunner.succeed("report", file.toString());
        assertTrue(report.contains(" " + (A + B + Q + FAIL + PAGE + 1) + " requests (6 URIs)"), report);
        String text = KjpRunner.succeed("requests", "--top", "1", file.toString());
        assertTrue(text.contains("Recorded  " + (A + B + Q + FAIL + PAGE + 1) + " requests (6 URIs)"), text);
        assertTrue(Pattern.compile("\\n +[\\d.,]+ ms +" + A + " +[\\d.,]+ ms  /a\\n").matcher(text).find(), text);
        assertTrue(text.contains("JNDI lookup") && text.contains(container.jndiName), text);
        assertFalse(text.contains("/b\n"), "--top 1 lists the costliest URI alone:\n" + text);

        // Folded stacks with J2EE frames: the same total, each event frame right above its method.
        // Traced, every call's frame is in the tree; sampled, those that samples met.
        String plain = KjpRunner.succeed("collapsed", "--merged", "--min-percent", "0", file.toString());
        String j2ee = KjpRunner.succeed("collapsed", "--merged", "--min-percent", "0", "--j2ee", file.toString());
        assertEquals(sumOfValues(plain), sumOfValues(j2ee));
        boolean traced = mode.equals("tracing");
        String service = "ItemServlet.service(HttpServletRequest,HttpServletResponse)";
        if (traced || plain.contains(service)) {
            assertTrue(j2ee.contains(service + ";[request] /a;"), "request frame");
        }
        if (traced || plain.contains("JdbcPreparedStatement.executeQuery()")) {
            assertTrue(j2ee.contains(".executeQuery();[SQL] " + ITEM_QUERY), "statement frame");
        }
        if (traced) {
            // The requests of /q, /fail and /slow run through HttpServlet's service method: a frame
            // of that path names all the URIs served there. Which of them share one path depends
            // on how the container's threads took the requests, so each is only looked for.
            Matcher shared = Pattern.compile(";\\[request\\] ([^;]*);").matcher(j2ee);
            Set<String> named = new HashSet<>();
            while (shared.find()) {
                named.addAll(List.of(shared.group(1).split(" \\| ")));
            }
            assertTrue(named.containsAll(List.of("/q", "/fail", "/page.jsp")), "request frames name " + named);
            assertTrue(j2ee.contains(".lookup(String);[JNDI] " + container.jndiName), "JNDI frame");
        }
        Path page = dir.resolve("flame.html");
        KjpRunner.succeed("flame", "--j2ee", "--min-percent", "0", "-o", page.toString(), file.toString());
        String html = Files.readString(page);
        assertEquals(j2ee.contains("[request] /a;"), html.contains("\"[request] /a\""), "flame page");
    }

    /** A server that got no request: the snapshot has statements but no requests, said in one line. */
    @Test
    void aServerWithoutRequests(@TempDir Path dir) throws Exception {
        Path file = serve(Jvm.jdks().get(0), Container.JETTY, "sampling", dir);
        KjpRunner.Result result = KjpRunner.run("requests", file.toString());
        assertEquals(1, result.status());
        assertEquals("kjp: " + file + ": has no servlet requests: its J2EE events are SQL statements or JNDI calls made"
                + " outside requests (see kjp sql)", result.err().strip());
        assertTrue(result.out().isEmpty(), result.out());
        KjpRunner.Result usage = KjpRunner.run("requests", "--j2ee", file.toString());
        assertEquals(2, usage.status());
        assertTrue(usage.err().startsWith("kjp: --j2ee belongs to flame and collapsed"), usage.err());
        assertTrue(KjpRunner.succeed("sql", file.toString()).contains("CREATE TABLE item"));
    }
}
