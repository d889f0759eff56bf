package com.kestrix.kjp;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.concurrent.TimeUnit;

/**
 * The snapshot of a profile with known figures, written by the agent's own snapshot code: the
 * unit test that checks the file layout byte by byte writes it where KJP_WRITE_KNOWN_PROFILE_TO
 * says. Two threads of a small application: main runs main, which calls compute (which calls
 * Math.sqrt and helper) and helper; worker-1 runs Worker.run, which calls compute and so sqrt.
 */
final class KnownProfile {
    private static Path ourFile;

    private KnownProfile() {
    }

    static synchronized Path file() throws IOException, InterruptedException {
        if (ourFile != null) {
            return ourFile;
        }
        String explicit = System.getProperty("kjp.unit.tests");
        Path unitTests = explicit != null ? Paths.get(explicit)
                : Paths.get(System.getProperty("kjp.build.dir", "build"), "tests", "kjp_unit_tests");
        if (!Files.isExecutable(unitTests)) {
            throw new IllegalStateException("the unit test binary is missing: " + unitTests
                    + " (build the kjp_unit_tests target, or name it with -Dkjp.unit.tests)");
        }
        Path file = Files.createTempFile("kjp-known-", ".snapshot");
        file.toFile().deleteOnExit();
        ProcessBuilder builder = new ProcessBuilder(unitTests.toString(),
                "--gtest_filter=SnapshotFileTest.FileIsTheHeaderThenEveryTableButTheAllocatorsWithMarkers");
        builder.environment().put("KJP_WRITE_KNOWN_PROFILE_TO", file.toString());
        builder.redirectErrorStream(true);
        Path log = Files.createTempFile("kjp-known-", ".log");
        builder.redirectOutput(log.toFile());
        Process process = builder.start();
        if (!process.waitFor(120, TimeUnit.SECONDS) || process.exitValue() != 0 || Files.size(file) == 0) {
            process.destroyForcibly();
            throw new IllegalStateException("writing the known profile failed:\n" + Files.readString(log));
        }
        Files.delete(log);
        ourFile = file;
        return file;
    }
}
