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

    /** What a kjp command did: its exit status and both outputs. */
    public record Result(int status, String out, String err) {
    }

    public static Result run(String... args) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        ByteArrayOutputStream err = new ByteArrayOutputStream();
        int status = Kjp.run(args, new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8), ZoneId.of("UTC"));
        return new Result(status, out.toString(StandardCharsets.UTF_8), err.toString(StandardCharsets.UTF_8));
    }

    /** Standard output of a kjp command that must succeed; its error output is the failure message. */
    public static String succeed(String... args) {
        Result result = run(args);
        assertEquals(0, result.status(), result.err());
        return result.out();
    }
}
