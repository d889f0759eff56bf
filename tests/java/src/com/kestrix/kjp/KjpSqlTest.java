package com.kestrix.kjp;

import static com.kestrix.kjp.KjpReportTest.kjp;
import static com.kestrix.kjp.KjpReportTest.maskCaptureTime;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.kjp.KjpReportTest.Run;
import java.nio.file.Path;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * kjp sql and the J2EE line of kjp report on snapshots of known rows: a statement merged across
 * threads with its prepare apart, a prepare that calls its own overload, a call of a class that
 * tracing folds into its caller, calls without text, and the selection of threads.
 */
class KjpSqlTest {
    static final String FIND = "SELECT a FROM t WHERE id = ?";

    /** Threads main (#2) and worker (#3); the statements of App.find, App.count and App.report. */
    static Path snapshot(Path dir) {
        try (SyntheticSnapshot s = new SyntheticSnapshot()) {
            s.thread(2, "main");
            s.thread(3, "worker");
            s.method(1, "com.example.App", "main", "([Ljava/lang/String;)V");
            s.method(2, "com.example.App", "find", "(I)V");
            s.method(3, "org.db.Stmt", "executeQuery", "()Ljava/sql/ResultSet;");
            s.method(4, "org.db.Conn", "prepareStatement", "(Ljava/lang/String;)Ljava/sql/PreparedStatement;");
            s.method(5, "org.db.Conn", "prepareStatement", "(Ljava/lang/String;II)Ljava/sql/PreparedStatement;");
            s.method(6, "com.example.App", "count", "()J");
            s.method(7, "org.db.Stmt", "executeQuery", "(Ljava/lang/String;)Ljava/sql/ResultSet;");
            s.method(8, "com.example.App", "report", "()V");
            s.method(9, "org.db.Conn", "close", "()V");
            s.frame(1, 0, 1);
            s.frame(2, 1, 2);
            s.frame(3, 2, 3);
            s.frame(4, 2, 4);
            s.frame(5, 4, 5);
            s.frame(6, 1, 6);
            s.frame(7, 6, 7);
            s.frame(8, 1, 8);
            s.frame(9, 8, 7);
            s.frame(10, 1, 9);
            s.j2ee(2, 3, FIND, 1, 300_000_000L, 600);
            s.j2ee(3, 3, FIND, 1, 200_000_000L, 400);
            s.j2ee(2, 4, FIND, 1, 5_000_000L, 1);
            // The overload the prepare above called: inside it, not a prepare of its own.
            s.j2ee(2, 5, FIND, 1, 4_000_000L, 1);
            s.j2ee(2, 7, "SELECT COUNT(*) FROM t", 1, 1_000_000L, 10);
            // A call tracing folded into App.report, and one App.report made itself.
            s.j2ee(2, 8, "SELECT x FROM folded", 1, 0, 2);
            s.j2ee(2, 9, "SELECT y FROM direct", 1, 2_000_000L, 3);
            s.j2ee(3, 10, "", 1, 0, 1);
            s.j2ee(3, 6, "/a", 4, 9_000_000L, 5);
            return s.write(dir.resolve("sql.snapshot"));
        }
    }

    @Test
    void statementsMergeAcrossThreadsAndPathsWithPreparesApartAndInnerCallsOnce(@TempDir Path dir) {
        Path file = snapshot(dir);
        Run run = kjp("sql", "--top", "3", file.toString());
        assertEquals(0, run.status(), run.err());
        String expected = String.join("\n",
                "Kestrix Java Profiler snapshot " + file,
                "",
                "Session   Synthetic",
                "Captured  <time>, JVM exit",
                "Recorded  1,015 SQL statements (4 distinct), 503.0 ms in 2 threads; 1 prepare, 1 other JDBC call"
                        + " (connects, and calls without SQL text)",
                "Times     CPU data of the calling path, sampled: a statement shorter than the sampling interval often"
                        + " shows 0",
                "",
                "SQL statements by total time, all threads",
                "      Time  Count      Mean  Prepares  Statement",
                "  500.0 ms  1,000  0.500 ms         1  " + FIND,
                "                                         1,000 calls, 500.0 ms: org.db.Stmt.executeQuery()",
                "                                                                <- com.example.App.find(int)",
                "                                                                <- com.example.App.main(String[])",
                "                                         1 prepare, 5.0 ms: org.db.Conn.prepareStatement(String)",
                "                                                            <- com.example.App.find(int)",
                "                                                            <- com.example.App.main(String[])",
                "    2.0 ms      3  0.667 ms         0  SELECT y FROM direct",
                "                                         3 calls, 2.0 ms: org.db.Stmt.executeQuery(String)",
                "                                                          <- com.example.App.report()",
                "                                                          <- com.example.App.main(String[])",
                "    1.0 ms     10  0.100 ms         0  SELECT COUNT(*) FROM t",
                "                                         10 calls, 1.0 ms: org.db.Stmt.executeQuery(String)",
                "                                                           <- com.example.App.count()",
                "                                                           <- com.example.App.main(String[])",
                "");
        assertEquals(expected, maskCaptureTime(run.out()));

        Run json = kjp("sql", "--format", "json", "--thread", "worker", "--paths", "1", file.toString());
        assertEquals(0, json.status(), json.err());
        assertTrue(json.out().contains("\"statements\":400,\"distinct\":1,\"prepares\":0,\"otherCalls\":1,"
                + "\"timeNs\":200000000,\"threads\":1"), json.out());
        assertTrue(json.out().contains("{\"statement\":\"[org.db.Conn.close()]\",\"text\":\"\",\"kind\":\"SQL\","
                + "\"timeNs\":0,\"count\":1,"), json.out());

        Run report = kjp("report", file.toString());
        assertTrue(report.out().contains("\nJ2EE: 1,015 SQL statements (4 distinct), 5 requests (1 URI); see kjp sql,"
                + " kjp requests\n"), report.out());
        Run reportJson = kjp("report", "--format", "json", file.toString());
        assertTrue(reportJson.out().contains("\"j2ee\":{\"sqlStatements\":1015,\"distinctStatements\":4,"
                + "\"requests\":5,\"distinctUris\":1,\"jndiCalls\":0}"), reportJson.out());
    }

    @Test
    void snapshotsWithoutStatementsSayWhy(@TempDir Path dir) throws Exception {
        Path requestsOnly;
        try (SyntheticSnapshot s = new SyntheticSnapshot()) {
            s.thread(2, "main");
            s.method(1, "com.example.Servlet", "service", "()V");
            s.frame(1, 0, 1);
            s.j2ee(2, 1, "/a", 4, 0, 3);
            requestsOnly = s.write(dir.resolve("requests.snapshot"));
        }
        Run run = kjp("sql", requestsOnly.toString());
        assertEquals(0, run.status(), run.err());
        assertEquals("No SQL statements recorded in this snapshot; its J2EE events are requests, dispatches or JNDI"
                + " calls (see kjp requests).\n", run.out());

        Run none = kjp("sql", KnownProfile.file().toString());
        assertEquals(1, none.status());
        assertEquals("", none.out());
        assertEquals("kjp: " + KnownProfile.file() + ": has no J2EE events (SQL statements, requests, JNDI calls):"
                + " they are recorded while CPU profiling runs with J2EE on (-agentlib:kjpagent=sampling or =tracing,"
                + " without noj2ee or disablej2ee)\n", none.err());
        assertTrue(!kjp("report", KnownProfile.file().toString()).out().contains("J2EE"));
    }
}
