package com.kestrix.tools.kjp;

import com.kestrix.tools.connect.Connect;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotFormatException;
import com.kestrix.tools.snapshot.SnapshotReader;
import java.io.BufferedWriter;
import java.io.IOException;
import java.io.OutputStreamWriter;
import java.io.PrintStream;
import java.io.PrintWriter;
import java.io.Writer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.ZoneId;
import java.util.Arrays;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Locale;
import java.util.Set;
import java.util.function.Consumer;
import java.util.function.Supplier;

/**
 * The kjp command: reads a snapshot of the Kestrix Java Profiler and prints what is in it, as a
 * report, a flame graph page or folded stacks. Problems with the file or the arguments end in
 * one line of text and a non-zero status, never in a stack trace.
 */
public final class Kjp {
    static final int OK = 0;
    static final int FILE_ERROR = 1;
    static final int USAGE_ERROR = 2;

    static final String USAGE = String.join("\n",
            "Usage: kjp <command> [options] SNAPSHOT",
            "",
            "Commands:",
            "  report     the session, its threads, CPU hot spots and the hottest call paths",
            "  flame      an interactive flame graph: one self-contained HTML page (needs -o)",
            "  collapsed  folded stacks, one call path a line, as flame-graph tools and speedscope read them",
            "  alloc      recorded allocations: objects and bytes by allocating method and by call path",
            "  heap       the heap dump: objects, classes, GC roots, the class histogram and the generations;",
            "             with --retained what holds the memory: retained sizes, paths from GC roots, dominators",
            "  locks      monitor contention: blocks, parks on java.util.concurrent locks and waits, by lock class,",
            "             by call path and by owner thread, with times and counts",
            "  exceptions exceptions counted: by class, by throwing path and by catching path (or uncaught)",
            "  sql        SQL statements by total time, count and mean, with the call paths that issued them",
            "  requests   servlet requests by URI, total time, count and mean, with the SQL statements, dispatches",
            "             and JNDI calls made inside them",
            "  connect    drive the agent of a running JVM: kjp connect HOST:PORT info|status|start-cpu|stop-cpu|",
            "             start-alloc|stop-alloc|start-monitors|stop-monitors|capture|fetch|threads|gc|mark|clear|",
            "             threshold|periodic|telemetry|stats ('kjp connect --help' tells more)",
            "  list       the JVMs on this machine that run the agent: port, process id, session (no SNAPSHOT)",
            "",
            "Options:",
            "  -o, --output FILE     write to FILE instead of standard output",
            "  --thread NAME         only threads of this name (may be given more than once)",
            "  --format text|json    report, alloc, heap, locks, exceptions, sql, requests: plain text (default) or JSON",
            "  --top N               report, alloc: methods in each hot-spot table; heap: classes; locks,",
            "                        exceptions: lines of each class and thread list; sql: statements; requests:",
            "                        URIs (default 20)",
            "  --paths N             report, alloc, locks, exceptions: call paths to show; sql: paths of each",
            "                        statement; requests: lines under each URI (default 10)",
            "  --path-depth N        report, sql: the deepest N frames of each path (default 12), with the number",
            "                        of frames left out; --paths 0 leaves the paths out",
            "  --by-thread           report, alloc: figures for each thread instead of all threads together",
            "  --class NAME          heap: where the live objects of this class were allocated",
            "  --retained            heap: the biggest objects by retained size with the shortest path from a GC",
            "                        root, retained size by class, and the top dominators",
            "  --save                heap --retained: keep the result in SNAPSHOT.index, which the next run loads",
            "  --merged              flame, collapsed: all threads in one tree, without a thread level",
            "  --raw-names           lambda and hidden classes with their numbers and addresses, as the JVM",
            "                        named them (by default 'App$$Lambda.run()', so that runs compare)",
            "  --agent               also the agent's own threads (KJPAgent-...), left out by default",
            "  --value VALUE         flame, collapsed: time (own CPU time in nanoseconds, the default), count",
            "                        (invocations), alloc-bytes or alloc-count (recorded allocations)",
            "  --j2ee                flame, collapsed: SQL statements, requests, dispatches and JNDI calls as frames",
            "                        of their own, \"[SQL] SELECT ...\", between the probed method and its callees",
            "  --min-percent P       flame, collapsed: leave out frames narrower than P percent of the total",
            "                        (default 0.01); collapsed sums them into a \"[narrow frames]\" frame",
            "  --max-depth N         collapsed: fold frames deeper than N into one \"[deeper frames]\" frame (default 1024)",
            "  -h, --help            show this text",
            "",
            "Example: kjp report ~/Snapshots/MyApp-2025-01-31-shutdown.snapshot",
            "");

    /** Thrown for arguments that make no sense; its message goes to the user with the usage hint. */
    static final class UsageException extends Exception {
        private static final long serialVersionUID = 1L;

        UsageException(String message) {
            super(message);
        }
    }

    /** The parsed command line. */
    static final class Arguments {
        String command;
        Path file;
        Path output;
        String format = "text";
        int top = 20;
        int paths = 10;
        int pathDepth = 12;
        boolean byThread;
        boolean merged;
        boolean rawNames;
        boolean agent;
        Collapsed.Value value = Collapsed.Value.TIME;
        double minPercent = 0.01;
        int maxDepth = Collapsed.DEFAULT_MAX_DEPTH;
        String className;
        boolean retained;
        boolean save;
        boolean j2ee;
        HeapAnalysis analysis;
        final Set<String> threads = new LinkedHashSet<>();
    }

    private Kjp() {
    }

    public static void main(String[] args) {
        PrintStream out = new PrintStream(System.out, false, StandardCharsets.UTF_8);
        PrintStream err = new PrintStream(System.err, true, StandardCharsets.UTF_8);
        int status = args.length > 0 && args[0].equals("connect")
                ? Connect.run(Arrays.copyOfRange(args, 1, args.length), out, err, System.console() != null)
                : run(args, out, err, ZoneId.systemDefault(), Progress.onTerminal(err));
        out.flush();
        System.exit(status);
    }

    /** Runs one command with the given streams and time zone; returns the exit status. */
    public static int run(String[] args, PrintStream out, PrintStream err, ZoneId zone) {
        return run(args, out, err, zone, Progress.NONE);
    }

    static int run(String[] args, PrintStream out, PrintStream err, ZoneId zone, Progress progress) {
        Arguments arguments;
        try {
            arguments = parse(args);
        } catch (UsageException e) {
            err.println("kjp: " + e.getMessage());
            err.println("Run 'kjp --help' for the commands and options.");
            return USAGE_ERROR;
        }
        if (arguments == null) {
            out.print(USAGE);
            return OK;
        }
        if (arguments.command.equals("list")) {
            return ListCommand.run(arguments.format, out, err);
        }
        MethodNames.setRawNames(arguments.rawNames);
        Profile.setAgentThreadsShown(arguments.agent);
        String file = arguments.file.toString();
        try {
            Snapshot snapshot = arguments.retained ? RetainedCommand.read(arguments.file, progress)
                    : SnapshotReader.read(arguments.file);
            if (arguments.retained) {
                arguments.analysis = RetainedCommand.analyse(snapshot, arguments.save, progress);
                snapshot = arguments.analysis.mySnapshot;
            }
            execute(arguments, snapshot, out, err, zone);
            return OK;
        } catch (AgentLibrary.Missing e) {
            err.println("kjp: heap --retained " + e.getMessage());
            return FILE_ERROR;
        } catch (SnapshotFormatException e) {
            err.println("kjp: " + file + ": " + e.getMessage());
            return FILE_ERROR;
        } catch (UsageException e) {
            err.println("kjp: " + e.getMessage());
            return USAGE_ERROR;
        } catch (IOException e) {
            err.println("kjp: " + file + ": " + describe(e));
            return FILE_ERROR;
        } catch (OutOfMemoryError e) {
            err.println("kjp: " + file + ": not enough memory; give kjp more with KJP_JAVA_OPTS=-Xmx4g (or more)");
            return FILE_ERROR;
        } catch (RuntimeException e) {
            err.println("kjp: " + file + ": cannot be read: " + describe(e));
            return FILE_ERROR;
        }
    }

    private static String describe(Throwable e) {
        String message = e.getMessage();
        String kind = e.getClass().getSimpleName();
        if (e instanceof java.nio.file.AccessDeniedException) {
            return "permission denied";
        }
        if (e instanceof java.nio.file.NoSuchFileException) {
            return "no such file or directory";
        }
        return message == null || message.isEmpty() ? kind : message;
    }

    private static void execute(Arguments a, Snapshot snapshot, PrintStream out, PrintStream err, ZoneId zone)
            throws IOException, UsageException {
        Profile profile = new Profile(snapshot);
        for (String name : a.threads) {
            if (profile.threads().stream().noneMatch(t -> t.name().equals(name))) {
                throw new SnapshotFormatException("has no thread named '" + name + "'");
            }
        }
        if (a.value.isAllocation() && !profile.hasAllocations()) {
            throw new SnapshotFormatException("has no recorded allocations: they are recorded while allocation "
                    + "recording runs (-agentlib:kjpagent=alloc, or kjp connect HOST:PORT start-alloc)");
        }
        // Before the output is opened, so that -o leaves no empty file behind.
        if (a.command.equals("sql") || a.command.equals("requests") || a.j2ee) {
            List<J2EEEvents.Event> events = J2EEEvents.read(profile);
            if (events.isEmpty()) {
                throw new SnapshotFormatException(J2EEEvents.NONE_RECORDED);
            }
            if (a.command.equals("requests") && events.stream().noneMatch(J2EEEvents.Event::isRequest)) {
                throw new SnapshotFormatException(RequestReport.NO_REQUESTS);
            }
        }
        if (a.value == Collapsed.Value.COUNT && !profile.hasCounts()) {
            throw new SnapshotFormatException("has no invocation counts: they are recorded with tracing, not sampling");
        }
        try (Writer writer = openOutput(a.output, out)) {
            switch (a.command) {
                case "report": {
                    Report report = new Report(profile, new Report.Settings(a.top, a.paths, a.byThread, a.threads));
                    render(a, writer, () -> JsonReport.render(report),
                            text -> new TextReport(report, zone, text, a.pathDepth).write());
                    break;
                }
                case "alloc": {
                    AllocReport report = new AllocReport(profile, a.top, a.paths, a.byThread, a.threads);
                    render(a, writer, report::renderJson, text -> report.writeText(zone, text));
                    break;
                }
                case "heap": {
                    if (a.analysis != null) {
                        RetainedReport retained = new RetainedReport(profile, a.analysis, a.top);
                        render(a, writer, retained::renderJson, text -> retained.writeText(zone, text));
                        break;
                    }
                    HeapReport report = new HeapReport(profile, a.top, a.className);
                    render(a, writer, report::renderJson, text -> report.writeText(zone, text));
                    break;
                }
                case "locks": {
                    LockReport report = new LockReport(profile, a.threads, a.top, a.paths);
                    render(a, writer, report::renderJson, text -> report.writeText(zone, text));
                    break;
                }
                case "sql": {
                    SqlReport report = new SqlReport(profile, a.threads, a.top, a.paths);
                    render(a, writer, report::renderJson, text -> report.writeText(zone, text, a.pathDepth));
                    break;
                }
                case "requests": {
                    RequestReport report = new RequestReport(profile, a.threads, a.top, a.paths);
                    render(a, writer, report::renderJson, text -> report.writeText(zone, text));
                    break;
                }
                case "exceptions": {
                    ExceptionReport report = new ExceptionReport(profile, a.threads, a.top, a.paths);
                    render(a, writer, report::renderJson, text -> report.writeText(zone, text));
                    break;
                }
                case "collapsed":
                    Collapsed.write(profile, trees(profile, a), a.value, a.maxDepth, a.minPercent,
                            new Collapsed.LargeOutputWarning(writer, err));
                    break;
                case "flame": {
                    List<CallTree> trees = trees(profile, a);
                    String session = snapshot.header().sessionName();
                    String title = "Flame graph: " + (session.isEmpty() ? snapshot.file().getFileName() : session);
                    String subtitle = valueName(a.value)
                            + (a.merged ? ", all threads merged" : ", by thread")
                            + (a.j2ee ? ", J2EE events as frames" : "") + " - "
                            + snapshot.file().getFileName();
                    new FlameGraph(profile, a.value, a.minPercent).write(trees, title, subtitle, writer);
                    break;
                }
                default:
                    throw new IllegalStateException(a.command);
            }
        }
    }

    /** A view as --format asks: its JSON object on one line, or its text. */
    private static void render(Arguments a, Writer writer, Supplier<String> json, Consumer<PrintWriter> text)
            throws IOException {
        if (a.format.equals("json")) {
            writer.write(json.get());
            writer.write('\n');
        } else {
            PrintWriter printer = new PrintWriter(writer);
            text.accept(printer);
            printer.flush();
        }
    }

    private static List<CallTree> trees(Profile profile, Arguments a) throws SnapshotFormatException {
        List<CallTree> trees = a.value.isAllocation() ? profile.allocationTrees(a.merged, a.threads)
                : profile.callTrees(a.merged, a.threads);
        if (a.j2ee) {
            J2EEFrames.insert(profile, trees, a.threads, a.value);
        }
        return trees;
    }

    private static String valueName(Collapsed.Value value) {
        switch (value) {
            case TIME:
                return "CPU time";
            case COUNT:
                return "invocations";
            case ALLOC_BYTES:
                return "allocated bytes";
            default:
                return "allocated objects";
        }
    }

    /** A buffered writer on the file, or on standard output, which stays open. */
    private static Writer openOutput(Path output, PrintStream out) throws IOException {
        if (output == null) {
            return new BufferedWriter(new OutputStreamWriter(out, StandardCharsets.UTF_8)) {
                @Override
                public void close() throws IOException {
                    flush();
                }
            };
        }
        return Files.newBufferedWriter(output, StandardCharsets.UTF_8);
    }

    /** The arguments, or null when help was asked for. */
    static Arguments parse(String[] args) throws UsageException {
        Arguments a = new Arguments();
        for (int i = 0; i < args.length; i++) {
            String arg = args[i];
            switch (arg) {
                case "-h":
                case "--help":
                case "help":
                    if (a.command == null || arg.startsWith("-")) {
                        return null;
                    }
                    positional(a, arg);
                    break;
                case "-o":
                case "--output":
                    a.output = Paths.get(value(args, ++i, arg));
                    break;
                case "--thread":
                    a.threads.add(value(args, ++i, arg));
                    break;
                case "--format":
                    a.format = value(args, ++i, arg).toLowerCase(Locale.ROOT);
                    if (!a.format.equals("text") && !a.format.equals("json")) {
                        throw new UsageException("--format must be text or json, not '" + a.format + "'");
                    }
                    break;
                case "--top":
                    a.top = positiveNumber(value(args, ++i, arg), arg);
                    break;
                case "--paths": {
                    String v = value(args, ++i, arg);
                    // 0 leaves the paths out.
                    a.paths = v.equals("0") ? 0 : positiveNumber(v, arg);
                    break;
                }
                case "--path-depth":
                    a.pathDepth = positiveNumber(value(args, ++i, arg), arg);
                    break;
                case "--by-thread":
                    a.byThread = true;
                    break;
                case "--raw-names":
                    a.rawNames = true;
                    break;
                case "--agent":
                    a.agent = true;
                    break;
                case "--merged":
                    a.merged = true;
                    break;
                case "--class":
                    a.className = value(args, ++i, arg);
                    break;
                case "--retained":
                    a.retained = true;
                    break;
                case "--save":
                    a.save = true;
                    break;
                case "--j2ee":
                    a.j2ee = true;
                    break;
                case "--value": {
                    String v = value(args, ++i, arg).toLowerCase(Locale.ROOT);
                    if (v.equals("time")) {
                        a.value = Collapsed.Value.TIME;
                    } else if (v.equals("count")) {
                        a.value = Collapsed.Value.COUNT;
                    } else if (v.equals("alloc-bytes")) {
                        a.value = Collapsed.Value.ALLOC_BYTES;
                    } else if (v.equals("alloc-count")) {
                        a.value = Collapsed.Value.ALLOC_COUNT;
                    } else {
                        throw new UsageException("--value must be time, count, alloc-bytes or alloc-count, not '" + v
                                + "'");
                    }
                    break;
                }
                case "--min-percent": {
                    String v = value(args, ++i, arg);
                    try {
                        a.minPercent = Double.parseDouble(v);
                    } catch (NumberFormatException e) {
                        throw new UsageException("--min-percent needs a number, not '" + v + "'");
                    }
                    if (!(a.minPercent >= 0 && a.minPercent < 100)) {
                        throw new UsageException("--min-percent must be at least 0 and below 100");
                    }
                    break;
                }
                case "--max-depth": {
                    String v = value(args, ++i, arg);
                    try {
                        a.maxDepth = Integer.parseInt(v);
                    } catch (NumberFormatException e) {
                        throw new UsageException("--max-depth needs a whole number, not '" + v + "'");
                    }
                    if (a.maxDepth < 1) {
                        throw new UsageException("--max-depth must be at least 1");
                    }
                    break;
                }
                default:
                    if (arg.startsWith("-") && arg.length() > 1) {
                        throw new UsageException("unknown option '" + arg + "'");
                    }
                    positional(a, arg);
            }
        }
        if (a.command == null) {
            throw new UsageException("no command given");
        }
        if (a.command.equals("list")) {
            if (a.file != null) {
                throw new UsageException("list takes no snapshot file");
            }
            return a;
        }
        if ((a.retained || a.save) && !a.command.equals("heap")) {
            throw new UsageException("--retained and --save belong to heap");
        }
        if (a.save && !a.retained) {
            throw new UsageException("--save keeps what --retained computes: give both");
        }
        if (a.retained && a.className != null) {
            throw new UsageException("--class and --retained are two different heap views: give one");
        }
        if (a.file == null) {
            throw new UsageException(a.command + ": no snapshot file given");
        }
        if (a.command.equals("flame") && a.output == null) {
            throw new UsageException("flame writes an HTML page: name it with -o FILE.html");
        }
        boolean reportLike = a.command.equals("report") || a.command.equals("alloc");
        if (!reportLike && a.byThread) {
            throw new UsageException("--by-thread belongs to report and alloc");
        }
        boolean lockOrException = a.command.equals("locks") || a.command.equals("exceptions")
                || a.command.equals("sql") || a.command.equals("requests");
        if (!reportLike && !lockOrException && !a.command.equals("heap") && !a.format.equals("text")) {
            throw new UsageException("--format belongs to report, alloc, heap, locks, exceptions, sql, requests and"
                    + " list");
        }
        if (!a.command.equals("heap") && a.className != null) {
            throw new UsageException("--class belongs to heap");
        }
        if (a.j2ee && !a.command.equals("flame") && !a.command.equals("collapsed")) {
            throw new UsageException("--j2ee belongs to flame and collapsed");
        }
        if (a.j2ee && a.value.isAllocation()) {
            throw new UsageException("--j2ee shows J2EE events on CPU data: give --value time or count");
        }
        if (!a.command.equals("collapsed") && a.maxDepth != Collapsed.DEFAULT_MAX_DEPTH) {
            throw new UsageException("--max-depth belongs to collapsed");
        }
        if ((reportLike || lockOrException || a.command.equals("heap")) && (a.merged || a.value != Collapsed.Value.TIME)) {
            throw new UsageException("--merged and --value belong to flame and collapsed");
        }
        return a;
    }

    private static void positional(Arguments a, String arg) throws UsageException {
        if (a.command == null) {
            if (!arg.equals("report") && !arg.equals("flame") && !arg.equals("collapsed") && !arg.equals("alloc")
                    && !arg.equals("heap") && !arg.equals("locks") && !arg.equals("exceptions")
                    && !arg.equals("list") && !arg.equals("sql") && !arg.equals("requests")) {
                throw new UsageException("unknown command '" + arg + "'");
            }
            a.command = arg;
        } else if (a.file == null) {
            a.file = Paths.get(arg);
        } else {
            throw new UsageException("one snapshot file at a time; '" + arg + "' is one too many");
        }
    }

    private static String value(String[] args, int i, String option) throws UsageException {
        if (i >= args.length) {
            throw new UsageException(option + " needs a value");
        }
        return args[i];
    }

    private static int positiveNumber(String text, String option) throws UsageException {
        try {
            int n = Integer.parseInt(text);
            if (n > 0) {
                return n;
            }
        } catch (NumberFormatException e) {
            // reported below
        }
        throw new UsageException(option + " needs a positive whole number, not '" + text + "'");
    }
}
