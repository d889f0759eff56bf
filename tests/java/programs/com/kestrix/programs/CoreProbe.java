package com.kestrix.programs;

import java.io.IOException;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.List;

/**
 * Runs under the agent and talks to the runtime class that the agent defined into the system
 * class loader: reads its port, calls its natives and checks the descriptors it finds for
 * sockets against what the kernel says. Prints one line per finding, prefixed "probe: ".
 */
public final class CoreProbe {
    private static Class<?> core;

    public static void main(String[] args) throws Exception {
        core = Class.forName("com.kestrix.runtime.Core", false, ClassLoader.getSystemClassLoader());
        report("core loader is system: " + (core.getClassLoader() == ClassLoader.getSystemClassLoader()));
        java.lang.reflect.Field portField = core.getDeclaredField("ourPort");
        portField.setAccessible(true);
        AgentStart.awaitListening();
        int agentPort = portField.getInt(null);
        report("agent port bound: " + (agentPort > 0));

        report("status: " + call("getStatus"));
        report("monitors: " + call("startMonitorProfiling") + " " + call("startMonitorProfiling")
                + " " + call("getStatus"));
        call("stopMonitorProfiling");
        report("status after stop: " + call("getStatus"));
        try {
            call("startCPUProfiling", 8L, null, null);
            report("tracing without times: no exception");
        } catch (RuntimeException e) {
            report("tracing without times: " + e.getMessage());
        }
        report("uptime positive: " + ((Long) call("getUptimeMs") > 0));
        report("host id given: " + !((String) call("getHostID")).isEmpty());
        report("statistics given: " + ((String) call("getDatabaseStatistics")).contains("Total size"));
        call("setProperty", "kjp.probe", null);

        report("null socket: " + call("getSocketFD", (Object) null));
        report("unconnected socket: " + call("getSocketFD", new Socket()));
        try (Socket toAgent = new Socket(InetAddress.getLoopbackAddress(), agentPort)) {
            report("socket to agent: " + check(toAgent));
        }
        try (ServerSocket server = new ServerSocket(0, 5, InetAddress.getLoopbackAddress());
             Socket client = new Socket(InetAddress.getLoopbackAddress(), server.getLocalPort());
             Socket accepted = server.accept()) {
            report("client socket: " + check(client));
            report("accepted socket: " + check(accepted));
        }
    }

    /** Findings carry a prefix, so that whatever else reaches stdout can't be mistaken for one. */
    private static void report(String finding) {
        System.out.println("probe: " + finding);
    }

    private static Object call(String name, Object... arguments) throws Exception {
        for (Method method : core.getDeclaredMethods()) {
            if (method.getName().equals(name) && method.getParameterCount() == arguments.length) {
                method.setAccessible(true);
                try {
                    return method.invoke(null, arguments);
                } catch (InvocationTargetException e) {
                    if (e.getCause() instanceof RuntimeException) {
                        throw (RuntimeException) e.getCause();
                    }
                    throw e;
                }
            }
        }
        throw new NoSuchMethodException(name);
    }

    /** "ok" when the native's descriptor is the kernel's socket with this socket's local port. */
    private static String check(Socket socket) throws Exception {
        int fd = (Integer) call("getSocketFD", socket);
        if (fd < 0) {
            return "no descriptor";
        }
        String link = Files.readSymbolicLink(Paths.get("/proc/self/fd/" + fd)).toString();
        if (!link.startsWith("socket:[")) {
            return "descriptor " + fd + " is " + link;
        }
        String inode = link.substring("socket:[".length(), link.length() - 1);
        int port = localPortOf(inode);
        return port == socket.getLocalPort() ? "ok" : "descriptor " + fd + " has port " + port;
    }

    /** The local port of the TCP socket with this inode, from /proc/net/tcp and tcp6; -1 if none. */
    private static int localPortOf(String inode) throws IOException {
        for (String table : new String[] {"/proc/net/tcp", "/proc/net/tcp6"}) {
            Path path = Paths.get(table);
            if (!Files.exists(path)) {
                continue;
            }
            List<String> lines = Files.readAllLines(path);
            for (String line : lines.subList(1, lines.size())) {
                String[] fields = line.trim().split("\\s+");
                if (fields.length > 9 && fields[9].equals(inode)) {
                    String local = fields[1];
                    return Integer.parseInt(local.substring(local.indexOf(':') + 1), 16);
                }
            }
        }
        return -1;
    }
}
