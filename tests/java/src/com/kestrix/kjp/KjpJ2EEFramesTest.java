package com.kestrix.kjp;

import static com.kestrix.kjp.KjpReportTest.kjp;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.Constants;
import com.kestrix.kjp.KjpReportTest.Run;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * collapsed and flame with --j2ee on CPU data and J2EE rows of known figures: where an event's
 * frame goes, what width it gets when its recorded time is below its callees' or above its
 * method's, one frame for the URIs that share a service method's path, and totals that stay
 * those recorded, in time and in invocations.
 */
class KjpJ2EEFramesTest {
    static Path snapshot(Path dir) {
        try (SyntheticSnapshot s = new SyntheticSnapshot()) {
            s.thread(2, "main");
            s.method(1, "App", "main", "()V");
            s.method(2, "HttpServlet", "service", "()V");
            s.method(3, "App", "doGet", "()V");
            s.method(4, "Stmt", "executeQuery", "()V");
            s.method(5, "Db", "scan", "()V");
            s.method(6, "App", "setUp", "()V");
            s.frame(1, 0, 1);
            s.frame(2, 1, 2);
            s.frame(3, 2, 3);
            s.frame(4, 3, 4);
            s.frame(5, 4, 5);
            s.frame(6, 1, 6);
            // Times with the callees': main 1000 = 100 own + service 800 + setUp 100.
            s.cpu(1, 2, 1, 1000, 1);
            s.cpu(2, 2, 2, 800, 10);
            s.cpu(3, 2, 3, 700, 10);
            s.cpu(4, 2, 4, 500, 10);
            s.cpu(5, 2, 5, 300, 10);
            s.cpu(6, 2, 6, 100, 1);
            // Two URIs at one service path; 700 of their 800 lie in doGet, whatever their own say.
            s.j2ee(2, 2, "/a", 4, 500, 6);
            s.j2ee(2, 2, "/b", 4, 200, 4);
            // More time than the statement's method had: held to its 500.
            s.j2ee(2, 4, "SELECT 1", 1, 600, 10);
            // Less than the lookup's method had, which has no callees: 50 of its 100.
            s.j2ee(2, 6, "jdbc/db", 7, 50, 1);
            return s.write(dir.resolve("frames.snapshot"), Constants.SNAPSHOT_WITH_COUNTS);
        }
    }

    static long sum(String collapsed) {
        long sum = 0;
        for (String line : collapsed.split("\n")) {
            sum += Long.parseLong(line.substring(line.lastIndexOf(' ') + 1));
        }
        return sum;
    }

    @Test
    void eventFramesSitBetweenTheirMethodAndItsCalleesWithinTheRecordedTotals(@TempDir Path dir) throws Exception {
        Path file = snapshot(dir);
        Run run = kjp("collapsed", "--j2ee", "--merged", file.toString());
        assertEquals(0, run.status(), run.err());
        assertEquals(String.join("\n",
                "App.main() 100",
                "App.main();App.setUp() 50",
                "App.main();App.setUp();[JNDI] jdbc/db 50",
                "App.main();HttpServlet.service() 100",
                "App.main();HttpServlet.service();[request] /a | /b;App.doGet() 200",
                "App.main();HttpServlet.service();[request] /a | /b;App.doGet();Stmt.executeQuery();[SQL] SELECT 1 200",
                "App.main();HttpServlet.service();[request] /a | /b;App.doGet();Stmt.executeQuery();[SQL] SELECT 1;"
                        + "Db.scan() 300",
                ""), run.out());
        String plain = kjp("collapsed", "--merged", file.toString()).out();
        assertEquals(sum(plain), sum(run.out()));

        // Per thread the same frames, under the thread; invocations stay those of the methods.
        String byThread = kjp("collapsed", "--j2ee", file.toString()).out();
        assertTrue(byThread.contains("main;App.main();App.setUp();[JNDI] jdbc/db 50\n"), byThread);
        String counts = kjp("collapsed", "--j2ee", "--value", "count", file.toString()).out();
        assertEquals(sum(kjp("collapsed", "--value", "count", file.toString()).out()), sum(counts));
        assertTrue(counts.contains("main;App.main();HttpServlet.service() 10\n"), counts);
        assertTrue(counts.lines().noneMatch(line -> line.matches(".*;\\[[a-zA-Z]+\\] [^;]* \\d+")), counts);

        Path page = dir.resolve("frames.html");
        assertEquals(0, kjp("flame", "--j2ee", "-o", page.toString(), file.toString()).status());
        String html = Files.readString(page);
        assertTrue(html.contains("\"[request] /a | /b\"") && html.contains("\"[SQL] SELECT 1\""), html);

        Run alloc = kjp("flame", "--j2ee", "--value", "alloc-bytes", "-o", page.toString(), file.toString());
        assertEquals(2, alloc.status());
        assertEquals("kjp: --j2ee shows J2EE events on CPU data: give --value time or count", alloc.err().lines()
                .findFirst().orElse(""));
    }
}
