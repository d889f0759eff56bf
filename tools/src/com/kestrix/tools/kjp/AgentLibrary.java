package com.kestrix.tools.kjp;

import com.kestrix.Natives;
import java.io.File;
import java.nio.file.Path;
import java.nio.file.Paths;

/**
 * Finds and loads libkjpagent.so for the commands that use its natives: the file named by the
 * system property kjp.agent.library or the environment variable KJP_AGENT_LIBRARY, else the
 * library of the build that kjp-tools.jar belongs to (lib/ beside tools/), else the JVM's
 * library path.
 */
final class AgentLibrary {
    /** Raised with a sentence for the user when the library cannot be loaded. */
    static final class Missing extends Exception {
        private static final long serialVersionUID = 1L;

        Missing(String message) {
            super(message);
        }
    }

    private AgentLibrary() {
    }

    static void load() throws Missing {
        String explicit = System.getProperty(Natives.LIBRARY_PROPERTY);
        if (explicit == null || explicit.isEmpty()) {
            explicit = System.getenv("KJP_AGENT_LIBRARY");
        }
        if (explicit == null || explicit.isEmpty()) {
            Path beside = besideJar();
            if (beside != null) {
                explicit = beside.toString();
            }
        }
        if (explicit != null && !explicit.isEmpty()) {
            System.setProperty(Natives.LIBRARY_PROPERTY, explicit);
        }
        try {
            Natives.load();
        } catch (UnsatisfiedLinkError e) {
            throw new Missing("needs the agent library libkjpagent.so and cannot load it (" + e.getMessage()
                    + "); name it with KJP_AGENT_LIBRARY=/path/to/libkjpagent.so");
        }
    }

    private static Path besideJar() {
        try {
            Path jar = Paths.get(AgentLibrary.class.getProtectionDomain().getCodeSource().getLocation().toURI());
            Path dir = jar.getParent();
            for (Path candidate : new Path[] {dir.resolve("libkjpagent.so"), dir.resolveSibling("lib")
                    .resolve("libkjpagent.so")}) {
                if (new File(candidate.toString()).isFile()) {
                    return candidate;
                }
            }
        } catch (Exception e) {
            // no code source, or not a file: the library path is tried
        }
        return null;
    }
}
