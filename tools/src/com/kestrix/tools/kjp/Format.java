package com.kestrix.tools.kjp;

import java.time.Instant;
import java.time.ZoneId;
import java.time.format.DateTimeFormatter;
import java.util.Locale;

/** Numbers and times as the reports print them. */
final class Format {
    private Format() {
    }

    /** Nanoseconds as milliseconds with one decimal and grouped thousands: "1,234.5 ms". */
    static String millis(long ns) {
        return String.format(Locale.ROOT, "%,.1f ms", ns / 1e6);
    }

    /** A share of a whole with one decimal: "12.5%"; "-" for a whole of 0. */
    static String percent(long part, long whole) {
        if (whole <= 0) {
            return "-";
        }
        return String.format(Locale.ROOT, "%.1f%%", 100.0 * part / whole);
    }

    static String count(long value) {
        return String.format(Locale.ROOT, "%,d", value);
    }

    static String dateTime(Instant instant, ZoneId zone) {
        return DateTimeFormatter.ofPattern("yyyy-MM-dd HH:mm:ss zzz", Locale.ROOT).withZone(zone).format(instant);
    }

    static String padLeft(String text, int width) {
        return text.length() >= width ? text : " ".repeat(width - text.length()) + text;
    }

    static String padRight(String text, int width) {
        return text.length() >= width ? text : text + " ".repeat(width - text.length());
    }
}
