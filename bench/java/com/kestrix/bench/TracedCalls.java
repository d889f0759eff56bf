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
 * filtered call). Prints "calls N threads T cpu_ns C wall_ns W": the CPU time of the calling
 * threads (their own clocks, summed) and the wall time of the whole work.
 */
public class TracedCalls {
    static volatile long ourSink;

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

    static long run(String kind, long calls) {
        return kind.equals("filtered") ? Lib.loop(calls) : appLoop(calls);
    }

    public static void main(String[] args) throws InterruptedException {
        final String kind = args[0];
        final long calls = Long.parseLong(args[1]) * 1_000_000L;
        int threadCount = args.length > 2 ? Integer.parseInt(args[2]) : 1;
        final ThreadMXBean bean = ManagementFactory.getThreadMXBean();
        // Warm-up: the loops are compiled before anything is timed.
        for (int i = 0; i < 5; i++) {
            ourSink += run(kind, 200_000);
        }
        final long[] cpu = new long[threadCount];
        Thread[] threads = new Thread[threadCount];
        for (int i = 0; i < threadCount; i++) {
            final int index = i;
            threads[i] = new Thread(() -> {
                long before = bean.getCurrentThreadCpuTime();
                ourSink += run(kind, calls);
                cpu[index] = bean.getCurrentThreadCpuTime() - before;
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
        for (long c : cpu) {
            cpuSum += c;
        }
        System.out.println("calls " + calls * threadCount + " threads " + threadCount + " cpu_ns " + cpuSum + " wall_ns "
                + wall + " sink " + (ourSink & 1));
    }
}
