package com.kestrix.tools.connect;

import com.kestrix.api.ProfilingModes;
import com.kestrix.api.ProfilingModesExt;
import com.kestrix.runtime.PresentableException;
import com.kestrix.runtime.Protocol;
import java.io.BufferedOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardCopyOption;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;

/**
 * kjp connect: drives the agent in a running JVM over its socket. Failures the agent reports
 * are printed as it wrote them; failures on this side get one line. Exit status 0 on success,
 * 1 on a failure, 2 on a command line that makes no sense.
 */
public final class Connect {
    static final int OK = 0;
    static final int FAILURE = 1;
    static final int USAGE_ERROR = 2;

    /** J2EE probes may only be asked for when the agent can record them. */
    private static final long CAPABILITY_CAN_RECORD_J2EE = 4096;

    public static final String USAGE = String.join("\n",
            "Usage: kjp connect HOST:PORT <sub-command> [options]",
            "",
            "Drives the agent of a running JVM (started with -agentlib:kjpagent); it listens on",
            "the first free port from 10001, or on the one given with port=.",
            "",
            "Sub-commands:",
            "  info                          protocol version, product, session name, snapshot directory",
            "  status                        what is being measured, and the automatic captures",
            "  start-cpu sampling|async|tracing [sampled|async|clock]",
            "                                start CPU profiling: sampling at safepoints, sampling by",
            "                                each thread's CPU timer, or tracing, which takes its times",
            "                                from safepoint samples, CPU-timer samples or the thread",
            "                                clock (by default the clock, unless reading it is slow)",
            "      --filters FILE            method filters to use instead of the agent's",
            "      --walltime FILE           methods measured in wall time instead of CPU time",
            "      --no-j2ee                 without SQL, servlet and JNDI events",
            "  stop-cpu                      stop CPU profiling",
            "  start-alloc                   start allocation recording (every object by default)",
            "      --each N                  record each N-th allocation",
            "      --size-limit BYTES        record every object of at least BYTES bytes",
            "  stop-alloc                    stop allocation recording",
            "  start-monitors, stop-monitors start, stop monitor contention profiling",
            "  capture [--heap|--hprof]      capture a snapshot in the agent's directory; prints its path",
            "  fetch PATH [-o FILE]          copy a snapshot the agent wrote to this machine, compressed",
            "  threads                       a dump of the JVM's threads with their stacks",
            "  gc                            run the garbage collector; used heap before and after",
            "  mark [DESCRIPTION]            start a new generation of the heap: objects alive now get the",
            "                                current one, which heap dumps show",
            "  clear cpu|alloc|monitors|exceptions",
            "                                drop what was recorded so far",
            "  threshold [PERCENT]           show, or set, the used-heap percentage at which a",
            "                                snapshot is captured once (0 turns it off)",
            "  periodic [SECONDS [MAX]|off]  show, or set up, capture every SECONDS seconds",
            "  telemetry [--count N]         heap, threads, CPU and GC once a second, until interrupted",
            "  stats                         statistics of the agent's database",
            "",
            "Example: kjp connect localhost:10001 start-cpu sampling",
            "         kjp connect localhost:10001 capture",
            "         kjp connect localhost:10001 fetch /home/me/Snapshots/MyApp-2025-01-31.snapshot",
            "");

    static final class UsageException extends Exception {
        private static final long serialVersionUID = 1L;

        UsageException(String message) {
            super(message);
        }
    }

    private final String myHost;
    private final int myPort;
    private final String myCommand;
    private final List<String> myArgs;
    private final PrintStream myOut;
    private final PrintStream myErr;
    private final boolean myInteractive;

    private Connect(String host, int port, String command, List<String> args, PrintStream out, PrintStream err,
            boolean interactive) {
        myHost = host;
        myPort = port;
        myCommand = command;
        myArgs = args;
        myOut = out;
        myErr = err;
        myInteractive = interactive;
    }

    /**
     * Runs one sub-command; args are what follows "connect". Progress bars are drawn on err when
     * interactive is set. Returns the exit status.
     */
    public static int run(String[] args, PrintStream out, PrintStream err, boolean interactive) {
        if (args.length == 1 && (args[0].equals("-h") || args[0].equals("--help") || args[0].equals("help"))) {
            out.print(USAGE);
            return OK;
        }
        Connect connect;
        try {
            if (args.length < 2) {
                throw new UsageException(args.length == 0 ? "connect needs HOST:PORT and a sub-command"
                        : "connect needs a sub-command after " + args[0]);
            }
            String address = args[0];
            int colon = address.lastIndexOf(':');
            if (colon <= 0 || colon == address.length() - 1) {
                throw new UsageException("'" + address + "' is not HOST:PORT");
            }
            String host = address.substring(0, colon);
            if (host.startsWith("[") && host.endsWith("]")) {
                host = host.substring(1, host.length() - 1);
            }
            int port = number(address.substring(colon + 1), "the port");
            if (port < 1 || port > 65535) {
                throw new UsageException("port " + port + " is out of range 1-65535");
            }
            connect = new Connect(host, port, args[1], new ArrayList<>(Arrays.asList(args).subList(2, args.length)),
                    out, err, interactive);
        } catch (UsageException e) {
            return usageError(err, e);
        }
        String where = connect.myHost + ":" + connect.myPort;
        try {
            connect.execute();
            return OK;
        } catch (UsageException e) {
            return usageError(err, e);
        } catch (ClientFailure e) {
            err.println("kjp connect: " + e.getMessage());
        } catch (PresentableException e) {
            // The agent's own words, as it wrote them.
            err.println(e.getMessage());
            if (e.getDetail() != null) {
                err.println(e.getDetail());
            }
        } catch (NoSuchFileException e) {
            err.println("kjp connect: " + e.getMessage() + ": no such file or directory");
        } catch (java.nio.file.AccessDeniedException e) {
            err.println("kjp connect: " + e.getMessage() + ": permission denied");
        } catch (java.io.EOFException e) {
            err.println("kjp connect: " + where + ": the agent closed the connection in the middle of an answer");
        } catch (IOException e) {
            err.println("kjp connect: " + where + ": " + describe(e));
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            err.println("kjp connect: interrupted");
        } catch (RuntimeException e) {
            err.println("kjp connect: " + where + ": " + describe(e));
        }
        return FAILURE;
    }

    private static int usageError(PrintStream err, UsageException e) {
        err.println("kjp connect: " + e.getMessage());
        err.println("Run 'kjp connect --help' for the sub-commands and options.");
        return USAGE_ERROR;
    }

    private static String describe(Exception e) {
        String message = e.getMessage();
        return message == null || message.isEmpty() ? e.getClass().getSimpleName() : message;
    }

    private void execute() throws UsageException, IOException, InterruptedException {
        switch (myCommand) {
            case "info":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    printInfo(client.info());
                }
                break;
            case "status":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    printStatus(client);
                }
                break;
            case "start-cpu":
                startCpu();
                break;
            case "stop-cpu":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    client.stopCpu();
                }
                myOut.println("CPU profiling stopped");
                break;
            case "start-alloc":
                startAllocations();
                break;
            case "stop-alloc":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    client.stopAllocations();
                }
                myOut.println("Allocation recording stopped");
                break;
            case "start-monitors":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    client.startMonitors();
                }
                myOut.println("Monitor profiling started");
                break;
            case "stop-monitors":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    client.stopMonitors();
                }
                myOut.println("Monitor profiling stopped");
                break;
            case "capture":
                capture();
                break;
            case "fetch":
                fetch();
                break;
            case "threads":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    client.threadDump().print(myOut);
                }
                break;
            case "gc":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    long[] used = client.forceGc();
                    myOut.println("Used heap before GC " + Units.megabytes(used[0]) + ", after "
                            + Units.megabytes(used[1]) + " (" + Units.megabytes(Math.max(0, used[0] - used[1]))
                            + " freed)");
                }
                break;
            case "mark": {
                if (myArgs.size() > 1) {
                    throw new UsageException("mark takes at most one description (quote it if it has blanks)");
                }
                String description = myArgs.isEmpty() ? "Marked by kjp" : myArgs.get(0);
                try (AgentClient client = connect()) {
                    client.markMemory(description);
                }
                myOut.println("Heap marked: " + description);
                break;
            }
            case "clear":
                clear();
                break;
            case "threshold":
                threshold();
                break;
            case "periodic":
                periodic();
                break;
            case "telemetry": {
                int count = 0;
                if (!myArgs.isEmpty()) {
                    if (!myArgs.get(0).equals("--count") || myArgs.size() != 2) {
                        throw new UsageException("telemetry takes only --count N");
                    }
                    count = number(myArgs.get(1), "--count");
                    if (count < 1) {
                        throw new UsageException("--count needs a positive whole number");
                    }
                }
                new TelemetryView(myHost, myPort, myOut).run(count);
                break;
            }
            case "stats":
                noMoreArguments();
                try (AgentClient client = connect()) {
                    String statistics = client.databaseStatistics();
                    myOut.println(statistics == null ? "" : statistics.stripTrailing());
                }
                break;
            default:
                throw new UsageException("unknown sub-command '" + myCommand + "'");
        }
        myOut.flush();
    }

    private AgentClient connect() throws IOException {
        return AgentClient.connect(myHost, myPort);
    }

    private void noMoreArguments() throws UsageException {
        if (!myArgs.isEmpty()) {
            throw new UsageException(myCommand + " takes no argument, not '" + myArgs.get(0) + "'");
        }
    }

    private static int number(String text, String what) throws UsageException {
        try {
            return Integer.parseInt(text);
        } catch (NumberFormatException e) {
            throw new UsageException(what + " needs a whole number, not '" + text + "'");
        }
    }

    private String value(int i, String option) throws UsageException {
        if (i >= myArgs.size()) {
            throw new UsageException(option + " needs a value");
        }
        return myArgs.get(i);
    }

    private void printInfo(AgentInfo info) {
        myOut.println("Protocol version    " + info.protocolVersion());
        myOut.println("Product             " + info.product());
        myOut.println("Session name        " + info.sessionName());
        myOut.println("Snapshot directory  " + info.snapshotDirectory());
        myOut.println("Process id          " + info.pid());
        myOut.println("Session id          " + info.sessionId());
        myOut.println("Host id             " + info.hostId());
        myOut.println("Telemetry limit     " + info.telemetryLimitSeconds() + " s");
    }

    private void printStatus(AgentClient client) throws IOException {
        long status = client.status();
        String cpu = "off";
        if ((status & ProfilingModesExt.CPU_TIMES_BIT) != 0) {
            if ((status & ProfilingModesExt.CPU_COUNTS_BIT) != 0) {
                cpu = (status & ProfilingModesExt.CPU_SAMPLED_TIMES_BIT) == 0 ? "tracing"
                        : (status & ProfilingModesExt.CPU_ASYNC_BIT) != 0
                                ? "tracing, times from CPU-timer samples" : "tracing, times from samples";
            } else {
                cpu = (status & ProfilingModesExt.CPU_ASYNC_BIT) != 0 ? "sampling by CPU timers" : "sampling";
            }
            if ((status & ProfilingModesExt.CPU_J2EE_BIT) != 0) {
                cpu += ", with J2EE events";
            }
        }
        AgentClient.AllocationSettings settings = client.allocationSettings();
        String allocation = (status & ProfilingModesExt.ALLOCATION_RECORDING_BIT) != 0
                ? "on: " + describe(settings) : "off";
        int threshold = client.memoryThreshold();
        AgentClient.PeriodicStatus periodic = client.periodicCapture();
        int oome = client.oomeDumperStatus();
        myOut.println("CPU profiling         " + cpu);
        myOut.println("Allocation recording  " + allocation);
        myOut.println("Monitor profiling     " + onOff(status & ProfilingModesExt.MONITORS_BIT));
        myOut.println("Stack telemetry       " + onOff(status & ProfilingModesExt.STACK_TELEMETRY));
        myOut.println("Memory threshold      " + (threshold == 0 ? "off" : threshold + "% of the heap"));
        myOut.println("Periodic capture      " + describe(periodic));
        myOut.println("Heap dump on OOME     " + (oome == 1 ? "on" : "off"));
        if ((status & ProfilingModesExt.INTERNAL_ERROR_BIT) != 0) {
            myOut.println("The agent reports an internal error.");
        }
    }

    private static String onOff(long bit) {
        return bit != 0 ? "on" : "off";
    }

    private static String describe(AgentClient.AllocationSettings s) {
        List<String> rules = new ArrayList<>();
        if (s.recordEachEnabled()) {
            rules.add(s.recordEach() == 1 ? "every object" : "each " + s.recordEach() + "th object");
        }
        if (s.sizeLimitEnabled()) {
            rules.add(String.format(Locale.ROOT, "objects of %,d bytes and more", s.sizeLimit()));
        }
        return rules.isEmpty() ? "no object" : String.join(", ", rules);
    }

    private static String describe(AgentClient.PeriodicStatus p) {
        if (p.periodSeconds() == -1) {
            return "off";
        }
        return "every " + p.periodSeconds() + " s, " + p.capturedCount() + " captured"
                + (p.maxSnapshotCount() > 0 ? " (maximum " + p.maxSnapshotCount() + ")" : "");
    }

    private void startCpu() throws UsageException, IOException {
        if (myArgs.isEmpty()) {
            throw new UsageException("start-cpu needs sampling, async or tracing");
        }
        long mode;
        switch (myArgs.get(0)) {
            case "sampling":
                mode = ProfilingModes.CPU_SAMPLING;
                break;
            case "async":
                mode = ProfilingModes.CPU_ASYNC_SAMPLING;
                break;
            case "tracing":
                mode = ProfilingModes.CPU_TRACING;
                break;
            default:
                throw new UsageException("start-cpu needs sampling, async or tracing, not '" + myArgs.get(0) + "'");
        }
        String filters = null;
        String wallTime = null;
        boolean j2ee = true;
        int first = 1;
        if (mode == ProfilingModes.CPU_TRACING && myArgs.size() > 1 && !myArgs.get(1).startsWith("--")) {
            // Where tracing takes its times; without a word the agent chooses by the clock's cost.
            switch (myArgs.get(1)) {
                case "sampled":
                    mode |= ProfilingModesExt.CPU_SAMPLED_TIMES_BIT;
                    break;
                case "clock":
                    mode |= ProfilingModesExt.CPU_CLOCK_TIMES_BIT;
                    break;
                case "async":
                    mode |= ProfilingModesExt.CPU_SAMPLED_TIMES_BIT | ProfilingModesExt.CPU_ASYNC_BIT;
                    break;
                default:
                    throw new UsageException("start-cpu tracing takes sampled, async or clock, not '"
                            + myArgs.get(1) + "'");
            }
            first = 2;
        }
        for (int i = first; i < myArgs.size(); i++) {
            String arg = myArgs.get(i);
            switch (arg) {
                case "--filters":
                    filters = readText(value(++i, arg));
                    break;
                case "--walltime":
                    wallTime = readText(value(++i, arg));
                    break;
                case "--no-j2ee":
                    j2ee = false;
                    break;
                default:
                    throw new UsageException("unknown option '" + arg + "' for start-cpu");
            }
        }
        try (AgentClient client = connect()) {
            if (j2ee && (client.info().capabilities() & CAPABILITY_CAN_RECORD_J2EE) != 0) {
                mode |= ProfilingModes.CPU_J2EE;
            }
            client.startCpu(mode, filters, wallTime);
        }
        myOut.println("CPU " + (myArgs.get(0).equals("async") ? "async sampling" : myArgs.get(0)) + " started");
    }

    private static String readText(String file) throws IOException {
        return Files.readString(Paths.get(file), StandardCharsets.UTF_8);
    }

    private void startAllocations() throws UsageException, IOException {
        boolean eachEnabled = false;
        int each = 1;
        boolean limitEnabled = false;
        int limit = 1048576;
        for (int i = 0; i < myArgs.size(); i++) {
            String arg = myArgs.get(i);
            switch (arg) {
                case "--each":
                    each = number(value(++i, arg), arg);
                    if (each < 1) {
                        throw new UsageException("--each needs a number of at least 1");
                    }
                    eachEnabled = true;
                    break;
                case "--size-limit":
                    limit = number(value(++i, arg), arg);
                    if (limit < 0) {
                        throw new UsageException("--size-limit cannot be negative");
                    }
                    limitEnabled = true;
                    break;
                default:
                    throw new UsageException("unknown option '" + arg + "' for start-alloc");
            }
        }
        if (!eachEnabled && !limitEnabled) {
            eachEnabled = true;
        }
        AgentClient.AllocationSettings settings = new AgentClient.AllocationSettings(eachEnabled, each, limitEnabled,
                limit);
        try (AgentClient client = connect()) {
            client.startAllocations(settings);
        }
        myOut.println("Allocation recording started: " + describe(settings));
    }

    private void capture() throws UsageException, IOException {
        long flags = ProfilingModes.SNAPSHOT_WITHOUT_HEAP;
        for (String arg : myArgs) {
            if (arg.equals("--heap") && flags == ProfilingModes.SNAPSHOT_WITHOUT_HEAP) {
                flags = ProfilingModes.SNAPSHOT_WITH_HEAP;
            } else if (arg.equals("--hprof") && flags == ProfilingModes.SNAPSHOT_WITHOUT_HEAP) {
                flags = ProfilingModes.SNAPSHOT_HPROF;
            } else if (arg.equals("--heap") || arg.equals("--hprof")) {
                throw new UsageException("capture takes one of --heap and --hprof");
            } else {
                throw new UsageException("unknown option '" + arg + "' for capture");
            }
        }
        ProgressBar bar = new ProgressBar(myErr, myInteractive, "capturing");
        boolean success = false;
        String path;
        try (AgentClient client = connect()) {
            path = client.capture(flags, bar::percent);
            success = true;
        } finally {
            bar.finish(success);
        }
        myOut.println(path);
    }

    private void fetch() throws UsageException, IOException {
        String remote = null;
        Path target = null;
        for (int i = 0; i < myArgs.size(); i++) {
            String arg = myArgs.get(i);
            if (arg.equals("-o") || arg.equals("--output")) {
                target = Paths.get(value(++i, arg));
            } else if (arg.startsWith("-") && arg.length() > 1) {
                throw new UsageException("unknown option '" + arg + "' for fetch");
            } else if (remote == null) {
                remote = arg;
            } else {
                throw new UsageException("fetch copies one file at a time; '" + arg + "' is one too many");
            }
        }
        if (remote == null) {
            throw new UsageException("fetch needs the path of a snapshot, as capture printed it");
        }
        if (target == null) {
            String name = remote.substring(Math.max(remote.lastIndexOf('/'), remote.lastIndexOf('\\')) + 1);
            if (name.isEmpty()) {
                throw new UsageException("'" + remote + "' names no file; give the local name with -o FILE");
            }
            target = Paths.get(name);
        }
        if (Files.isDirectory(target)) {
            throw new UsageException(target + " is a directory; name the file with -o FILE");
        }
        Path absolute = target.toAbsolutePath();
        Path directory = absolute.getParent();
        // The bytes land in a file beside the target, which replaces it only once complete.
        Path partial = Files.createTempFile(directory, ".kjp-fetch-", ".part");
        ProgressBar bar = new ProgressBar(myErr, myInteractive, "fetching");
        boolean success = false;
        long[] total = new long[1];
        try (AgentClient client = connect();
                OutputStream out = new BufferedOutputStream(Files.newOutputStream(partial))) {
            client.fetch(remote, out, done -> bar.bytes(done, total[0]), length -> total[0] = length);
            success = true;
        } finally {
            bar.finish(success);
            if (!success) {
                Files.deleteIfExists(partial);
            }
        }
        Files.move(partial, absolute, StandardCopyOption.REPLACE_EXISTING, StandardCopyOption.ATOMIC_MOVE);
        myOut.println(String.format(Locale.ROOT, "%s (%,d bytes)", target, total[0]));
    }

    private void clear() throws UsageException, IOException {
        if (myArgs.size() != 1) {
            throw new UsageException("clear needs one of cpu, alloc, monitors, exceptions");
        }
        int type;
        switch (myArgs.get(0)) {
            case "cpu":
                type = Protocol.PACKET_CLEAR_CPU_DATA;
                break;
            case "alloc":
                type = Protocol.PACKET_CLEAR_ALLOCATION_DATA;
                break;
            case "monitors":
                type = Protocol.PACKET_CLEAR_MONITOR_DATA;
                break;
            case "exceptions":
                type = Protocol.PACKET_CLEAR_EXCEPTIONS;
                break;
            default:
                throw new UsageException("clear needs one of cpu, alloc, monitors, exceptions, not '"
                        + myArgs.get(0) + "'");
        }
        try (AgentClient client = connect()) {
            client.clear(type);
        }
        myOut.println("Cleared " + myArgs.get(0) + " data");
    }

    private void threshold() throws UsageException, IOException {
        if (myArgs.size() > 1) {
            throw new UsageException("threshold takes at most one percentage");
        }
        Integer percent = myArgs.isEmpty() ? null : number(myArgs.get(0), "threshold");
        try (AgentClient client = connect()) {
            if (percent != null) {
                client.setMemoryThreshold(percent);
            }
            int value = client.memoryThreshold();
            myOut.println("Memory threshold: " + (value == 0 ? "off" : value + "% of the heap"));
        }
    }

    private void periodic() throws UsageException, IOException {
        if (myArgs.size() > 2 || myArgs.size() == 2 && myArgs.get(0).equals("off")) {
            throw new UsageException("periodic takes SECONDS [MAX], or off");
        }
        long seconds = 0;
        int max = -1;
        if (!myArgs.isEmpty()) {
            if (myArgs.get(0).equals("off")) {
                seconds = -1;
            } else {
                seconds = number(myArgs.get(0), "periodic");
                if (seconds < 1) {
                    throw new UsageException("the period needs at least 1 second; 'off' turns it off");
                }
                max = myArgs.size() == 2 ? number(myArgs.get(1), "the maximum") : -1;
            }
        }
        try (AgentClient client = connect()) {
            if (!myArgs.isEmpty()) {
                client.setupPeriodicCapture(seconds, max);
            }
            myOut.println("Periodic capture: " + describe(client.periodicCapture()));
        }
    }
}
