package com.kestrix.db;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotReader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.Stream;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.io.TempDir;
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

    /**
     * The same program with sampling on, so that dead threads are folded, and the thread table
     * of its exit snapshot. Each thread end past 60 waiting dead threads folds all but the
     * newest 50: the 61st end folds 11, and so does every 11th end after it. The 200 workers,
     * main (which ends before the JVM dies) and at most two more ends of the JVM's own make 13
     * folds, 143 threads; the 14th fold would need the 204th end. The program joins each batch
     * of 20 before it starts the next, so the folded threads are the first seven batches and
     * three threads of the eighth.
     */
    @ParameterizedTest
    @MethodSource("jdks")
    void exitSnapshotHoldsTheNewestDeadThreadsAndTheFoldOfTheOlderOnes(Path jdk, @TempDir Path dir) throws Exception {
        Path snapshots = dir.resolve("snapshots");
        Jvm.Result result = Jvm.run(jdk, 180, Jvm.agentArgument("sampling,onexit=snapshot,dir=" + snapshots), "-cp",
                Jvm.programs().toString(), "com.kestrix.programs.ManyThreads");
        assertEquals(0, result.exitCode, result.toString());
        assertEquals("ended 200 threads, total 13234495000\n", result.stdout, result.toString());
        List<Path> files;
        try (Stream<Path> listed = Files.list(snapshots)) {
            files = listed.toList();
        }
        assertEquals(1, files.size(), files.toString());

        Snapshot snapshot = SnapshotReader.read(files.get(0));
        Table threads = snapshot.table(TableLayout.THREAD);
        int nameField = TableLayout.THREAD.field("nameStrID");
        int slotField = TableLayout.THREAD.field("indexForTFI");
        int runningNumberField = TableLayout.THREAD.field("runningNumber");
        Map<String, Integer> slotByName = new HashMap<>();
        Map<Integer, String> nameByRunningNumber = new HashMap<>();
        Set<Integer> slotsInUse = new HashSet<>();
        List<String> folded = new ArrayList<>();
        for (int row = 0; row < threads.size(); row++) {
            assertTrue(threads.stamp(row) > 0, "thread rows are never deleted");
            String name = snapshot.string(threads.getInt(row, nameField));
            int slot = threads.getInt(row, slotField);
            int runningNumber = threads.getInt(row, runningNumberField);
            assertEquals(null, nameByRunningNumber.put(runningNumber, name), "running number " + runningNumber);
            slotByName.putIfAbsent(name, slot);
            if (slot == 0) {
                folded.add(name);
            } else {
                // A folded thread gives its slot back; no two unfolded threads share one.
                assertTrue(slotsInUse.add(slot), "slot " + slot + " of " + name);
            }
        }
        assertEquals("<Oldest dead threads>", nameByRunningNumber.get(1));
        assertEquals("VM Start", nameByRunningNumber.get(2));
        assertNotEquals(0, slotByName.get("<Oldest dead threads>"));
        assertNotEquals(0, slotByName.get("main"));

        int workerRows = 0;
        for (String name : nameByRunningNumber.values()) {
            if (name.startsWith("worker-") || name.startsWith("renamed-")) {
                workerRows++;
            }
        }
        assertEquals(200, workerRows);
        for (int i = 0; i < 200; i++) {
            // Every third worker renamed itself; its end stored the new name in its row.
            String name = (i % 3 == 0 ? "renamed-" : "worker-") + i;
            assertTrue(slotByName.containsKey(name), name);
            boolean isFolded = slotByName.get(name) == 0;
            if (i < 140) {
                assertTrue(isFolded, name + " is among the oldest dead threads");
            } else if (i >= 160) {
                assertTrue(!isFolded, name + " is among the newest dead threads");
            }
        }
        assertTrue(folded.stream().allMatch(name -> name.startsWith("worker-") || name.startsWith("renamed-")),
                folded.toString());
        assertEquals(143, folded.size(), folded.toString());
        long foldedOfEighthBatch = folded.stream()
                .filter(name -> Integer.parseInt(name.substring(name.indexOf('-') + 1)) >= 140)
                .count();
        assertEquals(3, foldedOfEighthBatch, folded.toString());
    }
}
