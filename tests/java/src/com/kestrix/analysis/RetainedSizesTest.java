package com.kestrix.analysis;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.KjpRunner;
import com.kestrix.test.LiveAgent;
import com.kestrix.tools.snapshot.SnapshotReader;
import java.io.RandomAccessFile;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * kjp heap --retained on snapshots of a program whose memory is held in known shapes: the
 * retained sizes it reports are worked out here from the shallow sizes of the classes involved.
 */
class RetainedSizesTest {
    static final String PROGRAM = "com.kestrix.programs.RetainedGraph";
    static final int NODES = 100_000;
    static final int ENTRIES = 10_000;

    /** The shallow size of one instance of a class, from the class histogram of the snapshot. */
    static long instanceSize(String histogram, String className, long instances) {
        Matcher m = Pattern.compile("\\{\"name\":\"" + Pattern.quote(className) + "\",\"instances\":(\\d+),\"bytes\":(\\d+)\\}")
                .matcher(histogram);
        assertTrue(m.find(), className + " not in " + histogram);
        assertEquals(instances, Long.parseLong(m.group(1)), className);
        return Long.parseLong(m.group(2)) / instances;
    }

    static long[] figures(String json, String regex) {
        Matcher m = Pattern.compile(regex).matcher(json);
        assertTrue(m.find(), () -> regex + " not in " + json.substring(0, Math.min(json.length(), 3000)));
        long[] values = new long[m.groupCount()];
        for (int g = 0; g < values.length; g++) {
            values[g] = Long.parseLong(m.group(g + 1));
        }
        return values;
    }

    static Path capture(Path jdk, Path dir) throws Exception {
        int port = LiveAgent.freePort();
        try (LiveAgent agent = LiveAgent.launchProgram(jdk, dir, "port=" + port + ",dir=" + dir
                + ",sessionname=RetainedGraph", port, PROGRAM)) {
            agent.awaitStderr(LiveAgent.LISTENING + port + "...", 60);
            agent.awaitStdout("ready", 60);
            String[] lines = agent.kjpOk("capture", "--heap").trim().split("\n");
            Path file = Paths.get(lines[lines.length - 1]);
            assertEquals(0, agent.exit(60), agent.toString());
            return file;
        }
    }

    @ParameterizedTest
    @MethodSource("com.kestrix.test.Jvm#jdks")
    void retainedSizesMatchTheKnownShapesAndTheIndexKeepsThem(Path jdk, @TempDir Path dir) throws Exception {
        Path file = capture(jdk, dir);
        String histogram = KjpRunner.succeed("heap", "--format", "json", "--top", "100000", file.toString());
        long owner = instanceSize(histogram, PROGRAM + "$ListOwner", 1);
        long node = instanceSize(histogram, PROGRAM + "$Node", NODES);
        long payload = instanceSize(histogram, PROGRAM + "$Payload", NODES + ENTRIES);
        long cache = instanceSize(histogram, PROGRAM + "$Cache", 1);
        long entries = instanceSize(histogram, PROGRAM + "$CacheEntry[]", 1);
        long entry = instanceSize(histogram, PROGRAM + "$CacheEntry", ENTRIES);
        long listBytes = owner + NODES * (node + payload);
        long cacheBytes = cache + entries + ENTRIES * (entry + payload);

        String json = KjpRunner.succeed("heap", "--retained", "--format", "json", "--top", "40", file.toString());
        assertTrue(json.contains("\"fromIndex\":false"));
        String object = "\\{\"oid\":\\d+,\"object\":\"" + Pattern.quote(PROGRAM);
        // The owner holds the whole list, and nothing else holds any of it.
        long[] ownerFigures = figures(json, object + "\\$ListOwner #\\d+\",\"shallow\":(\\d+),\"retained\":(\\d+),"
                + "\"dominated\":(\\d+),\"omittedSteps\":0,\"path\":\\[\\{\"via\":\"GC root: (?:[^\"\\\\]|\\\\.)*\",\"oid\":\\d+,\"object\":\"class "
                + Pattern.quote(PROGRAM) + "\"\\},\\{\"via\":\"static ourOwner\"");
        assertEquals(owner, ownerFigures[0]);
        assertEquals(listBytes, ownerFigures[1]);
        assertEquals(1 + 2L * NODES, ownerFigures[2]);
        // By class, the nodes count once, through the first: the ones behind it are its own.
        long[] nodeClass = figures(json, "\\{\"class\":\"" + Pattern.quote(PROGRAM + "$Node")
                + "\",\"objects\":(\\d+),\"shallow\":(\\d+),\"retained\":(\\d+)\\}");
        assertEquals(NODES, nodeClass[0]);
        assertEquals(NODES * node, nodeClass[1]);
        assertEquals(NODES * (node + payload), nodeClass[2]);
        // The cache is held from two classes, so neither dominates it: the virtual root does.
        String topDominators = json.substring(json.indexOf("\"topDominators\""));
        long[] cacheFigures = figures(topDominators, object + "\\$Cache #\\d+\",\"shallow\":(\\d+),\"retained\":(\\d+)");
        assertEquals(cache, cacheFigures[0]);
        assertEquals(cacheBytes, cacheFigures[1]);
        // Neither holder class keeps it: neither is a top dominator of that size.
        for (String holder : new String[] {"$HolderA", "$HolderB"}) {
            assertFalse(topDominators.contains("\"object\":\"class " + PROGRAM + holder + "\",\"shallow\""), holder);
        }

        // Saved, the next run loads the index and says the same.
        String text = KjpRunner.succeed("heap", "--retained", "--save", file.toString());
        assertTrue(text.contains("Biggest objects by retained size"), text);
        Path index = file.resolveSibling(file.getFileName() + ".index");
        assertTrue(Files.size(index) > 0);
        assertTrue(SnapshotReader.read(index).indexOffset() > 0);
        String again = KjpRunner.succeed("heap", "--retained", "--format", "json", "--top", "40", file.toString());
        assertEquals(json.replace("\"fromIndex\":false", "\"fromIndex\":true"), again);
        assertTrue(KjpRunner.succeed("heap", "--retained", file.toString()).contains("Index     " + index), "index named");

        // A damaged index is not trusted: the figures are computed again. Bytes overwritten in
        // the arrays, then the file cut short.
        try (RandomAccessFile raf = new RandomAccessFile(index.toFile(), "rw")) {
            byte[] junk = new byte[1 << 16];
            java.util.Arrays.fill(junk, (byte) 0x7F);
            for (long at = raf.length() / 4; at < raf.length() - junk.length; at += raf.length() / 4) {
                raf.seek(at);
                raf.write(junk);
            }
        }
        String damaged = KjpRunner.succeed("heap", "--retained", "--format", "json", "--top", "40", file.toString());
        assertTrue(damaged.equals(json) || damaged.equals(again), "damaged index: same figures either way");
        try (RandomAccessFile raf = new RandomAccessFile(index.toFile(), "rw")) {
            raf.setLength(raf.length() / 2);
        }
        assertEquals(json, KjpRunner.succeed("heap", "--retained", "--format", "json", "--top", "40", file.toString()));
    }

    @ParameterizedTest
    @MethodSource("com.kestrix.test.Jvm#jdks")
    void aDamagedOrTruncatedHeapIsOneLineOfError(Path jdk, @TempDir Path dir) throws Exception {
        Path file = capture(jdk, dir);
        byte[] bytes = Files.readAllBytes(file);
        int counts = SnapshotReader.MAGIC.length() + 1 + 4 + "Created by Kestrix Java Profiler 8.0.1".length() + 40 + 4
                + "RetainedGraph".length();
        assertEquals(25, bytes[counts], "the counts section follows the header");

        Path truncated = dir.resolve("truncated.snapshot");
        Files.write(truncated, java.util.Arrays.copyOf(bytes, bytes.length / 3));
        KjpRunner.Result run = KjpRunner.run("heap", "--retained", truncated.toString());
        assertEquals(1, run.status(), run.err());
        assertTrue(run.err().matches("kjp: \\S+truncated.snapshot: the file is truncated: [^\\n]*\\n"), run.err());

        // Fewer objects announced than the records name: references out of range.
        Path damaged = dir.resolve("damaged.snapshot");
        byte[] copy = bytes.clone();
        copy[counts + 1] = 5;
        copy[counts + 2] = 0;
        copy[counts + 3] = 0;
        copy[counts + 4] = 0;
        Files.write(damaged, copy);
        run = KjpRunner.run("heap", "--retained", damaged.toString());
        assertEquals(1, run.status(), run.err());
        assertTrue(run.err().matches("kjp: \\S+damaged.snapshot: the file is damaged: [^\\n]*\\n"), run.err());
    }
}
