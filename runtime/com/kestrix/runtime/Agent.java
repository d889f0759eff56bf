package com.kestrix.runtime;

import java.io.File;
import java.util.Date;
import java.util.TimeZone;

/** What this agent can do, and how its snapshot files are named. */
public final class Agent {
    public static final long CAPABILITY_CAN_RECORD_METHOD_INVOCATION_COUNTS = 64;
    public static final long CAPABILITY_CAN_CAPTURE_ON_USED_MEMORY_THRESHOLD = 128;
    public static final long CAPABILITY_CAN_RECORD_ALLOCATIONS = 256;
    public static final long CAPABILITY_CAN_CAPTURE_PERIODICALLY = 2048;
    public static final long CAPABILITY_CAN_RECORD_J2EE = 4096;
    public static final long CAPABILITY_CLR_2_0 = 32768;
    public static final long CAPABILITY_CLR_TRACING = 65536;

    // Names with more digits than this between the parentheses are not ours.
    private static final int MAX_NUMBER_DIGITS = 9;

    private Agent() {
    }

    /**
     * The file for a new snapshot in 'dir': "<session>-<yyyy-MM-dd>-<postfix>" plus a number
     * when that is taken. Session and postfix are left out, with their dashes, when empty.
     */
    public static File suggestSnapshotFile(File dir, String sessionName, String postfix, String extension) {
        if (!dir.isDirectory()) {
            throw new IllegalArgumentException("Not a directory: " + dir);
        }
        return suggestSnapshotFile(dir, makeSnapshotName(sessionName, postfix, new Date()), extension);
    }

    /** The base name of a snapshot taken at 'date', without number and extension. */
    public static String makeSnapshotName(String sessionName, String postfix, Date date) {
        StringBuffer name = new StringBuffer();
        if (sessionName != null && sessionName.length() > 0) {
            name.append(sessionNameToFileNamePart(sessionName)).append('-');
        }
        appendLocalDate(name, date.getTime());
        if (postfix != null && postfix.length() > 0) {
            name.append('-').append(postfix);
        }
        return name.toString();
    }

    /**
     * Appends the day of 'millis' in the default time zone as yyyy-MM-dd. Worked out by hand: the
     * date formats of the JDK load its locale providers, and a provider that first loads while the
     * application is out of heap stays broken for the rest of the JVM's life, exit snapshot and all.
     */
    static void appendLocalDate(StringBuffer text, long millis) {
        long local = millis + TimeZone.getDefault().getOffset(millis);
        long days = Math.floorDiv(local, 86400000L);
        // Days since 1970-01-01 to a proleptic Gregorian date, in eras of 400 years.
        long z = days + 719468;
        long era = Math.floorDiv(z, 146097);
        long dayOfEra = z - era * 146097;
        long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
        long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
        long shiftedMonth = (5 * dayOfYear + 2) / 153;
        long day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
        long month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
        long year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
        appendPadded(text, year, 4);
        text.append('-');
        appendPadded(text, month, 2);
        text.append('-');
        appendPadded(text, day, 2);
    }

    private static void appendPadded(StringBuffer text, long value, int width) {
        String digits = Long.toString(value);
        for (int i = digits.length(); i < width; i++) {
            text.append('0');
        }
        text.append(digits);
    }

    /**
     * The session name as part of a file name: letters and digits of any script, and ".", stay;
     * every other character, punctuation and symbols beyond ASCII included, becomes "_". A
     * character outside the BMP counts as one, not as its two halves.
     */
    public static String sessionNameToFileNamePart(String sessionName) {
        StringBuffer part = new StringBuffer(sessionName.length());
        for (int i = 0; i < sessionName.length();) {
            int c = sessionName.codePointAt(i);
            if (c == '.' || Character.isLetterOrDigit(c)) {
                part.appendCodePoint(c);
            } else {
                part.append('_');
            }
            i += Character.charCount(c);
        }
        return part.toString();
    }

    /**
     * The file for 'name' and 'extension' in 'dir'. When the directory can be listed, the number
     * is one above the highest in use ("name.ext" counts as 0), so numbers never fill gaps and
     * the newest file always sorts last; otherwise the first name that doesn't exist.
     */
    public static File suggestSnapshotFile(File dir, String name, String extension) {
        String[] names = dir.list();
        if (names == null) {
            for (int number = 0;; number++) {
                File candidate = new File(dir, numberedName(name, number, extension));
                if (!candidate.exists()) {
                    return candidate;
                }
            }
        }
        long highest = -1;
        for (int i = 0; i < names.length; i++) {
            long number = numberOf(names[i], name, extension);
            if (number > highest) {
                highest = number;
            }
        }
        return new File(dir, numberedName(name, highest + 1, extension));
    }

    private static String numberedName(String name, long number, String extension) {
        return number == 0 ? name + extension : name + "(" + number + ")" + extension;
    }

    // The number of 'fileName' as a variant of name + extension, or -1 if it isn't one.
    private static long numberOf(String fileName, String name, String extension) {
        if (fileName.equals(name + extension)) {
            return 0;
        }
        String prefix = name + "(";
        String suffix = ")" + extension;
        if (!fileName.startsWith(prefix) || !fileName.endsWith(suffix)
                || fileName.length() < prefix.length() + suffix.length() + 1) {
            return -1;
        }
        String digits = fileName.substring(prefix.length(), fileName.length() - suffix.length());
        if (digits.length() > MAX_NUMBER_DIGITS) {
            return -1;
        }
        long number = 0;
        for (int i = 0; i < digits.length(); i++) {
            char c = digits.charAt(i);
            if (c < '0' || c > '9') {
                return -1;
            }
            number = number * 10 + (c - '0');
        }
        return number;
    }
}
