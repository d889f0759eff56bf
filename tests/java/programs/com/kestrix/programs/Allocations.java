package com.kestrix.programs;

/**
 * Allocates a known number of objects at known call paths, then ends: args[0] small objects of
 * Blob in makeBlobs (called from main through allocateAll), args[1] byte arrays of 2 MiB in
 * makeBigArrays, and the names of the working directory's files in listDirectory, which native
 * code makes. Everything it makes stays reachable until the end, so that a heap dump at exit
 * holds it all. Prints "done" when finished.
 */
public class Allocations {
    /** The small object whose allocations are counted. */
    public static final class Blob {
        int value;

        Blob(int value) {
            this.value = value;
        }
    }

    static Blob[] ourBlobs;
    static byte[][] ourBigArrays;

    public static void main(String[] args) {
        int blobs = Integer.parseInt(args[0]);
        int bigArrays = Integer.parseInt(args[1]);
        prepare(blobs, bigArrays);
        allocateAll(blobs, bigArrays);
        System.out.println("done");
    }

    /** Makes room for what allocateAll makes, and loads what it needs. */
    public static void prepare(int blobs, int bigArrays) {
        ourBlobs = new Blob[blobs];
        ourBigArrays = new byte[bigArrays][];
        // Loads and links Blob before counting starts: class loading allocates on its own.
        warmUp();
    }

    static void warmUp() {
        new Blob(-1).value++;
    }

    public static void allocateAll(int blobs, int bigArrays) {
        makeBlobs(blobs);
        makeBigArrays(bigArrays);
        listDirectory();
    }

    // The JDK's native code makes the array and its strings through JNI.
    static void listDirectory() {
        String[] names = new java.io.File(".").list();
        if (names == null) {
            throw new IllegalStateException("cannot list the working directory");
        }
    }

    // The loop allocates nothing but the Blobs, so that every N-th allocation of the process
    // falls in here exactly N times as often as not.
    static void makeBlobs(int count) {
        Blob[] blobs = ourBlobs;
        for (int i = 0; i < count; i++) {
            blobs[i] = new Blob(i);
        }
    }

    static void makeBigArrays(int count) {
        byte[][] arrays = ourBigArrays;
        for (int i = 0; i < count; i++) {
            arrays[i] = new byte[2 * 1024 * 1024];
        }
    }
}
