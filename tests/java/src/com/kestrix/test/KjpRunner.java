package com.kestrix.test;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.kestrix.tools.kjp.Kjp;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.time.ZoneId;

/** Runs the kjp tool in the test's own JVM, with times in UTC. */
public final class KjpRunner {
    private KjpRunner() {
    }

    /** Standard output of a kjp command that must succeed; its error output is the failure message. */
    public static String succeed(String... args) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Kjp.run(args, new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8), ZoneId.of("UTC"));
        assertEquals(0, status, err.toString(StandardCharsets.UTF_8));
        return out.toString(StandardCharsets.UTF_8);
    }
}
