package com.kestrix.bench;

import java.util.ArrayList;
import java.util.List;

/**
 * The workload of the soak run: 200 threads a second that each allocate, work a little, throw
 * and catch once, and end; a few long-lived lists that are replaced now and then, so that the
 * heap has both short- and long-lived objects. Runs for the given number of seconds.
 */
public class Soak {
    static volatile Object ourSink;

    static void shortLife(int seed) {
        List<String> strings = new ArrayList<String>();
        for (int i = 0; i < 100; i++) {
            strings.add("item " + seed + " " + i);
        }
        long sum = 0;
        for (int i = 0; i < 20_000; i++) {
            sum += (seed * 31L + i) % 7;
        }
        try {
            if (sum >= 0) {
                throw new IllegalStateException("soak " + seed);
            }
        } catch (IllegalStateException expected) {
            ourSink = strings;
        }
    }

    public static void main(String[] args) throws Exception {
        long seconds = Long.parseLong(args[0]);
        long end = System.nanoTime() + seconds * 1_000_000_000L;
        List<List<byte[]>> kept = new ArrayList<List<byte[]>>();
        int round = 0;
        while (System.nanoTime() < end) {
            long start = System.nanoTime();
            List<Thread> threads = new ArrayList<Thread>();
            for (int i = 0; i < 200; i++) {
                final int seed = round * 200 + i;
                Thread thread = new Thread(() -> shortLife(seed), "soak-" + (seed % 1000));
                thread.start();
                threads.add(thread);
            }
            for (Thread thread : threads) {
                thread.join();
            }
            List<byte[]> block = new ArrayList<byte[]>();
            for (int i = 0; i < 64; i++) {
                block.add(new byte[1024]);
            }
            kept.add(block);
            if (kept.size() > 100) {
                kept.remove(0);
            }
            round++;
            long rest = 1000 - (System.nanoTime() - start) / 1_000_000;
            if (rest > 0) {
                Thread.sleep(rest);
            }
        }
        System.out.println("soak done after " + round + " rounds");
    }
}
