package com.kestrix.util;

/** Checks of conditions that only a programming error breaks. */
public final class Asserts {
    private Asserts() {
    }

    public static void notNull(Object value) {
        if (value == null) {
            throw new IllegalArgumentException("value cannot be null");
        }
    }

    public static void isNull(Object value) {
        if (value != null) {
            throw new IllegalArgumentException("value should be null");
        }
    }

    public static void assertTrue(boolean condition) {
        if (!condition) {
            throw new IllegalStateException("assertion failed");
        }
    }

    public static void assertFalse(boolean condition) {
        if (condition) {
            throw new IllegalStateException("assertion failed");
        }
    }

    public static void arrayFilled(Object[] array) {
        notNull(array);
        for (int index = 0; index < array.length; index++) {
            if (array[index] == null) {
                throw new IllegalArgumentException("array contains null at " + index + "; length=" + array.length);
            }
        }
    }
}
