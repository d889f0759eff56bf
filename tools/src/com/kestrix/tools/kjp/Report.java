package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.SnapshotFormatException;
import com.kestrix.tools.snapshot.SnapshotHeader;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * What "kjp report" shows, gathered once and rendered as text or JSON: the session, the threads
 * and, for all threads together or for each thread, the hot spots and the hottest call paths.
 */
final class Report {
    record Settings(int topMethods, int topPaths, boolean byThread, Set<String> threadNames) {
    }

    record ThreadLine(Profile.ThreadEntry thread, Long cpuNs) {
    }

    record HotSpot(String method, long ownNs, long totalNs, long invocations) {
    }

    record HotPath(long ownNs, long totalNs, long invocations, List<String> methodsLeafFirst) {
    }

    /** The figures of one thread, or of all selected threads when 'thread' is null. */
    record Section(String thread, long cpuNs, List<HotSpot> byOwnTime, List<HotSpot> byTotalTime,
            List<HotPath> paths) {
    }

    final Profile myProfile;
    final SnapshotHeader myHeader;
    final Settings mySettings;
    final List<ThreadLine> myThreads = new ArrayList<>();
    final List<Section> mySections = new ArrayList<>();
    /** CPU time of all selected threads. */
    final long myCpuNs;
    final int myThreadsWithCpu;
    /** Totals of monitor profiling and exception telemetry, for a line each when there are any. */
    final LockReport myLocks;
    final ExceptionReport myExceptions;
    final J2EESummary myJ2EE;

    Report(Profile profile, Settings settings) throws SnapshotFormatException {
        myProfile = profile;
        myHeader = profile.header();
        mySettings = settings;
        myLocks = new LockReport(profile, settings.threadNames(), 0, 0);
        myExceptions = new ExceptionReport(profile, settings.threadNames(), 0, 0);
        myJ2EE = new J2EESummary(profile, settings.threadNames());
        List<CallTree> perThread = profile.callTrees(false, settings.threadNames());
        Map<Profile.ThreadEntry, Long> cpuByThread = new HashMap<>();
        long cpu = 0;
        for (CallTree tree : perThread) {
            long own = tree.totalOwnTime();
            cpuByThread.put(tree.myThread, own);
            cpu += own;
        }
        myCpuNs = cpu;
        myThreadsWithCpu = perThread.size();
        for (Profile.ThreadEntry thread : profile.threads()) {
            boolean named = settings.threadNames().contains(thread.name());
            if (named || settings.threadNames().isEmpty() && Profile.showsThread(thread.name())) {
                myThreads.add(new ThreadLine(thread, thread.slot() == 0 ? null : cpuByThread.get(thread)));
            }
        }
        if (perThread.isEmpty()) {
            return;
        }
        if (settings.byThread()) {
            for (CallTree tree : perThread) {
                mySections.add(section(tree.myName, List.of(tree)));
            }
        } else {
            mySections.add(section(null, profile.callTrees(true, settings.threadNames())));
        }
    }

    private Section section(String thread, List<CallTree> trees) {
        List<HotSpots.MethodFigures> figures = HotSpots.byMethod(trees);
        long cpu = 0;
        for (CallTree tree : trees) {
            cpu += tree.totalOwnTime();
        }
        List<HotSpot> byOwn = new ArrayList<>();
        for (HotSpots.MethodFigures f : figures) {
            if (byOwn.size() == mySettings.topMethods() || f.ownNs() == 0) {
                break;
            }
            byOwn.add(hotSpot(f));
        }
        figures.sort(HotSpots.BY_TOTAL);
        List<HotSpot> byTotal = new ArrayList<>();
        for (HotSpots.MethodFigures f : figures) {
            if (byTotal.size() == mySettings.topMethods() || f.totalNs() == 0) {
                break;
            }
            byTotal.add(hotSpot(f));
        }
        List<HotPath> paths = new ArrayList<>();
        for (HotSpots.PathFigures p : HotSpots.hottestPaths(trees, mySettings.topPaths())) {
            List<String> names = new ArrayList<>();
            for (int method : p.methodsLeafFirst()) {
                names.add(myProfile.methodName(method));
            }
            paths.add(new HotPath(p.ownNs(), p.totalNs(), p.invocations(), names));
        }
        return new Section(thread, cpu, byOwn, byTotal, paths);
    }

    private HotSpot hotSpot(HotSpots.MethodFigures f) {
        return new HotSpot(myProfile.methodName(f.method()), f.ownNs(), f.totalNs(), f.invocations());
    }

    /** How the CPU data was taken, in words. */
    String cpuMode() {
        if (myThreadsWithCpu == 0) {
            return "no CPU data recorded";
        }
        return myProfile.hasCounts() ? "tracing, with invocation counts" : "sampling";
    }

    /**
     * Where the CPU times came from, in words: the thread clock at every traced call, samples
     * of all stacks at safepoints, or samples of each thread's CPU timer. Null for snapshots of
     * agents that didn't say, or without CPU data.
     */
    String timesSource() {
        String source = myProfile.property("kjp.cpu.times");
        if (source == null || myThreadsWithCpu == 0) {
            return null;
        }
        switch (source) {
            case "clock":
                return "the thread CPU clock, read at every traced call";
            case "safepoint samples":
                return "samples of all threads' stacks, taken at safepoints";
            case "async samples":
                return "samples at each thread's CPU timer, stacks walked without safepoints";
            default:
                return source;
        }
    }

    /** The raw value of the times' source as the agent stored it, or null. */
    String timesSourceKey() {
        return myThreadsWithCpu == 0 ? null : myProfile.property("kjp.cpu.times");
    }

    /** The agent's filters when it ran without a filter file of the user's. */
    static final String DEFAULT_FILTERS = "com.sun.*\njava.*\njavax.*\njdk.*\nsun.*\njrockit.*";

    /**
     * For a traced snapshot, which method filters folded calls: tracing folds a call of a
     * filtered method into its caller, and a user who didn't choose the filters should hear why
     * a JDK tool shows as a few frames. Null when there is nothing to say.
     */
    String filtersNote() {
        String filters = myProfile.property("kjp.cpu.filters");
        if (filters == null || !myProfile.hasCounts()) {
            return null;
        }
        if (filters.replace("\r", "").strip().equals(DEFAULT_FILTERS)) {
            return "the defaults (" + DEFAULT_FILTERS.replace("\n", ", ")
                    + "): calls into them are folded into their callers; filters= sets others";
        }
        long patterns = filters.lines().filter(line -> !line.isBlank() && !line.startsWith("#")).count();
        return patterns == 0 ? "none: every call has its own frame"
                : patterns + (patterns == 1 ? " pattern" : " patterns") + " of the filter file: calls into them are"
                        + " folded into their callers";
    }

    /** "OpenJDK 64-Bit Server VM 17.0.9 (17.0.9+9-Debian), Debian" from the JVM's properties, or null. */
    String jvm() {
        String name = myProfile.property("java.vm.name");
        String version = myProfile.property("java.version");
        String vmVersion = myProfile.property("java.vm.version");
        String vendor = myProfile.property("java.vm.vendor");
        if (name == null && version == null && vmVersion == null) {
            return null;
        }
        StringBuilder text = new StringBuilder(name == null ? "JVM" : name);
        if (version != null) {
            text.append(' ').append(version);
        }
        if (vmVersion != null && !vmVersion.equals(version)) {
            text.append(version != null ? " (" + vmVersion + ")" : " " + vmVersion);
        }
        if (vendor != null && !vendor.isEmpty()) {
            text.append(", ").append(vendor);
        }
        return text.toString();
    }

    /** The command line's main class and arguments, when the snapshot has them. */
    String command() {
        return myProfile.property("sun.java.command");
    }
}
