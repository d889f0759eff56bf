package com.kestrix.programs;

import java.util.ArrayList;
import java.util.List;

/**
 * Starts and ends 200 threads, in batches of 20 running side by side; some rename themselves
 * while they run. Prints how many ended and what they computed, so a caller sees that every
 * thread did its work.
 */
public class ManyThreads {
    private static final int THREADS = 200;
    private static final int BATCH = 20;

    public static void main(String[] args) throws InterruptedException {
        long[] results = new long[THREADS];
        for (int start = 0; start < THREADS; start += BATCH) {
            List<Thread> batch = new ArrayList<>();
            for (int i = start; i < start + BATCH; i++) {
                final int index = i;
                Thread thread = new Thread(() -> {
                    if (index % 3 == 0) {
                        Thread.currentThread().setName("renamed-" + index);
                    }
                    long sum = 0;
                    for (int k = 0; k <= index * 100; k++) {
                        sum += k;
                    }
                    results[index] = sum;
                }, "worker-" + i);
                batch.add(thread);
                thread.start();
            }
            for (Thread thread : batch) {
                thread.join();
            }
        }
        long total = 0;
        for (long result : results) {
            total += result;
        }
        System.out.println("ended " + THREADS + " threads, total " + total);
    }
}
