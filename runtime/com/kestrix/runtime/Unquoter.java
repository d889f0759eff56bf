package com.kestrix.runtime;

import com.kestrix.util.Strings;

/**
 * Option values that may hold any text (commas, non-ASCII) travel through the comma-separated
 * option string as "KJPQUOTED" followed by their UTF-8 bytes in hexadecimal.
 */
public final class Unquoter {
    public static final String PREFIX = "KJPQUOTED";

    private Unquoter() {
    }

    /** The text a quoted value stands for; any other value, or a malformed one, as it is. */
    public static String unquote(String value) {
        if (value == null || !value.startsWith(PREFIX)) {
            return value;
        }
        int start = PREFIX.length();
        int digits = value.length() - start;
        if (digits % 2 != 0) {
            return value;
        }
        byte[] bytes = new byte[digits / 2];
        for (int i = 0; i < bytes.length; i++) {
            int high = Character.digit(value.charAt(start + 2 * i), 16);
            int low = Character.digit(value.charAt(start + 2 * i + 1), 16);
            if (high < 0 || low < 0 || !isAsciiHex(value.charAt(start + 2 * i))
                    || !isAsciiHex(value.charAt(start + 2 * i + 1))) {
                return value;
            }
            bytes[i] = (byte) ((high << 4) | low);
        }
        return Strings.fromUTF8(bytes, 0, bytes.length);
    }

    // Character.digit also accepts full-width and other Unicode digits; the quoting never makes those.
    private static boolean isAsciiHex(char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    }
}
