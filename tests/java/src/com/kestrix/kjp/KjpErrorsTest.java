package com.kestrix.kjp;

import static com.kestrix.kjp.KjpReportTest.kjp;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** What kjp says about files it can't read and arguments that make no sense: one line, no stack trace. */
class KjpErrorsTest {
    private static void assertOneLineError(KjpReportTest.Run run, int status, String expected) {
        assertEquals(status, run.status(), run.err());
        assertEquals("", run.out());
        assertEquals(expected, run.err().lines().findFirst().orElse(""));
        assertFalse(run.err().contains("Exception") || run.err().contains("\tat "), run.err());
    }

    /** The offset of the first table's tag: right after the header, which ends with the session name. */
    private static int firstTableTag(byte[] snapshot) {
        int magic = "Kestrix Java Profiler snapshot, https://github.com/kestrix/kjpagent\u001A".length();
        int offset = magic + 1 + 4 + "Created by Kestrix Java Profiler 8.0.1".length() + 8 + 4 + 4 + 8 + 8 + 8 + 4
                + "FixtureApp".length();
        assertEquals(42, snapshot[offset]);
        return offset;
    }

    @Test
    void damageInTheMiddleIsNamedWhereItIsNotCalledATruncation(@TempDir Path dir) throws Exception {
        byte[] whole = Files.readAllBytes(KnownProfile.file());
        int strings = firstTableTag(whole) + 9;
        // 16 bytes flipped at several places after the first table's start: whatever they hit,
        // the file is whole, so it is called damaged, with a place and an offset.
        int refused = 0;
        for (int at = strings + 4; at + 16 < whole.length; at += Math.max(1, (whole.length - strings) / 9)) {
            byte[] flipped = whole.clone();
            for (int i = at; i < at + 16; i++) {
                flipped[i] = (byte) ~flipped[i];
            }
            Path file = dir.resolve("flipped-" + at + ".snapshot");
            Files.write(file, flipped);
            KjpReportTest.Run run = KjpReportTest.kjp("report", file.toString());
            if (run.status() == 0) {
                continue;  // the flips hit only values, which no reader can tell from real ones
            }
            assertEquals(1, run.status(), run.err());
            assertTrue(run.err().contains(": the file is damaged: ") && run.err().contains("offset"), at + ": " + run.err());
            assertEquals(1, run.err().lines().count(), run.err());
            refused++;
        }
        assertTrue(refused >= 3, refused + " of the damaged files were refused");
    }

    @Test
    void truncatedFilesSayWhereTheyEnd(@TempDir Path dir) throws Exception {
        byte[] whole = Files.readAllBytes(KnownProfile.file());
        int magic = "Kestrix Java Profiler snapshot, https://github.com/kestrix/kjpagent\u001A".length();
        int strings = firstTableTag(whole) + 9;
        int stringCount = (whole[strings - 4] & 0xFF) | (whole[strings - 3] & 0xFF) << 8;
        Object[][] cases = {
            {strings, "the file is truncated: table 'string' announces " + stringCount
                    + " rows at offset " + (strings - 4) + ", but the file ends 0 bytes later"},
            {magic + 10, "the file is truncated: it ends after " + (magic + 10) + " bytes, in the header (creator)"},
            {magic - 5, "the file is truncated: it ends after " + (magic - 5) + " bytes, in the header"},
            {whole.length - 3, "the file is truncated: it ends after " + (whole.length - 3)
                    + " bytes, in table 'exception' (row count)"},
        };
        for (Object[] c : cases) {
            int length = (Integer) c[0];
            Path cut = dir.resolve("cut-" + length + ".snapshot");
            Files.write(cut, Arrays.copyOf(whole, length));
            assertOneLineError(kjp("report", cut.toString()), 1, "kjp: " + cut + ": " + c[1]);
        }
        // Cut inside a row: every length from the start of the tables on is reported, none crashes.
        for (int length = magic + 120; length < whole.length; length += 97) {
            Path cut = dir.resolve("cut.snapshot");
            Files.write(cut, Arrays.copyOf(whole, length));
            KjpReportTest.Run run = kjp("collapsed", cut.toString());
            assertEquals(1, run.status(), "length " + length + ": " + run.err());
            assertTrue(run.err().startsWith("kjp: " + cut + ": the file is truncated: "), run.err());
        }
    }

    @Test
    void foreignAndDamagedFilesAreNamedForWhatTheyAre(@TempDir Path dir) throws Exception {
        Path text = dir.resolve("notes.txt");
        Files.writeString(text, "just some text, long enough to fill the signature and then some more words");
        assertOneLineError(kjp("report", text.toString()), 1, "kjp: " + text
                + ": not a Kestrix Java Profiler snapshot: the file does not start with the snapshot signature "
                + "\"Kestrix Java Profiler snapshot, \"");

        Path hprof = dir.resolve("java_pid1.hprof");
        Files.write(hprof, "JAVA PROFILE 1.0.2\0....".getBytes(StandardCharsets.ISO_8859_1));
        assertOneLineError(kjp("report", hprof.toString()), 1, "kjp: " + hprof
                + ": this is a JVM heap dump in HPROF format, not a Kestrix Java Profiler snapshot; open it with a "
                + "heap dump analyzer");

        Path empty = dir.resolve("empty.snapshot");
        Files.write(empty, new byte[0]);
        assertOneLineError(kjp("report", empty.toString()), 1, "kjp: " + empty + ": the file is empty");

        assertOneLineError(kjp("report", dir.toString()), 1, "kjp: " + dir + ": is a directory, not a snapshot file");
        Path missing = dir.resolve("missing.snapshot");
        assertOneLineError(kjp("report", missing.toString()), 1, "kjp: " + missing + ": no such file");

        byte[] whole = Files.readAllBytes(KnownProfile.file());
        int magic = "Kestrix Java Profiler snapshot, https://github.com/kestrix/kjpagent\u001A".length();
        byte[] version = whole.clone();
        version[magic] = '8';
        Path oldVersion = dir.resolve("old.snapshot");
        Files.write(oldVersion, version);
        assertOneLineError(kjp("report", oldVersion.toString()), 1, "kjp: " + oldVersion
                + ": unsupported snapshot format version '8' (0x38); this tool reads version 9");

        int firstTag = firstTableTag(whole);
        byte[] badTag = whole.clone();
        badTag[firstTag] = 7;
        Path damaged = dir.resolve("damaged.snapshot");
        Files.write(damaged, badTag);
        assertOneLineError(kjp("report", damaged.toString()), 1, "kjp: " + damaged + ": the file is damaged: byte 0x07 at "
                + "offset " + firstTag + " where a table (tag 42) was expected");

        // A heap section of one object whose first record has a tag no record has.
        byte[] heapStart = {25, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 99};
        byte[] heap = new byte[whole.length + heapStart.length];
        System.arraycopy(whole, 0, heap, 0, firstTag);
        System.arraycopy(heapStart, 0, heap, firstTag, heapStart.length);
        System.arraycopy(whole, firstTag, heap, firstTag + heapStart.length, whole.length - firstTag);
        Path withHeap = dir.resolve("heap.snapshot");
        Files.write(withHeap, heap);
        assertOneLineError(kjp("report", withHeap.toString()), 1, "kjp: " + withHeap + ": the file is damaged: "
                + "unknown heap record tag 99 at offset " + (firstTag + 13));
    }

    @Test
    void argumentErrorsNameTheProblemAndPointToTheHelp() throws Exception {
        String file = KnownProfile.file().toString();
        String hint = "Run 'kjp --help' for the commands and options.";
        String[][] cases = {
            {"no command given"},
            {"unknown command 'show'", "show", file},
            {"report: no snapshot file given", "report"},
            {"flame writes an HTML page: name it with -o FILE.html", "flame", file},
            {"--top needs a positive whole number, not 'x'", "report", "--top", "x", file},
            {"unknown option '--fast'", "report", "--fast", file},
            {"--format must be text or json, not 'xml'", "report", "--format", "xml", file},
            {"--merged and --value belong to flame and collapsed", "report", "--merged", file},
        };
        for (String[] c : cases) {
            KjpReportTest.Run run = kjp(Arrays.copyOfRange(c, 1, c.length));
            assertEquals(2, run.status(), String.join(" ", c));
            assertEquals("kjp: " + c[0] + "\n" + hint + "\n", run.err());
        }
        KjpReportTest.Run help = kjp("--help");
        assertEquals(0, help.status());
        assertTrue(help.out().startsWith("Usage: kjp <command> [options] SNAPSHOT\n"), help.out());

        assertOneLineError(kjp("report", "--thread", "nobody", file), 1,
                "kjp: " + file + ": has no thread named 'nobody'");
    }
}
