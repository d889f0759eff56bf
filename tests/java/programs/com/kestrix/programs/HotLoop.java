package com.kestrix.programs;

/**
 * One thread, named "hot", that spends its CPU time in burn(), called from Burner.run(); main
 * only waits. Runs for the number of milliseconds of CPU time given as the argument (default 1500).
 */
public class HotLoop {
    static volatile long ourSink;

    static final class Burner extends Thread {
        private final long myMillis;

        Burner(long millis) {
            super("hot");
            myMillis = millis;
        }

        @Override
        public void run() {
            java.lang.management.ThreadMXBean bean = java.lang.management.ManagementFactory.getThreadMXBean();
            long end = bean.getCurrentThreadCpuTime() + myMillis * 1_000_000L;
            // The clock is a native call, and a sampler sees a thread in native code at once
            // while one in compiled code must first reach a safepoint: asking it seldom keeps
            // the samples where the time goes.
            while (bean.getCurrentThreadCpuTime() < end) {
                ourSink += burn(20_000_000);
            }
        }
    }

    static long burn(int rounds) {
        long x = 17;
        for (int i = 0; i < rounds; i++) {
            x = x * 6364136223846793005L + 1442695040888963407L;
        }
        return x;
    }

    public static void main(String[] args) throws InterruptedException {
        Burner burner = new Burner(args.length > 0 ? Long.parseLong(args[0]) : 1500);
        burner.start();
        burner.join();
        System.out.println("burnt " + (ourSink != 0));
    }
}
