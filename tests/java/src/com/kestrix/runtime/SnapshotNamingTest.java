package com.kestrix.runtime;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.text.SimpleDateFormat;
import java.util.Date;
import java.util.Locale;
import java.util.TimeZone;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class SnapshotNamingTest {
    @TempDir
    Path myDir;

    private static Date date(String text) throws Exception {
        SimpleDateFormat format = new SimpleDateFormat("yyyy-MM-dd HH:mm", Locale.US);
        format.setTimeZone(TimeZone.getDefault());
        return format.parse(text);
    }

    @Test
    void theDayIsTheCalendarsInEveryZoneAcrossLeapYearsAndCenturies() {
        TimeZone saved = TimeZone.getDefault();
        try {
            for (String zone : new String[] {"UTC", "Pacific/Kiritimati", "America/St_Johns", "Asia/Kathmandu"}) {
                TimeZone.setDefault(TimeZone.getTimeZone(zone));
                java.util.Random random = new java.util.Random(zone.hashCode());
                long[] instants = new long[2000];
                for (int i = 0; i < instants.length; i++) {
                    // From 1900 to 2200, and both sides of every midnight near the interesting days.
                    instants[i] = i < 1000 ? (long) ((random.nextDouble() * 300 - 70) * 365.2425 * 86400000L)
                            : java.time.LocalDate.of(1896 + (i - 1000) / 4 * 4 % 400, 2 + i % 2, 28 + i % 2)
                                    .atStartOfDay(java.time.ZoneId.of(zone)).toInstant().toEpochMilli() - 1 + i % 3;
                }
                for (long millis : instants) {
                    StringBuffer text = new StringBuffer();
                    Agent.appendLocalDate(text, millis);
                    // The zone's offset as the agent's JVM sees it (java.time and TimeZone part ways
                    // on local mean time before 1900); the calendar is java.time's.
                    long local = millis + TimeZone.getDefault().getOffset(millis);
                    String expected = java.time.Instant.ofEpochMilli(local).atZone(java.time.ZoneOffset.UTC)
                            .toLocalDate().toString();
                    assertEquals(expected, text.toString(), zone + " " + millis);
                }
            }
        } finally {
            TimeZone.setDefault(saved);
        }
    }

    private void touch(String name) throws IOException {
        Files.createFile(myDir.resolve(name));
    }

    @Test
    void baseNameIsSessionDateAndPostfix() throws Exception {
        Date date = date("2024-03-07 23:59");
        assertEquals("my_app_v2.1-2024-03-07-shutdown", Agent.makeSnapshotName("my app/v2.1", "shutdown", date));
        assertEquals("a_b_c_-2024-03-07", Agent.makeSnapshotName("a\\b:c\t", null, date));
        assertEquals("2024-03-07-periodic", Agent.makeSnapshotName("", "periodic", date));
        assertEquals("2024-03-07", Agent.makeSnapshotName(null, "", date));
        // Letters and digits of any script stay whole.
        assertEquals("M\u00fcller_\u65e5\u672c-2024-03-07-low-memory",
                Agent.makeSnapshotName("M\u00fcller \u65e5\u672c", "low-memory", date));
    }

    @Test
    void sessionNamePartKeepsOnlyLettersDigitsAndDots() {
        // Symbols and punctuation beyond ASCII are "other characters" too.
        assertEquals("A_B_C_D", Agent.sessionNameToFileNamePart("A\u20acB\u2014C\u3000D"));
        assertEquals("__x.y_", Agent.sessionNameToFileNamePart("-(x.y)"));
        assertEquals("\u0661\u0662__", Agent.sessionNameToFileNamePart("\u0661\u0662\u00b2\u00bd"),
                "Arabic-Indic digits stay; a superscript or a fraction is no digit");
        // A character beyond the BMP is one character: a letter stays, a symbol is one "_".
        assertEquals("\ud835\udc9c_z", Agent.sessionNameToFileNamePart("\ud835\udc9c\ud83d\ude00z"));
    }

    @Test
    void numbersFollowTheHighestInUseAndNeverFillGaps() throws IOException {
        File dir = myDir.toFile();
        assertEquals(new File(dir, "s.snapshot"), Agent.suggestSnapshotFile(dir, "s", ".snapshot"));

        touch("s.snapshot");
        assertEquals(new File(dir, "s(1).snapshot"), Agent.suggestSnapshotFile(dir, "s", ".snapshot"));

        touch("s(7).snapshot");
        assertEquals(new File(dir, "s(8).snapshot"), Agent.suggestSnapshotFile(dir, "s", ".snapshot"));

        // Not ours: letters in the parentheses, other extensions, other names, empty parentheses.
        touch("s(abc).snapshot");
        touch("s(99).hprof");
        touch("s(12x).snapshot");
        touch("s().snapshot");
        touch("st(50).snapshot");
        touch("s(-20).snapshot");
        touch("s(1234567890).snapshot");
        assertEquals(new File(dir, "s(8).snapshot"), Agent.suggestSnapshotFile(dir, "s", ".snapshot"));
        assertEquals(new File(dir, "s(100).hprof"), Agent.suggestSnapshotFile(dir, "s", ".hprof"));

        // A numbered file alone still counts; the plain name is number 0.
        assertEquals(new File(dir, "st(51).snapshot"), Agent.suggestSnapshotFile(dir, "st", ".snapshot"));
    }

    @Test
    void fullSuggestionUsesTodayAndRefusesAFile() throws IOException {
        File dir = myDir.toFile();
        String today = new SimpleDateFormat("yyyy-MM-dd", Locale.US).format(new Date());
        File first = Agent.suggestSnapshotFile(dir, "Main", "shutdown", ".snapshot");
        assertEquals(new File(dir, "Main-" + today + "-shutdown.snapshot"), first);
        Files.createFile(first.toPath());
        assertEquals(new File(dir, "Main-" + today + "-shutdown(1).snapshot"),
                Agent.suggestSnapshotFile(dir, "Main", "shutdown", ".snapshot"));

        File plainFile = Files.createFile(myDir.resolve("not-a-dir")).toFile();
        assertThrows(IllegalArgumentException.class,
                () -> Agent.suggestSnapshotFile(plainFile, "Main", null, ".snapshot"));
    }
}
