package com.kestrix.cpu;

import static com.kestrix.cpu.CpuProfile.program;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.test.Jvm;
import com.kestrix.test.KjpRunner;
import com.kestrix.test.LiveAgent;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.stream.Stream;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** CPU sampling by per-thread CPU timers in real JVMs, read back from snapshots. */
class AsyncSampledCpuTest {
    static List<Path> jdks() {
        return Jvm.jdks();
    }

    // Each JDK with the perf task clocks (POSIX timers where the kernel refuses those) and with
    // POSIX CPU timers.
    static List<Arguments> jdksAndTimers() {
        List<Arguments> result = new ArrayList<>();
        for (Path jdk : Jvm.jdks()) {
            result.add(Arguments.of(jdk, "asyncsampling"));
            result.add(Arguments.of(jdk, "asyncsampling,asynctimer=posix"));
        }
        return result;
    }

    @ParameterizedTest
    @MethodSource("jdksAndTimers")
    void hotMethodsKeepTheirThreadsAndTheSampledTreeHasTheSafepointSamplersShape(Path jdk, String options,
            @TempDir Path dir) throws Exception {
        Path async = Files.createDirectory(dir.resolve("async"));
        CpuProfile profile = CpuProfile.record(jdk, async, options, "apart:800", "spin:1500");

        String alpha = program("alphaWork");
        String beta = program("betaWork");
        long alphaTime = profile.timeEndingWith("alpha", alpha);
        long betaTime = profile.timeEndingWith("beta", beta);
        assertTrue(alphaTime > 600_000_000L && alphaTime < 1_000_000_000L, profile.dump("alpha"));
        assertTrue(betaTime > 600_000_000L && betaTime < 1_000_000_000L, profile.dump("beta"));
        assertTrue(profile.through("alpha", beta).isEmpty(), profile.dump("alpha"));
        assertTrue(profile.through("beta", alpha).isEmpty(), profile.dump("beta"));

        // Each timer expiry stands for 20 ms of the thread's CPU: the samples add up to what the
        // spinner measured, within a period at each end of the call and the 10% the safepoint
        // sampler is held to.
        long measured = profile.printed("spinner cpu ns");
        long sampled = profile.timeEndingWith("spinner", program("spinFor"));
        assertTrue(Math.abs(sampled - measured) <= measured / 10 + 40_000_000L,
                "sampled " + sampled + " ns against " + measured + " ns measured\n" + profile.dump("spinner"));

        // The same program under the safepoint sampler has its hot methods on the same paths.
        Path safepoint = Files.createDirectory(dir.resolve("safepoint"));
        CpuProfile reference = CpuProfile.record(jdk, safepoint, "sampling", "apart:800", "spin:1500");
        for (String[] hot : new String[][] {{"alpha", alpha}, {"beta", beta}, {"spinner", program("spinFor")}}) {
            assertEquals(paths(reference, hot[0], hot[1]), paths(profile, hot[0], hot[1]),
                    profile.dump(hot[0]) + "\n" + reference.dump(hot[0]));
        }

        String report = KjpRunner.succeed("report", "--thread", "alpha", profile.file.toString());
        assertTrue(report.contains("Times     samples at each thread's CPU timer"), report);
        assertTrue(report.contains("alphaWork"), report);
    }

    private static List<List<String>> paths(CpuProfile profile, String thread, String method) {
        List<List<String>> paths = new ArrayList<>();
        for (CpuProfile.Node node : profile.endingWith(thread, method)) {
            // Lambda classes get another number and address in every JVM.
            paths.add(node.path.stream().map(name -> name.replaceAll("\\$\\$Lambda[$0-9]*\\.0x[0-9a-f]+", "\\$\\$Lambda"))
                    .toList());
        }
        paths.sort((a, b) -> String.join(";", a).compareTo(String.join(";", b)));
        return paths;
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void theCompilerDescribesEveryInstructionWhileTheWalkSamplesAndOnlyThen(Path jdk) throws Exception {
        // Without the flag, a sample in a loop of calls was charged to the method inlined after it.
        String[] program = {"-XX:+UnlockDiagnosticVMOptions", "-cp", Jvm.programs().toString(),
            "com.kestrix.programs.PrintVMOption",
            "DebugNonSafepoints"};
        for (String mode : new String[] {"asyncsampling", "sampling"}) {
            List<String> args = new ArrayList<>(List.of(Jvm.agentArgument(mode + ",quiet")));
            args.addAll(List.of(program));
            Jvm.Result run = Jvm.run(jdk, 120, args.toArray(new String[0]));
            assertEquals(0, run.exitCode, run.toString());
            assertTrue(run.stdout.contains("DebugNonSafepoints=" + mode.equals("asyncsampling")), run.toString());
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void sharesOfKnownTruthComeOutWithinTheirSamplingNoise(Path jdk, @TempDir Path dir) throws Exception {
        List<String> args = new ArrayList<>();
        args.add(Jvm.agentArgument("asyncsampling,asynctimer=perf,samplingperiod=1,quiet,dir=" + dir));
        args.add("-XX:CompileCommand=quiet");
        args.add("-XX:CompileCommand=dontinline,com/kestrix/programs/KnownShares.tiny");
        // The counted loop is the safepoint sampler's blind spot and the walk's easy case. The tiny
        // calls depend on the compiler describing every instruction and on the retried walks:
        // without the one, a fifth of their time went to the method inlined beside them; without
        // the other, a third of it was unknown on JDK 25. They also get a bound on the walks given
        // up. POSIX CPU timers, which a kernel that refuses perf task clocks leaves, fire at clock
        // ticks, and on a loaded machine the tiny calls drew 10 points more than their share of
        // those: there the tiny calls get a wider bound. The stubs' variants are left to
        // bench/async-sampling.sh.
        args.addAll(List.of("-cp", Jvm.programs().toString(), "com.kestrix.programs.KnownShares", "1500", "counted",
                "calls"));
        Jvm.Result run = Jvm.run(jdk, 300, args.toArray(new String[0]));
        assertEquals(0, run.exitCode, run.toString());
        Path snapshot;
        try (Stream<Path> files = Files.list(dir)) {
            snapshot = files.filter(f -> f.toString().endsWith(".snapshot")).findFirst().orElseThrow();
        }
        CpuProfile profile = CpuProfile.read(snapshot);
        Map<String, String> failures = new TreeMap<>();
        for (String line : run.stdout.split("\n")) {
            String[] f = line.trim().split(" ");
            if (!f[0].equals("truth")) {
                continue;
            }
            String variant = f[1];
            double truth = 100.0 * Long.parseLong(f[2]) / (Long.parseLong(f[2]) + Long.parseLong(f[3]));
            long total = profile.threadTime(variant);
            long mine = profile.timeEndingWith(variant, "com.kestrix.programs.KnownShares.measured");
            // At 1 ms a variant's 1.5 s make some 1,500 samples, for a standard error of 1.3 points
            // of a share near one half: 5 points is beyond noise.
            boolean ticks = run.stderr.contains("refuses perf task clocks");
            double share = total == 0 ? 0 : 100.0 * mine / total;
            double unknown = total == 0 ? 0 : 100.0 * profile.rootTimeEndingWith(variant, "<unknown Java>") / total;
            double bound = variant.equals("counted") || !ticks ? 5 : 10;
            if (total < 1_000_000_000L || Math.abs(share - truth) > bound || unknown > 8) {
                failures.put(variant, String.format("%.1f%% sampled against %.1f%% measured, %.1f%% unknown, %d ns in all",
                        share, truth, unknown, total));
            }
        }
        assertEquals(2, run.stdout.lines().filter(l -> l.startsWith("truth ")).count(), run.toString());
        assertTrue(failures.isEmpty(), failures + "\n" + profile.dump("counted") + "\n" + profile.dump("calls"));
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void threadsStartingAndEndingUnderOneMillisecondTimersWhileCapturesRunDoNoHarm(Path jdk, @TempDir Path dir)
            throws Exception {
        int port = LiveAgent.freePort();
        try (LiveAgent agent = LiveAgent.launchProgram(jdk, dir,
                "port=" + port + ",dir=" + dir + ",asyncsampling,samplingperiod=1", port,
                "com.kestrix.programs.ThreadChurn")) {
            agent.awaitStdout("ready", 60);
            agent.awaitStderr(LiveAgent.LISTENING + port + "...", 60);
            for (int i = 0; i < 3 && agent.isAlive(); i++) {
                agent.kjpOk("capture");
                // Stopping deletes every timer while threads take samples; starting makes them anew.
                agent.kjpOk("stop-cpu");
                agent.kjpOk("start-cpu", "async");
            }
            assertEquals(0, agent.waitFor(120), agent.stdout() + agent.stderr());
            assertTrue(agent.stdout().contains("churned "), agent.stdout());
            List<Path> snapshots = agent.snapshots("");
            assertTrue(snapshots.size() >= 2, snapshots.toString());
            for (Path snapshot : snapshots) {
                KjpRunner.succeed("report", "--paths", "0", snapshot.toString());
            }
        }
    }
    @ParameterizedTest
    @MethodSource("jdks")
    void aMinuteOfThreadsThatStartThrowAllocateAndEndAmidUnloadedClassesAndCapturesKeepsItsTotal(Path jdk,
            @TempDir Path dir) throws Exception {
        stressKeepsItsTotal(jdk, dir, "asyncsampling", 60);
    }

    /**
     * The same traced: every thread's probes log their calls while captures read the logs of
     * running threads and ending threads hand theirs back.
     */
    @ParameterizedTest
    @MethodSource("jdks")
    void tracedThreadsThatStartThrowAllocateAndEndAmidCapturesKeepTheirTotal(Path jdk, @TempDir Path dir)
            throws Exception {
        stressKeepsItsTotal(jdk, dir, "tracing,asyncsampling", 30);
    }

    private static void stressKeepsItsTotal(Path jdk, Path dir, String mode, int seconds) throws Exception {
        int port = LiveAgent.freePort();
        try (LiveAgent agent = LiveAgent.launchProgram(jdk, dir,
                "port=" + port + ",dir=" + dir + "," + mode + ",samplingperiod=1,onexit=snapshot", port,
                "com.kestrix.programs.SamplerStress", "-Dstress.seconds=" + seconds)) {
            agent.awaitStdout("ready", 60);
            agent.awaitStderr(LiveAgent.LISTENING + port + "...", 60);
            agent.kjpOk("periodic", "5");
            assertEquals(0, agent.waitFor(600), agent.stdout() + agent.stderr());
            long cpu = -1;
            for (String line : agent.stdout().split("\n")) {
                if (line.startsWith("cpu ")) {
                    cpu = Long.parseLong(line.substring(4).trim());
                }
            }
            assertTrue(cpu > seconds * 150_000_000L, agent.stdout());
            assertTrue(agent.snapshots(".snapshot").size() >= seconds / 10, agent.snapshots("").toString());
            List<Path> exit = agent.snapshots("shutdown");
            assertEquals(1, exit.size(), agent.snapshots("").toString());
            CpuProfile profile = CpuProfile.read(exit.get(0));
            long sampled = profile.threads().stream().filter(t -> !t.startsWith("KJPAgent-"))
                    .mapToLong(profile::threadTime).sum();
            // A thread's timer is set as it starts and its last samples are booked as it ends, so
            // what the samples stand for is the threads' own CPU; some 60,000 samples of one period
            // each leave a standard error far below the 5% allowed.
            assertTrue(Math.abs(sampled - cpu) <= cpu / 20,
                    String.format("sampled %,d ns against the threads' own %,d ns", sampled, cpu));
        }
    }

}
