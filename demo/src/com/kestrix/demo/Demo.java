package com.kestrix.demo;

import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;

/**
 * A small application to profile: two worker threads with different hot spots (prime
 * sieving, and text statistics over generated words) and a main thread that waits for them.
 * It runs for about the number of seconds given as its argument (default 3).
 */
public final class Demo {
    private Demo() {
    }

    public static void main(String[] args) throws InterruptedException {
        final long seconds = args.length > 0 ? Long.parseLong(args[0]) : 3;
        final long deadline = System.nanoTime() + seconds * 1_000_000_000L;

        final long[] primeCount = new long[1];
        Thread primes = new Thread(() -> {
            while (System.nanoTime() < deadline) {
                primeCount[0] += countPrimes(200_000);
            }
        }, "primes");

        final Map<String, Integer> histogram = new HashMap<>();
        Thread words = new Thread(() -> {
            Random random = new Random(42);
            while (System.nanoTime() < deadline) {
                for (String word : makeWords(random, 20_000)) {
                    histogram.merge(word, 1, Integer::sum);
                }
            }
        }, "words");

        primes.start();
        words.start();
        primes.join();
        words.join();

        String mostCommon = null;
        int best = -1;
        for (Map.Entry<String, Integer> e : histogram.entrySet()) {
            if (e.getValue() > best) {
                best = e.getValue();
                mostCommon = e.getKey();
            }
        }
        System.out.println("primes counted: " + primeCount[0] + ", distinct words: " + histogram.size()
                + ", most common: " + mostCommon + " (" + best + ")");
    }

    static int countPrimes(int limit) {
        boolean[] composite = new boolean[limit + 1];
        int count = 0;
        for (int i = 2; i <= limit; i++) {
            if (!composite[i]) {
                count++;
                for (long j = (long) i * i; j <= limit; j += i) {
                    composite[(int) j] = true;
                }
            }
        }
        return count;
    }

    static List<String> makeWords(Random random, int count) {
        List<String> result = new ArrayList<>(count);
        StringBuilder builder = new StringBuilder();
        for (int i = 0; i < count; i++) {
            builder.setLength(0);
            int length = 2 + random.nextInt(3);
            for (int k = 0; k < length; k++) {
                builder.append((char) ('a' + random.nextInt(6)));
            }
            result.add(builder.toString());
        }
        return result;
    }
}
