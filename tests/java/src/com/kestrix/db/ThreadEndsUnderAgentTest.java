package com.kestrix.db;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * A program that starts and ends 200 threads under the agent. Every thread end passes through
 * the thread registry, past 60 waiting dead threads the older ones are folded, and on the 1st,
 * 101st and 201st end the string pool is collected, which printStringGCTimes makes visible.
 */
class ThreadEndsUnderAgentTest {
    private static final Pattern COLLECTION = Pattern.compile("strings collected: (\\d+) time=(\\d+)\n");

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void twoHundredThreadsStartAndEndAndTheProgramKeepsWorking(Path jdk) throws Exception {
        Jvm.Result result = Jvm.run(jdk, 180, Jvm.agentArgument("printStringGCTimes"), "-cp",
                Jvm.programs().toString(), "com.kestrix.programs.ManyThreads");
        assertEquals(0, result.exitCode, result.toString());
        assertEquals("ended 200 threads, total 13234495000\n", result.stdout, result.toString());
        Matcher matcher = COLLECTION.matcher(result.stderr);
        List<Integer> collected = new ArrayList<>();
        while (matcher.find()) {
            collected.add(Integer.parseInt(matcher.group(1)));
        }
        // The JVM ends a few threads of its own, so the count of thread ends is 200 or a little more.
        assertTrue(collected.size() >= 2 && collected.size() <= 3, result.toString());
        // Every third thread renamed itself; its end refreshed the name in its row, which left the
        // old name to the collection on the 101st end.
        assertTrue(collected.get(1) > 0, result.toString());
    }
}
