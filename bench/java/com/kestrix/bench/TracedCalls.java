package com.kestrix.bench;

import com.kestrix.bench.lib.Lib;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;

/**
 * Calls a tiny method a given number of times, so that the cost of the tracing probes per call
 * can be read off against a run without the agent. Arguments: the kind of call, the number of
 * calls in millions per thread, and the number of threads (default 1):
 * "app" calls tiny() of this class from this class (an unfiltered call);
 * "filtered" has the library's loop call the library's tiny method (a filtered call inside a
 * filtered call); "bare" calls a tiny method that calls the floor library's clock-reading native
 * at its start and end, as hand-written probes that keep nothing would (run it without the agent). Prints "calls N threads T cpu_ns C wall_ns W": the CPU time of the calling
 * threads (their own clocks, summed) and the wall time of the whole work.
 *
 * With the system property "kjp.bench.floor" naming the floor library, each thread alternates
 * blocks of calls with blocks of as many clock-read pairs, and the line ends with
 * "floor_pairs P floor_ns F", the CPU time of the pairs; cpu_ns and wall_ns then still cover the
 * calls only, summed over their blocks.
 */
public class TracedCalls {
    static volatile long ourSink;
    // Blocks of calls and of clock reads alternate this many times when the floor is measured.
    static final int BLOCKS = 20;

    static int tiny(int x) {
        return x * 31 + 7;
    }

    static long appLoop(long calls) {
        int x = 1;
        for (long i = 0; i < calls; i++) {
            x = tiny(x);
        }
        return x;
    }

    static int bareTiny(int x) {
        ClockFloor.probe((short) 1, (short) 0);
        int result = x * 31 + 7;
        ClockFloor.probe((short) 1, (short) 0);
        return result;
    }

    static long bareLoop(long calls) {
        int x = 1;
        for (long i = 0; i < calls; i++) {
            x = bareTiny(x);
        }
        return x;
    }

    static long run(String kind, long calls) {
        switch (kind) {
            case "filtered":
                return Lib.loop(calls);
            case "bare":
                return bareLoop(calls);
            default:
                return appLoop(calls);
        }
    }

    public static void main(String[] args) throws InterruptedException {
        final String kind = args[0];
        final long calls = Long.parseLong(args[1]) * 1_000_000L;
        int threadCount = args.length > 2 ? Integer.parseInt(args[2]) : 1;
        final ThreadMXBean bean = ManagementFactory.getThreadMXBean();
        final boolean withFloor = ClockFloor.load();
        // Warm-up: the loops are compiled before anything is timed.
        for (int i = 0; i < 5; i++) {
            ourSink += run(kind, 200_000);
        }
        final long[] cpu = new long[threadCount];
        final long[] floor = new long[threadCount];
        final long[] wallOfCalls = new long[threadCount];
        Thread[] threads = new Thread[threadCount];
        for (int i = 0; i < threadCount; i++) {
            final int index = i;
            threads[i] = new Thread(() -> {
                int blocks = withFloor ? BLOCKS : 1;
                for (int b = 0; b < blocks; b++) {
                    long size = calls / blocks + (b < calls % blocks ? 1 : 0);
                    long wall0 = System.nanoTime();
                    long before = bean.getCurrentThreadCpuTime();
                    ourSink += run(kind, size);
                    long after = bean.getCurrentThreadCpuTime();
                    wallOfCalls[index] += System.nanoTime() - wall0;
                    cpu[index] += after - before;
                    if (withFloor) {
                        ClockFloor.readPairs(size);
                        floor[index] += bean.getCurrentThreadCpuTime() - after;
                    }
                }
            }, "caller-" + i);
        }
        long wall0 = System.nanoTime();
        for (Thread thread : threads) {
            thread.start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        long wall = System.nanoTime() - wall0;
        long cpuSum = 0;
        long floorSum = 0;
        long wallOfCallsMax = 0;
        for (int i = 0; i < threadCount; i++) {
            cpuSum += cpu[i];
            floorSum += floor[i];
            wallOfCallsMax = Math.max(wallOfCallsMax, wallOfCalls[i]);
        }
        System.out.println("calls " + calls * threadCount + " threads " + threadCount + " cpu_ns " + cpuSum + " wall_ns "
                + (withFloor ? wallOfCallsMax : wall) + " sink " + (ourSink & 1)
                + (withFloor ? " floor_pairs " + calls * threadCount + " floor_ns " + floorSum : ""));
    }
}
