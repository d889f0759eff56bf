package com.kestrix.bench;

import java.lang.management.ManagementFactory;

/**
 * A CPU-bound program of two threads, each running a fixed amount of arithmetic a few calls
 * deep. Prints the wall and process CPU time of the work alone, so that JVM start-up and the
 * agent's class rewriting at start-up stay out of the figures:
 * "work wall_ms W cpu_ms C". Argument: millions of rounds per thread (default 8000, about
 * 10 s on the reference machine).
 */
public class TwoThreadBurn {
    static volatile long ourSink;

    static long mix(long x, long rounds) {
        for (long i = 0; i < rounds; i++) {
            x = x * 6364136223846793005L + 1442695040888963407L;
        }
        return x;
    }

    static long level3(long x, long rounds) {
        return mix(x, rounds);
    }

    static long level2(long x, long rounds) {
        return level3(x, rounds) ^ 7;
    }

    static long level1(long seed, long millions) {
        long x = seed;
        for (long m = 0; m < millions; m++) {
            x = level2(x, 1_000_000L);
        }
        return x;
    }

    public static void main(String[] args) throws InterruptedException {
        final long millions = args.length > 0 ? Long.parseLong(args[0]) : 8000;
        com.sun.management.OperatingSystemMXBean os =
                (com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean();
        // A short warm-up lets the JIT finish before the clock starts.
        ourSink += level1(1, 200);
        Thread[] threads = new Thread[2];
        for (int i = 0; i < threads.length; i++) {
            final int seed = i + 3;
            threads[i] = new Thread(() -> ourSink += level1(seed, millions), "burn-" + i);
        }
        long cpu0 = os.getProcessCpuTime();
        long wall0 = System.nanoTime();
        for (Thread thread : threads) {
            thread.start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        long wall = System.nanoTime() - wall0;
        long cpu = os.getProcessCpuTime() - cpu0;
        System.out.println("work wall_ms " + wall / 1_000_000 + " cpu_ms " + cpu / 1_000_000 + " sink " + (ourSink & 1));
    }
}
