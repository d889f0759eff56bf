package com.kestrix.bench;

import java.lang.management.ManagementFactory;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Four threads taking one lock in turns, a fixed number of acquisitions in all, with a little
 * work inside and outside the lock so that most acquisitions find it held: "sync" uses a
 * synchronized block, "lock" a ReentrantLock. Prints the wall and process CPU time of the work
 * alone, after a warm-up: "work wall_ms W cpu_ms C". Arguments: sync|lock, acquisitions in all
 * (default 1,000,000).
 */
public class ContendedLock {
    static final int THREADS = 4;
    static final Object MONITOR = new Object();
    static final ReentrantLock LOCK = new ReentrantLock();
    static long ourShared;
    static volatile long ourSink;

    /** A quarter of a microsecond or so of arithmetic that the JIT can't fold away. */
    static long spin(long x) {
        for (int i = 0; i < 256; i++) {
            x = x * 6364136223846793005L + 1442695040888963407L;
        }
        return x;
    }

    static void synchronizedTurns(int turns, long seed) {
        long x = seed;
        for (int i = 0; i < turns; i++) {
            synchronized (MONITOR) {
                ourShared = spin(ourShared + x);
            }
            x = spin(x);
        }
        ourSink += x;
    }

    static void lockTurns(int turns, long seed) {
        long x = seed;
        for (int i = 0; i < turns; i++) {
            LOCK.lock();
            try {
                ourShared = spin(ourShared + x);
            } finally {
                LOCK.unlock();
            }
            x = spin(x);
        }
        ourSink += x;
    }

    static void round(boolean sync, int acquisitions) throws InterruptedException {
        final int turns = acquisitions / THREADS;
        final CountDownLatch start = new CountDownLatch(1);
        Thread[] threads = new Thread[THREADS];
        for (int t = 0; t < THREADS; t++) {
            final long seed = t + 1;
            threads[t] = new Thread(() -> {
                try {
                    start.await();
                } catch (InterruptedException e) {
                    return;
                }
                if (sync) {
                    synchronizedTurns(turns, seed);
                } else {
                    lockTurns(turns, seed);
                }
            }, "contender-" + t);
            threads[t].start();
        }
        start.countDown();
        for (Thread thread : threads) {
            thread.join();
        }
    }

    public static void main(String[] args) throws InterruptedException {
        boolean sync = args.length == 0 || args[0].equals("sync");
        int acquisitions = args.length > 1 ? Integer.parseInt(args[1]) : 1_000_000;
        com.sun.management.OperatingSystemMXBean os =
                (com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean();
        round(sync, acquisitions / 10);
        long cpu0 = os.getProcessCpuTime();
        long wall0 = System.nanoTime();
        round(sync, acquisitions);
        long wall = System.nanoTime() - wall0;
        long cpu = os.getProcessCpuTime() - cpu0;
        System.out.println("work wall_ms " + wall / 1_000_000 + " cpu_ms " + cpu / 1_000_000 + " sink "
                + ((ourSink ^ ourShared) & 1));
    }
}
