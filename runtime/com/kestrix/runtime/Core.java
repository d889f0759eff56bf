package com.kestrix.runtime;

import java.io.BufferedInputStream;
import java.io.BufferedOutputStream;
import java.io.BufferedReader;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.lang.management.RuntimeMXBean;
import java.lang.reflect.Method;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.util.ArrayList;
import java.util.Iterator;
import java.util.List;

import com.kestrix.Constants;
import com.kestrix.util.Strings;

/**
 * The Java half of the agent. The agent calls init at VM start; from then on this is the facade
 * over the agent's natives: the Impl methods check what the agent was allowed to do at start,
 * log, and turn the natives' status codes into exceptions.
 */
public final class Core {
    public static final String APP_NAME = "[" + Constants.PRODUCT_NAME_AND_VERSION + "]";
    public static final int ERRORCODE_OK = 0;
    public static final int ERRORCODE_ALREADY_STARTED = 3;

    private static final String CANNOT_START = APP_NAME + " Cannot start:";
    private static final int BACKLOG = 50;
    private static final long ACCEPT_RETRY_MS = 100;

    static volatile int ourPort = -1;
    static File ourSnapshotDir;
    static String ourSessionName = "";
    static long ourCapabilities;
    static int ourCaptureMemoryThreshold;
    static boolean ourIsIBM;
    static boolean ourIsOOMEDumperEnabledInCommandLine;
    private static Method ourMaxMemoryMethod;
    private static boolean ourMaxMemoryMethodSearched;
    private static long ourMaxMemoryCached;
    static long ourMaxMemoryFromCommandLine;
    static boolean ourQuiet;
    static long ourSessionID;
    private static boolean ourPropertiesInitialized;
    static long ourPID;
    static int ourTelemetryLimit;
    /** Why this JVM can't watch its used memory; null while it can, as far as is known. */
    private static String ourMemoryWatchFailure;

    private Core() {
    }

    // ---- natives, registered by the agent before init runs ----

    static native void addSnapshotInfo(String path, long flags);

    /** Writes a snapshot; the result is an error text, or null. */
    static native String captureSnapshot(String path, int socketFD, long flags);

    static native void clearAllocationData();

    static native void clearCPUData();

    static native void clearExceptions();

    static native void clearMonitorData();

    static native void createMarker(int port, int typeBits);

    static native void disableStackTelemetry();

    static native void enableStackTelemetry();

    /** Whether the agent wrote, or registered, the snapshot at this path. */
    static native boolean findSnapshot(String path);

    static native int getAllocationRecordingSettingsRecordEach();

    static native boolean getAllocationRecordingSettingsRecordEachEnabled();

    static native int getAllocationRecordingSettingsSizeLimit();

    static native boolean getAllocationRecordingSettingsSizeLimitEnabled();

    static native String getDatabaseStatistics();

    static native String getHostID();

    static native long getProcessCPUTimeNs();

    static native long getStatus();

    static native long getUptimeMs();

    static native void markMemory(int number, String name);

    static native void setProperty(String name, String value);

    static native int startAllocationRecording(boolean recordEachEnabled, int recordEach, boolean sizeLimitEnabled,
            int sizeLimit);

    static native int startCPUProfiling(long mode, String filters, String wallTimeSpec);

    static native int startMonitorProfiling();

    static native void stopAllocationRecording();

    static native void stopCPUProfiling();

    static native void stopMonitorProfiling();

    static native void storeTelemetryRecord(int[] constants, int[] values);

    /** Streams the tables straight onto the socket, ended by the int -1. */
    static native void writeTables(int socketFD, int tableMask, int[] tableValues);

    /**
     * The file descriptor of a connected socket. Read natively, since current JVMs refuse
     * reflective access to the socket's internals.
     */
    static native int getSocketFD(Socket socket);

    /** Records the identity of a file the agent has written, which alone may be transferred. */
    static native void sealSnapshot(String path);

    /**
     * Opens a sealed snapshot into the descriptor, if it is still the file the agent wrote:
     * returns its size, or TRANSFER_UNKNOWN, TRANSFER_MISSING or TRANSFER_CHANGED.
     */
    static native long openSnapshotForTransfer(String path, java.io.FileDescriptor descriptor);

    static final long TRANSFER_UNKNOWN = -1;
    static final long TRANSFER_MISSING = -2;
    static final long TRANSFER_CHANGED = -3;

    // ---- start ----

    /**
     * Called by the agent at VM init. What the rest of the agent needs from the start is set
     * here; the listening socket and what follows it are opened on a thread of their own, after
     * the start delay if there is one. Opening the first socket of a JVM loads and links some
     * hundreds of the JDK's classes (on JDK 25 it spins method handles for reflection), which
     * took a JVM that only printed its version from 40 to 340 ms; the port asked for is checked
     * by the agent before this is called, so a taken port still ends the start.
     */
    public static boolean init(final int predefinedAgentPort, final String agentHost, final String quotedSessionName,
            final String quotedAlternateSnapshotDir, final String profilerUIPath, final int idePort,
            final int usedMemoryInitialThreshold, final boolean canCountMethods, final boolean canRecordAllocations,
            final boolean canRecordJ2EE, final boolean onlyLocalConnections,
            final boolean isHeapDumpOnOutOfMemoryErrorEnabled, final long maxMemoryFromCommandLine,
            final boolean isQuiet, final long sessionID, final int startDelay, final long pid,
            final int telemetryLimit) {
        try {
            if (!prepare(quotedSessionName, quotedAlternateSnapshotDir, canCountMethods, canRecordAllocations,
                    canRecordJ2EE, isHeapDumpOnOutOfMemoryErrorEnabled, maxMemoryFromCommandLine, isQuiet, sessionID,
                    pid, telemetryLimit)) {
                return false;
            }
        } catch (Exception e) {
            System.err.println(CANNOT_START);
            e.printStackTrace();
            return false;
        }
        Runnable listen = new Runnable() {
            public void run() {
                try {
                    if (startDelay > 0) {
                        try {
                            Thread.sleep(startDelay);
                        } catch (Exception ignored) {
                            // start early rather than not at all
                        }
                    }
                    listen(predefinedAgentPort, agentHost, profilerUIPath, idePort, usedMemoryInitialThreshold,
                            onlyLocalConnections, quotedAlternateSnapshotDir);
                } catch (Throwable e) {
                    System.err.println(CANNOT_START);
                    e.printStackTrace();
                }
            }
        };
        // A daemon: a JVM whose application has ended doesn't wait for the agent's socket. Once
        // the socket is open, the thread serves its clients.
        Thread thread = new Thread(listen, "KJPAgent-RequestListener");
        thread.setDaemon(true);
        thread.setPriority(Thread.MIN_PRIORITY);
        thread.start();
        return true;
    }

    private static boolean prepare(String quotedSessionName, String quotedAlternateSnapshotDir,
            boolean canCountMethods, boolean canRecordAllocations, boolean canRecordJ2EE,
            boolean isHeapDumpOnOutOfMemoryErrorEnabled, long maxMemoryFromCommandLine, boolean isQuiet,
            long sessionID, long pid, int telemetryLimit) {
        String sessionName = Unquoter.unquote(quotedSessionName);
        ourSessionName = sessionName == null ? "" : sessionName;
        ourIsOOMEDumperEnabledInCommandLine = isHeapDumpOnOutOfMemoryErrorEnabled;
        ourMaxMemoryFromCommandLine = maxMemoryFromCommandLine;
        ourQuiet = isQuiet;
        ourSessionID = sessionID;
        ourPID = pid;
        ourTelemetryLimit = telemetryLimit;

        if (!checkJVM()) {
            return false;
        }

        ourCapabilities = computeCapabilities(canCountMethods, canRecordAllocations, canRecordJ2EE);

        // An empty dir= names the working directory, as any relative path is taken from there.
        String snapshotDir = Unquoter.unquote(quotedAlternateSnapshotDir);
        ourSnapshotDir = snapshotDir == null ? Constants.SNAPSHOTS_DIR : new File(snapshotDir).getAbsoluteFile();

        // The JVM's management beans take a JVM a good part of its start-up to set up; the
        // telemetry thread brings them up, and asks for heap dumps at an OutOfMemoryError,
        // once the application's own start is under way.
        new TelemetryThreadJVMTI().start();
        return true;
    }

    // Opens the listening socket, says where it listens, starts what waits for it, and serves
    // clients for the life of the JVM. A port that can't be had here (taken since the agent
    // checked it) leaves the agent without a socket, recording as asked, rather than ending an
    // application that is already running.
    private static void listen(int predefinedAgentPort, String agentHost, final String profilerUIPath,
            final int idePort, int usedMemoryInitialThreshold, boolean onlyLocalConnections,
            final String quotedAlternateSnapshotDir) {
        ServerSocket serverSocket = null;
        int port = predefinedAgentPort == -1 ? 0 : predefinedAgentPort;
        if (port == 0) {
            for (int i = 0; i < Constants.DEFAULT_PORTS.length && serverSocket == null; i++) {
                try {
                    serverSocket = createServerSocket(onlyLocalConnections, Constants.DEFAULT_PORTS[i], agentHost);
                } catch (IOException e) {
                    // taken: try the next one
                }
            }
        }
        if (serverSocket == null) {
            try {
                // Port 0 takes any free port.
                serverSocket = createServerSocket(onlyLocalConnections, port, agentHost);
            } catch (IOException e) {
                System.err.println(CANNOT_START + " cannot listen on port " + port);
                return;
            }
        }
        ourServerSocket = serverSocket;
        ourPort = serverSocket.getLocalPort();

        createMarker(ourPort, Constants.MARKER_TYPE_BIT_JAVA);
        // A client that connects while the rest is set up waits in the backlog.
        if (agentHost == null) {
            info("Profiler agent is listening on port " + ourPort + "...");
        } else {
            info("Profiler agent is listening on " + agentHost + ":" + ourPort + "...");
        }
        if (profilerUIPath == null) {
            info("*** HINT ***: To get profiling results, connect to the application from the profiler UI");
            info("*** HINT ***: Or from a terminal: kjp connect " + (agentHost == null ? "localhost" : agentHost) + ":"
                    + ourPort + " status");
        }
        // No threshold, no watch: the memory pools are looked at when a client sets one.
        if (usedMemoryInitialThreshold != 0) {
            try {
                setCaptureMemoryThreshold(usedMemoryInitialThreshold);
            } catch (RuntimeException e) {
                // Everything else works without the watch: say so, and let the application run.
                info(e.getMessage());
            }
        }

        if (profilerUIPath != null) {
            Thread launcher = new Thread(new Runnable() {
                public void run() {
                    launchUI(profilerUIPath, idePort, quotedAlternateSnapshotDir);
                }
            });
            launcher.setDaemon(true);
            launcher.start();
        }
        ourListening = true;
        serveClients(serverSocket);
    }

    static long computeCapabilities(boolean canCountMethods, boolean canRecordAllocations, boolean canRecordJ2EE) {
        long capabilities = Agent.CAPABILITY_CAN_CAPTURE_ON_USED_MEMORY_THRESHOLD
                | Agent.CAPABILITY_CAN_CAPTURE_PERIODICALLY;
        if (canCountMethods) {
            capabilities |= Agent.CAPABILITY_CAN_RECORD_METHOD_INVOCATION_COUNTS;
        }
        if (canRecordAllocations) {
            capabilities |= Agent.CAPABILITY_CAN_RECORD_ALLOCATIONS;
        }
        if (canRecordJ2EE) {
            capabilities |= Agent.CAPABILITY_CAN_RECORD_J2EE;
        }
        return capabilities;
    }

    // Refuses JVMs known to crash under the agent; false after the reason was printed.
    private static boolean checkJVM() {
        String vendor = System.getProperty("java.vm.vendor", "");
        ourIsIBM = vendor.indexOf("IBM") != -1;
        if (ourIsIBM && !isSupportedIBMVM(System.getProperty("java.vm.info", ""))
                && !"true".equals(System.getProperty("kjp.no.jdk.check"))) {
            System.err.println(APP_NAME + " Cannot start: this version of IBM Java is not supported. "
                    + "Please use IBM Java 5 SR1 or newer, or Sun JVM");
            return false;
        }
        if (vendor.indexOf("BEA") != -1
                && Strings.compareVersions(getJRockitVMVersion(System.getProperty("java.vm.version", "")),
                        "R27.2.0") < 0) {
            System.err.println(APP_NAME + " Cannot start: this version of JRockit JVM is not supported. "
                    + "Please use JRockit 5 or 6, R27.2.0 or newer; or Sun JVM");
            return false;
        }
        if (vendor.indexOf("Sun") != -1 && Strings.compareVersions(Constants.JAVA_VERSION, "1.5.0_05") < 0) {
            info("*** WARNING! *** Java " + Constants.JAVA_VERSION + " has bugs that can crash profiled application. "
                    + "It is strongly recommended to upgrade to Java 1.5.0_05 (5.0 update 5) or newer." + "\n");
        }
        return true;
    }

    static boolean isSupportedIBMVM(String vmInfo) {
        if (vmInfo.indexOf("1.5.0") == -1 && vmInfo.indexOf("1.6.0") == -1) {
            return false;
        }
        String marker = "J9VM - ";
        int index = vmInfo.indexOf(marker);
        if (index == -1 || index + marker.length() + 8 > vmInfo.length()) {
            return false;
        }
        String date = vmInfo.substring(index + marker.length(), index + marker.length() + 8);
        return date.compareTo("20060220") >= 0;
    }

    /** The "R..." part of a JRockit version text, from the first "R" followed by a digit; else "". */
    static String getJRockitVMVersion(String vmVersion) {
        for (int i = 0; i + 1 < vmVersion.length(); i++) {
            if (vmVersion.charAt(i) == 'R' && Character.isDigit(vmVersion.charAt(i + 1))) {
                return vmVersion.substring(i);
            }
        }
        return "";
    }

    static ServerSocket createServerSocket(boolean onlyLocal, int port, String host) throws IOException {
        if (host != null) {
            return new ServerSocket(port, BACKLOG, InetAddress.getByName(host));
        }
        if (onlyLocal) {
            return new ServerSocket(port, BACKLOG, InetAddress.getByName(null));
        }
        return new ServerSocket(port);
    }

    // The listening socket, once there is one; closed when the JVM dies.
    private static volatile ServerSocket ourServerSocket;
    private static volatile boolean ourListenerStopped;
    // Set once the agent has said where it listens and set up what waits for the socket.
    static volatile boolean ourListening;

    // One client at a time, for the life of the JVM: nothing a client sends may end the loop.
    private static void serveClients(ServerSocket serverSocket) {
        while (!ourListenerStopped) {
            try {
                serveOneClient(serverSocket);
            } catch (Throwable ignored) {
                // the next client gets a fresh start
            }
        }
    }

    private static void serveOneClient(ServerSocket serverSocket) throws IOException {
        Socket socket;
        try {
            socket = serverSocket.accept();
        } catch (IOException e) {
            // Out of descriptors, say: don't spin while it lasts.
            try {
                Thread.sleep(ACCEPT_RETRY_MS);
            } catch (InterruptedException ignored) {
                // retry at once
            }
            return;
        }
        try {
            DataOutputStream out = new DataOutputStream(new BufferedOutputStream(WriteDeadline.guard(socket)));
            try {
                DataInputStream in = new DataInputStream(new BufferedInputStream(socket.getInputStream()));
                try {
                    makeSurePropertiesInitialized();
                    RequestProcessing.dispatchRequest(in, out, socket);
                } finally {
                    in.close();
                }
            } finally {
                try {
                    out.close();
                } catch (IOException ignored) {
                    // the client may have gone already
                }
            }
        } finally {
            socket.close();
        }
    }

    /** Copies the JVM's properties into the session once, at the first connection or capture. */
    static synchronized void makeSurePropertiesInitialized() {
        if (ourPropertiesInitialized) {
            return;
        }
        List<String> names = systemPropertyNames();
        for (int i = 0; i < names.size(); i++) {
            String name = names.get(i);
            String value;
            try {
                value = System.getProperty(name);
            } catch (Throwable e) {
                continue;
            }
            setProperty(name, value);
        }
        setProperty("kjp.boot.class.path", System.getProperty("sun.boot.class.path"));
        setProperty("kjp.agent.version", Constants.PRODUCT_NAME_AND_VERSION + "; build " + Constants.BUILD_NUMBER
                + " " + Constants.BUILD_TIME_STAMP_TEXT);
        try {
            RuntimeMXBean runtime = ManagementFactory.getRuntimeMXBean();
            String arguments = Strings.join(runtime.getInputArguments(), "\n");
            // Java 9 and later have no boot class path: supported is false there, and a
            // getBootClassPath that throws anyway must not cost the two properties below.
            try {
                if (runtime.isBootClassPathSupported()) {
                    setProperty("kjp.boot.class.path", runtime.getBootClassPath());
                }
            } catch (UnsupportedOperationException ignored) {
                // keep what sun.boot.class.path said
            }
            setProperty("kjp.vm.starttime", String.valueOf(runtime.getStartTime()));
            setProperty("kjp.input.arguments", arguments);
        } catch (Throwable ignored) {
            // without the bean the session only lacks these three
        }
        ourPropertiesInitialized = true;
    }

    /**
     * The non-empty names of the system properties that hold text. An application may put any
     * object into them, and propertyNames() then throws; this must not, since it runs at each
     * client's first request until it once succeeds, and a throw would shut every client out.
     */
    static List<String> systemPropertyNames() {
        List<String> names = new ArrayList<String>();
        for (Iterator<String> i = System.getProperties().stringPropertyNames().iterator(); i.hasNext();) {
            String name = i.next();
            if (name != null && name.length() > 0) {
                names.add(name);
            }
        }
        return names;
    }

    // ---- the UI ----

    static void launchUI(String profilerUIPath, int idePort, String quotedAlternateSnapshotDir) {
        if (profilerUIPath == null) {
            return;
        }
        try {
            File uiFile = new File(Unquoter.unquote(profilerUIPath));
            if (Constants.OS_MAC) {
                File stub = new File(uiFile.getParentFile(), "../Contents/MacOS/JavaApplicationStub");
                if (stub.isFile()) {
                    uiFile = stub;
                }
            }
            String path = uiFile.getPath();
            String[] command;
            if (quotedAlternateSnapshotDir != null) {
                command = new String[] {path, "-ideport=" + idePort, "-agentport=" + ourPort,
                    "-sessionid=" + ourSessionID, "-snapshotdir=" + quotedAlternateSnapshotDir};
            } else {
                command = new String[] {path, "-ideport=" + idePort, "-agentport=" + ourPort,
                    "-sessionid=" + ourSessionID};
            }
            info("Launching profiler UI (" + path + ")");
            Process process = Runtime.getRuntime().exec(command, null, uiFile.getAbsoluteFile().getParentFile());
            new MyProcessOutputReader(process.getInputStream()).start();
            new MyProcessOutputReader(process.getErrorStream()).start();
        } catch (Throwable e) {
            info("Cannot launch profiler UI");
            if (!ourQuiet) {
                e.printStackTrace();
            }
        }
    }

    /** Passes what the UI prints on to the application's log. */
    private static final class MyProcessOutputReader extends Thread {
        private final InputStream myStream;

        MyProcessOutputReader(InputStream stream) {
            myStream = stream;
            setDaemon(true);
        }

        public void run() {
            try {
                BufferedReader reader = new BufferedReader(new InputStreamReader(myStream));
                String line;
                while ((line = reader.readLine()) != null) {
                    info("[UI] " + line);
                }
            } catch (Throwable ignored) {
                // the UI has gone
            }
        }
    }

    // ---- snapshots ----

    static File getSnapshotDir() {
        return ourSnapshotDir == null ? Constants.SNAPSHOTS_DIR : ourSnapshotDir;
    }

    /**
     * Captures a snapshot into the snapshot directory and returns its path. socketFD, when not 0,
     * is the requesting client's socket, which gets progress packets.
     */
    static String captureSnapshot1(String fileNamePostfix, int socketFD, long snapshotFlags) throws AgentException {
        File dir = getSnapshotDir();
        if (!dir.exists()) {
            dir.mkdirs();
        } else {
            if (!dir.canWrite()) {
                throw new AgentException(noWriteAccessMessage(dir));
            }
            if (!dir.isDirectory()) {
                throw new AgentException("The snapshot directory is not a directory: " + dir.getPath());
            }
        }
        if (!dir.isDirectory()) {
            // mkdirs failed: say so rather than fail in the naming below.
            throw new AgentException("Snapshot directory doesn't exist: " + dir);
        }
        boolean hprof = (snapshotFlags & Constants.SNAPSHOT_HPROF) != 0;
        File file = Agent.suggestSnapshotFile(dir, ourSessionName, fileNamePostfix,
                hprof ? Constants.HPROF_SNAPSHOT_FILE_EXTENSION : Constants.SNAPSHOT_FILE_EXTENSION);
        File parent = file.getAbsoluteFile().getParentFile();
        parent.mkdirs();
        if (!parent.exists()) {
            throw new AgentException("Snapshot directory doesn't exist: " + parent);
        }
        if (!parent.isDirectory()) {
            throw new AgentException("Path to snapshot directory doesn't represent a directory: " + parent);
        }
        if (!parent.canWrite()) {
            throw new AgentException(noWriteAccessMessage(parent));
        }
        String path;
        try {
            path = file.getCanonicalPath();
        } catch (IOException e) {
            path = file.getAbsolutePath();
        }

        // Registered before it is written, so that even a failed capture's file can be fetched.
        addSnapshotInfo(path, snapshotFlags);
        makeSurePropertiesInitialized();

        String failure;
        if (hprof) {
            failure = dumpHprof(path);
        } else {
            failure = captureSnapshot(path, socketFD, snapshotFlags);
        }
        sealSnapshot(path);
        if (failure != null) {
            String message = "Cannot capture snapshot " + path + ": " + failure;
            logRequest(message);
            throw new AgentException(message);
        }
        logRequest("Snapshot is saved to " + path);
        return path;
    }

    // The JVM writes HPROF files itself, through its diagnostic bean; the error text, or null.
    private static String dumpHprof(String path) {
        if (!OOMEDumper.isAvailable()) {
            return "The built-in heap dumper is provided by Sun Java 6+ only. "
                    + "With your JVM, use the profiler's format instead.";
        }
        try {
            OOMEDumper.dumpHeap(path);
            return null;
        } catch (Throwable e) {
            Throwable cause = e;
            while (cause.getCause() != null && cause.getCause() != cause && cause.getMessage() == null) {
                cause = cause.getCause();
            }
            return String.valueOf(cause.getMessage());
        }
    }

    private static String noWriteAccessMessage(File dir) {
        return "User " + System.getProperty("user.name") + " has no write access to the directory " + dir;
    }

    /**
     * Called by the agent when the JVM dies: no more clients. A thread that waits in accept is
     * in native code, and the JVM's exit waits up to 300 ms for such threads before it goes on.
     */
    public static void stopListening() {
        ourListenerStopped = true;
        ServerSocket socket = ourServerSocket;
        if (socket != null) {
            try {
                socket.close();
            } catch (Throwable ignored) {
                // nothing to do while the JVM dies
            }
        }
    }

    /** Called by the agent when the JVM dies and a snapshot is wanted. */
    public static void captureSnapshotOnExit(long flags) {
        try {
            captureSnapshot1("shutdown", 0, flags | Constants.SNAPSHOT_CAUSE_SHUTDOWN);
        } catch (AgentException e) {
            // A failed write was said with its path; the checks before it weren't.
            if (!e.getMessage().startsWith("Cannot capture snapshot ")) {
                logRequest("Cannot capture snapshot: " + e.getMessage());
            }
        } catch (Throwable e) {
            // Nobody else can say it: the JVM is ending and no client asked.
            logRequest("Cannot capture snapshot: " + e);
        }
    }

    static void captureMemoryOnThreshold() {
        try {
            captureSnapshot1("low-memory", 0, Constants.SNAPSHOT_CAUSE_LOW_MEMORY | Constants.SNAPSHOT_WITH_HEAP);
        } catch (Throwable ignored) {
            // logged already
        }
    }

    static void capturePeriodicMemorySnapshot() {
        try {
            captureSnapshot1("periodic", 0, Constants.SNAPSHOT_CAUSE_PERIODIC | Constants.SNAPSHOT_WITH_HEAP);
        } catch (Throwable ignored) {
            // logged already
        }
    }

    // ---- requests of the client ----

    static void startAllocationRecordingImpl(boolean recordEachEnabled, int recordEach, boolean sizeLimitEnabled,
            int sizeLimit) throws AgentException {
        String failure = null;
        if ((ourCapabilities & Agent.CAPABILITY_CAN_RECORD_ALLOCATIONS) == 0) {
            failure = "Object allocation recording was explicitly disabled for this application on its startup";
        } else if (recordEachEnabled && recordEach < 1) {
            failure = "Incorrect value passed for 'recordEach':" + recordEach;
        } else if (sizeLimitEnabled && sizeLimit < 0) {
            failure = "Incorrect value passed for 'sizeLimit':" + sizeLimit;
        } else {
            failure = lookupMessage(startAllocationRecording(recordEachEnabled, recordEach, sizeLimitEnabled,
                    sizeLimit));
        }
        finishStart(failure, "Allocation recording is started", "Cannot start allocation recording: ");
    }

    static void stopAllocationRecordingImpl() {
        stopAllocationRecording();
        logRequest("Allocation recording is stopped");
    }

    static void startCPUProfilingImpl(long mode, String filters, String wallTimeSpec) throws AgentException {
        String failure;
        if ((mode & com.kestrix.api.ProfilingModesExt.CPU_COUNTS_BIT) != 0
                && (ourCapabilities & Agent.CAPABILITY_CAN_RECORD_METHOD_INVOCATION_COUNTS) == 0) {
            failure = "Tracing was explicitly disabled for this application on its startup";
        } else if ((mode & com.kestrix.api.ProfilingModesExt.CPU_J2EE_BIT) != 0
                && (ourCapabilities & Agent.CAPABILITY_CAN_RECORD_J2EE) == 0) {
            failure = "J2EE profiling was explicitly disabled for this application on its startup";
        } else {
            failure = lookupMessage(startCPUProfiling(mode, filters, wallTimeSpec));
        }
        finishStart(failure, "CPU profiling is started", "Cannot start CPU profiling: ");
    }

    static void stopCPUProfilingImpl() {
        stopCPUProfiling();
        logRequest("CPU profiling is stopped");
    }

    static void startMonitorProfilingImpl() throws AgentException {
        finishStart(lookupMessage(startMonitorProfiling()), "Monitor profiling is started",
                "Cannot start monitor profiling: ");
    }

    static void stopMonitorProfilingImpl() {
        stopMonitorProfiling();
        logRequest("Monitor profiling is stopped");
    }

    static void enableStackTelemetryImpl() {
        enableStackTelemetry();
        logRequest("Stack telemetry is enabled");
    }

    static void disableStackTelemetryImpl() {
        disableStackTelemetry();
        logRequest("Stack telemetry is disabled");
    }

    private static void finishStart(String failure, String success, String failurePrefix) throws AgentException {
        if (failure != null) {
            logRequest(failurePrefix + failure);
            throw new AgentException(failure);
        }
        logRequest(success);
    }

    /** The text for a native's status code; null for success. */
    static String lookupMessage(int code) {
        switch (code) {
            case ERRORCODE_OK:
                return null;
            case ERRORCODE_ALREADY_STARTED:
                return "Already started";
            default:
                return "unknown error code " + code;
        }
    }

    // ---- state for the client and the services ----

    static long getCapabilities() {
        return ourCapabilities;
    }

    static String getSessionName() {
        return ourSessionName;
    }

    static int getOOMEDumperStatus() {
        int status = OOMEDumper.getStatus();
        if (status == -1) {
            return ourIsOOMEDumperEnabledInCommandLine ? 1 : 0;
        }
        return status;
    }

    static int getCaptureMemoryThreshold() {
        return ourCaptureMemoryThreshold;
    }

    /**
     * Percent of the maximum heap at which a snapshot is captured; 0 turns the watch off.
     *
     * Some JVMs can't watch their heap at all: no heap pool takes a usage threshold (Epsilon),
     * or java.management isn't in the runtime image. The watch's class then fails to
     * initialise, an Error that would take the JVM down when it comes from the start-up. It
     * becomes a RuntimeException with the reason instead, now and at every later call, and the
     * value stays 0 since nothing watches.
     */
    static void setCaptureMemoryThreshold(int percent) {
        if (ourMemoryWatchFailure != null) {
            throw new RuntimeException(ourMemoryWatchFailure);
        }
        ourCaptureMemoryThreshold = percent;
        try {
            MemoryThresholdJVMTI.resetThreshold();
        } catch (Exception e) {
            throw new RuntimeException(e.toString());
        } catch (LinkageError e) {
            Throwable reason = e instanceof ExceptionInInitializerError && e.getCause() != null ? e.getCause() : e;
            ourMemoryWatchFailure = "Capture on used memory threshold is not available with this JVM: "
                    + reason.getMessage();
            ourCaptureMemoryThreshold = 0;
            throw new RuntimeException(ourMemoryWatchFailure);
        }
    }

    static synchronized long getMaxMemory() {
        if (ourMaxMemoryCached != 0) {
            return ourMaxMemoryCached;
        }
        if (!ourMaxMemoryMethodSearched) {
            ourMaxMemoryMethodSearched = true;
            try {
                ourMaxMemoryMethod = Runtime.getRuntime().getClass().getMethod("maxMemory", new Class<?>[0]);
            } catch (Throwable ignored) {
                // a JVM without it: the command line is all we know
            }
        }
        if (ourMaxMemoryMethod != null) {
            try {
                return ((Long) ourMaxMemoryMethod.invoke(Runtime.getRuntime(), new Object[0])).longValue();
            } catch (Exception e) {
                throw new RuntimeException(e.toString());
            }
        }
        ourMaxMemoryCached = ourMaxMemoryFromCommandLine;
        return ourMaxMemoryCached;
    }

    // ---- logging ----

    static void info(String message) {
        if (ourQuiet) {
            return;
        }
        System.err.println(APP_NAME + " " + message);
        System.err.flush();
    }

    static void logRequest(String message) {
        if (ourQuiet) {
            return;
        }
        System.err.print(APP_NAME);
        System.err.print(" ");
        System.err.println(message);
        System.err.flush();
    }
}
