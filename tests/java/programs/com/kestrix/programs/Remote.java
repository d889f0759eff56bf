package com.kestrix.programs;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.util.ArrayList;
import java.util.List;

/**
 * A program that waits to be driven, for tests that work on a running agent. It reads commands
 * from standard input, one a line, and answers each with "done <command>" on standard output:
 * "burn MS" spends MS milliseconds of CPU time in burn(), called from Burner.run() on a thread
 * named "hot"; "grow PERCENT" keeps allocating until the used heap reaches PERCENT of the maximum
 * and holds on to it; "exit" or the end of input ends the program.
 */
public class Remote {
    static volatile long ourSink;
    static final List<byte[]> ourHeld = new ArrayList<byte[]>();

    static final class Burner extends Thread {
        private final long myMillis;

        Burner(long millis) {
            super("hot");
            myMillis = millis;
        }

        @Override
        public void run() {
            java.lang.management.ThreadMXBean bean = java.lang.management.ManagementFactory.getThreadMXBean();
            long end = bean.getCurrentThreadCpuTime() + myMillis * 1000000L;
            // The clock is a native call, and a sampler sees a thread in native code at once
            // while one in compiled code must first reach a safepoint: asking it seldom keeps
            // the samples where the time goes.
            while (bean.getCurrentThreadCpuTime() < end) {
                ourSink += burn(20000000);
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

    static void grow(int percent) throws InterruptedException {
        Runtime runtime = Runtime.getRuntime();
        long target = runtime.maxMemory() / 100 * percent;
        while (runtime.totalMemory() - runtime.freeMemory() < target) {
            ourHeld.add(new byte[256 * 1024]);
            if (ourHeld.size() % 16 == 0) {
                // Let the collector see the old generation grow, as a real program would.
                System.gc();
                Thread.sleep(5);
            }
        }
    }

    public static void main(String[] args) throws Exception {
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, "UTF-8"));
        System.out.println("ready");
        System.out.flush();
        String line;
        while ((line = in.readLine()) != null) {
            String[] words = line.trim().split(" ");
            if (words[0].equals("exit")) {
                break;
            } else if (words[0].equals("burn")) {
                Burner burner = new Burner(Long.parseLong(words[1]));
                burner.start();
                burner.join();
            } else if (words[0].equals("grow")) {
                grow(Integer.parseInt(words[1]));
            } else if (words[0].equals("gc")) {
                System.gc();
            }
            System.out.println("done " + line.trim());
            System.out.flush();
        }
    }
}
