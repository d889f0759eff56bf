package com.kestrix.bench;

/**
 * Exceptions thrown 20 frames below the method that catches them, a fixed number of times, on
 * one thread. Prints the wall time of the work alone, after a warm-up, and per exception:
 * "work wall_ms W ns_per_throw N". Argument: exceptions (default 1,000,000).
 */
public class DeepThrows {
    static final int DEPTH = 20;
    static volatile long ourSink;

    static int descend(int depth, int value) {
        if (depth == 0) {
            throw new IllegalStateException();
        }
        return descend(depth - 1, value + 1) + 1;
    }

    static long throwAndCatch(int count) {
        long caught = 0;
        for (int i = 0; i < count; i++) {
            try {
                ourSink += descend(DEPTH, i);
            } catch (IllegalStateException expected) {
                caught++;
            }
        }
        return caught;
    }

    public static void main(String[] args) {
        int count = args.length > 0 ? Integer.parseInt(args[0]) : 1_000_000;
        ourSink += throwAndCatch(Math.max(1, count / 10));
        long wall0 = System.nanoTime();
        long caught = throwAndCatch(count);
        long wall = System.nanoTime() - wall0;
        if (caught != count) {
            throw new AssertionError(caught + " caught of " + count);
        }
        System.out.println("work wall_ms " + wall / 1_000_000 + " ns_per_throw " + wall / count);
    }
}
