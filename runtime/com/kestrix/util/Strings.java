package com.kestrix.util;

import java.io.UnsupportedEncodingException;

/** Text helpers that must behave the same on every JVM the runtime meets. */
public final class Strings {
    public static final String UTF8 = "utf-8";

    private Strings() {
    }

    public static byte[] getUTF8Bytes(String text) {
        try {
            return text.getBytes(UTF8);
        } catch (UnsupportedEncodingException e) {
            // Every JVM has UTF-8.
            throw new IllegalStateException(e.toString());
        }
    }

    public static String fromUTF8(byte[] bytes, int offset, int length) {
        try {
            return new String(bytes, offset, length, UTF8);
        } catch (UnsupportedEncodingException e) {
            throw new IllegalStateException(e.toString());
        }
    }

    public static boolean isEmpty(String text) {
        return text == null || text.length() == 0;
    }

    /** The items joined by the separator; null items as "null". */
    public static String join(Iterable<?> items, String separator) {
        StringBuffer buffer = new StringBuffer();
        boolean first = true;
        for (Object item : items) {
            if (!first) {
                buffer.append(separator);
            }
            buffer.append(item);
            first = false;
        }
        return buffer.toString();
    }

    /**
     * Compares two version texts as a person would: runs of digits by their value, anything
     * else character by character, so "1.5.0_05" is below "1.5.0_10", "17.0.15" is above
     * "1.6" and "R27.10" is above "R27.2". A version that is a prefix of the other is below it.
     */
    public static int compareVersions(String a, String b) {
        int i = 0;
        int j = 0;
        while (i < a.length() && j < b.length()) {
            char ca = a.charAt(i);
            char cb = b.charAt(j);
            if (isDigit(ca) && isDigit(cb)) {
                int endA = skipDigits(a, i);
                int endB = skipDigits(b, j);
                int result = compareNumbers(a.substring(i, endA), b.substring(j, endB));
                if (result != 0) {
                    return result;
                }
                i = endA;
                j = endB;
            } else {
                if (ca != cb) {
                    return ca < cb ? -1 : 1;
                }
                i++;
                j++;
            }
        }
        boolean restA = i < a.length();
        boolean restB = j < b.length();
        return restA == restB ? 0 : (restA ? 1 : -1);
    }

    private static boolean isDigit(char c) {
        return c >= '0' && c <= '9';
    }

    private static int skipDigits(String text, int index) {
        while (index < text.length() && isDigit(text.charAt(index))) {
            index++;
        }
        return index;
    }

    // Digit runs of any length, without overflow: leading zeros off, then longer is bigger.
    private static int compareNumbers(String a, String b) {
        a = stripLeadingZeros(a);
        b = stripLeadingZeros(b);
        if (a.length() != b.length()) {
            return a.length() < b.length() ? -1 : 1;
        }
        int result = a.compareTo(b);
        return result < 0 ? -1 : (result > 0 ? 1 : 0);
    }

    private static String stripLeadingZeros(String digits) {
        int index = 0;
        while (index < digits.length() - 1 && digits.charAt(index) == '0') {
            index++;
        }
        return digits.substring(index);
    }
}
