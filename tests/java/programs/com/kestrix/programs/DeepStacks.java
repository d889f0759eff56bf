package com.kestrix.programs;

import java.io.BufferedReader;
import java.io.InputStreamReader;

/**
 * A thread that is deep in a known recursion before anything is profiled, for tests that start
 * tracing while it is there. Thread "deep" runs run() > descend() x DEPTH > bottom(), and bottom()
 * calls step() in a loop; once it has arrived it prints "deep ready". A line "exit" on standard
 * input (or its end) lets the thread climb back out; the program then prints "deep done" with
 * the number of steps taken.
 */
public class DeepStacks {
    static final int DEPTH = 20;
    static volatile boolean ourStop;
    static volatile long ourSink;
    static long ourSteps;

    static final class Deep extends Thread {
        Deep() {
            super("deep");
        }

        @Override
        public void run() {
            descend(DEPTH);
        }
    }

    static void descend(int depth) {
        if (depth > 1) {
            descend(depth - 1);
        } else {
            bottom();
        }
    }

    static void bottom() {
        System.out.println("deep ready");
        System.out.flush();
        while (!ourStop) {
            step();
        }
    }

    static void step() {
        long x = ourSink;
        for (int i = 0; i < 200; i++) {
            x = x * 6364136223846793005L + 1442695040888963407L;
        }
        ourSink = x;
        ourSteps++;
    }

    public static void main(String[] args) throws Exception {
        Deep deep = new Deep();
        deep.start();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, "UTF-8"));
        String line;
        while ((line = in.readLine()) != null && !line.equals("exit")) {
            // Only "exit" means anything.
        }
        ourStop = true;
        deep.join();
        System.out.println("deep done " + ourSteps);
    }
}
