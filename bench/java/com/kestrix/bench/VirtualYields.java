package com.kestrix.bench;

/**
 * Four virtual threads that do nothing but yield, so every step is an unmount and a mount.
 * Prints "yield <ns>" per yield, the best of three rounds, in wall time. Needs Java 21.
 */
public final class VirtualYields {
    private VirtualYields() {
    }

    public static void main(String[] args) throws Exception {
        final int yields = Integer.parseInt(args[0]);
        double best = Double.MAX_VALUE;
        for (int round = 0; round < 3; round++) {
            long start = System.nanoTime();
            Thread[] threads = new Thread[4];
            for (int t = 0; t < threads.length; t++) {
                threads[t] = Thread.ofVirtual().start(() -> {
                    for (int i = 0; i < yields; i++) {
                        Thread.yield();
                    }
                });
            }
            for (Thread thread : threads) {
                thread.join();
            }
            best = Math.min(best, (System.nanoTime() - start) / (double) (threads.length * (long) yields));
        }
        System.out.printf("yield %.1f%n", best);
    }
}
