package com.kestrix;

import java.io.File;

/**
 * The UI-side entry to the agent library. The profiler UI loads libkjpagent.so into its own
 * process for the natives that hold a snapshot's tables and object graph; this class is where
 * those natives are declared.
 */
public final class Natives {
    /** System property naming the agent library file; when absent, java.library.path is searched. */
    public static final String LIBRARY_PROPERTY = "kjp.agent.library";

    private static boolean ourLoaded;

    private Natives() {
    }

    /**
     * Loads the agent library once. The file named by {@link #LIBRARY_PROPERTY} wins over the
     * library path, so that tools and tests can point at a build directory.
     */
    public static synchronized void load() {
        if (ourLoaded) {
            return;
        }
        String explicit = System.getProperty(LIBRARY_PROPERTY);
        if (explicit != null && !explicit.isEmpty()) {
            File file = new File(explicit);
            if (!file.isFile()) {
                throw new UnsatisfiedLinkError("Kestrix agent library not found: " + file.getAbsolutePath());
            }
            System.load(file.getAbsolutePath());
        } else {
            System.loadLibrary("kjpagent");
        }
        ourLoaded = true;
    }
}
