package com.kestrix.programs;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.util.ArrayList;
import java.util.List;

/**
 * A program that waits to be driven, for tests that work on a running agent. It reads commands
 * from standard input, one a line, and answers each with "done <command>" on standard output:
 * "burn MS" spends MS milliseconds of CPU time in HotLoop.burn(), called from
 * HotLoop.Burner.run() on a thread named "hot"; "grow PERCENT" keeps allocating until the used
 * heap reaches PERCENT of the maximum and holds on to it; "allocate N B" makes N small objects and
 * B arrays of 2 MiB through Allocations.allocateAll; "exit" or the end of input ends the program.
 */
public class Remote {
    static final List<byte[]> ourHeld = new ArrayList<byte[]>();

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
        AgentStart.awaitListening();
        System.out.println("ready");
        System.out.flush();
        String line;
        while ((line = in.readLine()) != null) {
            String[] words = line.trim().split(" ");
            if (words[0].equals("exit")) {
                break;
            } else if (words[0].equals("burn")) {
                HotLoop.Burner burner = new HotLoop.Burner(Long.parseLong(words[1]));
                burner.start();
                burner.join();
            } else if (words[0].equals("grow")) {
                grow(Integer.parseInt(words[1]));
            } else if (words[0].equals("allocate")) {
                Allocations.prepare(Integer.parseInt(words[1]), Integer.parseInt(words[2]));
                Allocations.allocateAll(Integer.parseInt(words[1]), Integer.parseInt(words[2]));
            } else if (words[0].equals("gc")) {
                System.gc();
            }
            System.out.println("done " + line.trim());
            System.out.flush();
        }
    }
}
