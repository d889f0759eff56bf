package com.kestrix.bench;

import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.util.zip.CRC32;

/**
 * CPU shares known in advance, to check what a CPU sampler makes of them. Each variant runs in a
 * thread of its own name and alternates two methods, measuring each call with the thread's own
 * CPU clock: measured() does the variant's kind of work, reference() a plain loop with a long
 * counter that the JVM keeps safepoint checks in. The variants:
 *
 * <ul>
 * <li>counted: a counted int loop without calls, which compiled code runs without checks;</li>
 * <li>calls: a loop of calls to a tiny method (run with it kept out of line);</li>
 * <li>intrinsic: CRC32 and square roots, which the JVM replaces by hand-written code;</li>
 * <li>arraycopy: a loop around System.arraycopy of a large array.</li>
 * </ul>
 *
 * For each variant it prints "truth VARIANT MEASURED_NS REFERENCE_NS", and at the end "work
 * WALL_MS CPU_MS": the work phase's wall time and process CPU time.
 *
 * usage: KnownShares MS_PER_VARIANT [VARIANT...]
 */
public class KnownShares {
    static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();
    static volatile long ourSink;
    static final int[] SOURCE = new int[1 << 20];
    static final int[] TARGET = new int[1 << 20];
    static final byte[] BYTES = new byte[1 << 16];

    public static void main(String[] args) throws Exception {
        long millis = Long.parseLong(args[0]);
        String[] variants = args.length > 1 ? java.util.Arrays.copyOfRange(args, 1, args.length)
                : new String[] {"counted", "calls", "intrinsic", "arraycopy"};
        // Compile everything before the measured phase, so that each variant runs compiled code.
        for (String variant : variants) {
            runVariant(variant, 300, false);
        }
        long wallStart = System.nanoTime();
        long cpuStart = processCpuNs();
        for (String variant : variants) {
            runVariant(variant, millis, true);
        }
        long cpu = processCpuNs() - cpuStart;
        long wall = System.nanoTime() - wallStart;
        System.out.println("work " + wall / 1_000_000 + " " + cpu / 1_000_000);
    }

    static long processCpuNs() {
        return ((com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean())
                .getProcessCpuTime();
    }

    static void runVariant(String variant, long millis, boolean print) throws InterruptedException {
        long[] truth = new long[2];
        Thread thread = new Thread(() -> alternate(variant, millis * 1_000_000L, truth), print ? variant : "warm-up");
        thread.start();
        thread.join();
        if (print) {
            System.out.println("truth " + variant + " " + truth[0] + " " + truth[1]);
        }
    }

    /** Calls measured() and reference() by turns until the thread has burnt 'nanos' of CPU time. */
    static void alternate(String variant, long nanos, long[] truth) {
        long start = THREADS.getCurrentThreadCpuTime();
        long x = 1;
        while (THREADS.getCurrentThreadCpuTime() - start < nanos) {
            long before = THREADS.getCurrentThreadCpuTime();
            x += measured(variant, x);
            long middle = THREADS.getCurrentThreadCpuTime();
            x += reference(x);
            long after = THREADS.getCurrentThreadCpuTime();
            truth[0] += middle - before;
            truth[1] += after - middle;
        }
        ourSink += x;
    }

    static long measured(String variant, long seed) {
        switch (variant) {
            case "counted":
                return counted((int) seed);
            case "calls":
                return calls(seed);
            case "intrinsic":
                return intrinsic(seed);
            case "arraycopy":
                return arraycopy(seed);
            default:
                throw new IllegalArgumentException(variant);
        }
    }

    static long counted(int seed) {
        int x = seed;
        for (int i = 0; i < 1_500_000; i++) {
            x = x * 1103515245 + 12345 + i;
        }
        return x;
    }

    static long calls(long seed) {
        long x = seed;
        for (int i = 0; i < 1_600_000; i++) {
            x = tiny(x, i);
        }
        return x;
    }

    static long tiny(long x, int i) {
        return x * 6364136223846793005L + i;
    }

    static long intrinsic(long seed) {
        CRC32 crc = new CRC32();
        BYTES[(int) (seed & 0xffff)] ^= 1;
        double d = 0;
        for (int i = 0; i < 1_600; i++) {
            crc.update(BYTES, 0, BYTES.length);
            d += Math.sqrt(i + (double) crc.getValue());
        }
        return crc.getValue() + (long) d;
    }

    static long arraycopy(long seed) {
        long x = seed;
        for (int i = 0; i < 24; i++) {
            System.arraycopy(SOURCE, 0, TARGET, 0, SOURCE.length);
            x += TARGET[(int) (x & 0xfffff)];
        }
        return x;
    }

    static long reference(long seed) {
        long x = seed;
        for (long i = 0; i < 2_000_000L; i++) {
            x = x * 6364136223846793005L + 1442695040888963407L;
        }
        return x;
    }
}
