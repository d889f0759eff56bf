package com.kestrix.programs;

import java.util.ArrayList;
import java.util.List;

/**
 * Runs out of heap once, recovers, then lingers for the number of milliseconds given (default
 * 4500), long enough for the agent to notice the heap dump the JVM writes on the error.
 */
public class OutOfMemory {
    public static void main(String[] args) throws InterruptedException {
        List<byte[]> hoard = new ArrayList<>();
        try {
            while (true) {
                hoard.add(new byte[1 << 20]);
            }
        } catch (OutOfMemoryError expected) {
            hoard = null;
        }
        System.out.println("recovered " + (hoard == null));
        Thread.sleep(args.length > 0 ? Long.parseLong(args[0]) : 4500);
    }
}
