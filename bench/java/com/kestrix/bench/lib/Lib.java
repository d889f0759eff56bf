package com.kestrix.bench.lib;

/** Stands for library code: the tracing benchmark lists this package as a method filter. */
public final class Lib {
    private Lib() {
    }

    static int tiny(int x) {
        return x * 31 + 7;
    }

    public static long loop(long calls) {
        int x = 1;
        for (long i = 0; i < calls; i++) {
            x = tiny(x);
        }
        return x;
    }
}
