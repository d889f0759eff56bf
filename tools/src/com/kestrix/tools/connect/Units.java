package com.kestrix.tools.connect;

import java.util.Locale;

/** Sizes and durations as the connect commands print them. */
final class Units {
    private Units() {
    }

    static String megabytes(long bytes) {
        return String.format(Locale.ROOT, "%,.1f MB", bytes / (1024.0 * 1024.0));
    }

    static String megabytesFromKb(long kb) {
        return megabytes(kb * 1024);
    }

    static String seconds(long millis) {
        return String.format(Locale.ROOT, "%,.1f s", millis / 1000.0);
    }
}
