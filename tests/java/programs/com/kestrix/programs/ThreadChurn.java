package com.kestrix.programs;

import java.util.ArrayList;
import java.util.List;

/**
 * Keeps 64 threads starting, burning a little CPU and ending, for the given seconds (12 without
 * an argument), so that
 * per-thread profiling state is made and dropped all the time. Prints "ready" first and
 * "churned N threads" at the end.
 */
public class ThreadChurn {
    static final int LIVE = 64;
    static volatile long ourSink;

    public static void main(String[] args) throws InterruptedException {
        long seconds = args.length > 0 ? Long.parseLong(args[0]) : 12;
        long end = System.nanoTime() + seconds * 1_000_000_000L;
        System.out.println("ready");
        System.out.flush();
        int started = 0;
        List<Thread> live = new ArrayList<>();
        while (System.nanoTime() < end) {
            live.removeIf(t -> !t.isAlive());
            while (live.size() < LIVE) {
                final int rounds = 200_000 + (started % 7) * 100_000;
                Thread thread = new Thread(() -> {
                    long x = rounds;
                    for (int i = 0; i < rounds; i++) {
                        x = x * 6364136223846793005L + i;
                    }
                    ourSink += x;
                }, "churn-" + started);
                thread.start();
                live.add(thread);
                started++;
            }
            Thread.sleep(1);
        }
        for (Thread thread : live) {
            thread.join();
        }
        System.out.println("churned " + started + " threads");
    }
}
