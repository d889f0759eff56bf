package com.kestrix.programs.lib;

/**
 * A small "library" for the method filter tests: outer() calls inner(), which calls LibB.deep(),
 * which calls back into the application.
 */
public final class LibA {
    private LibA() {
    }

    public static void outer() {
        inner();
    }

    static void inner() {
        LibB.deep();
    }
}
