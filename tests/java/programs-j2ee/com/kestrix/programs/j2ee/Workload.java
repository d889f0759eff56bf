package com.kestrix.programs.j2ee;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.charset.StandardCharsets;
import java.rmi.Remote;
import java.rmi.registry.LocateRegistry;
import java.rmi.registry.Registry;
import java.rmi.server.RMIServerSocketFactory;
import java.rmi.server.UnicastRemoteObject;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.util.Hashtable;
import javax.naming.Context;
import javax.naming.InitialContext;
import javax.naming.NamingException;

/**
 * What the servlets of both containers do, outside the servlet API so that the javax and the
 * jakarta program share it: an H2 database in memory, one statement per request, JNDI lookups,
 * and the conversation with the test (the bound port on standard output, standard input's end
 * as the signal to stop).
 *
 * URIs: /a looks up "greeting" through JNDI, runs the prepared ITEM_QUERY and includes /part;
 * /b runs the plain COUNT_QUERY and forwards to /view; /q runs ITEM_QUERY alone; /fail throws;
 * /slow answers slowly, for a client that leaves.
 */
public final class Workload {
    public static final String ITEM_QUERY = "SELECT name FROM item WHERE id = ?";
    public static final String COUNT_QUERY = "SELECT COUNT(*) FROM item";
    public static final String GREETING = "greeting";

    private final Connection myConnection;

    public Workload() throws SQLException {
        myConnection = DriverManager.getConnection("jdbc:h2:mem:web;DB_CLOSE_DELAY=-1");
        try (Statement s = myConnection.createStatement()) {
            s.execute("CREATE TABLE item (id INT PRIMARY KEY, name VARCHAR(40))");
            s.execute("INSERT INTO item SELECT X, 'item ' || X FROM SYSTEM_RANGE(0, 99)");
        }
    }

    /** The prepared statement of /a and /q: one item by its number. */
    public String item(int id) throws SQLException {
        try (PreparedStatement ps = myConnection.prepareStatement(ITEM_QUERY)) {
            ps.setInt(1, Math.floorMod(id, 100));
            try (ResultSet rs = ps.executeQuery()) {
                return rs.next() ? rs.getString(1) : "";
            }
        }
    }

    /** The plain statement of /b. */
    public long count() throws SQLException {
        try (Statement s = myConnection.createStatement(); ResultSet rs = s.executeQuery(COUNT_QUERY)) {
            rs.next();
            return rs.getLong(1);
        }
    }

    /**
     * For a client that reads the start of the answer and leaves: the start at once, then, after
     * a pause, more than any socket buffer holds, so that a write fails inside the servlet.
     */
    public static void writeToLeavingClient(OutputStream out) throws IOException {
        out.write("started\n".getBytes(StandardCharsets.US_ASCII));
        out.flush();
        try {
            Thread.sleep(300);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        byte[] chunk = new byte[64 * 1024];
        for (int i = 0; i < 256; i++) {
            out.write(chunk);
            out.flush();
        }
    }

    /** One JNDI lookup through a context the container doesn't provide: the JDK's RMI registry. */
    public static Object lookup(Hashtable<String, String> environment, String name) throws NamingException {
        Context context = new InitialContext(environment);
        try {
            return context.lookup(name);
        } finally {
            context.close();
        }
    }

    /** What the registry hands out under GREETING. */
    public interface Greeting extends Remote {
    }

    private static final class GreetingImpl implements Greeting {
    }

    /**
     * An RMI registry on a free port of the loopback address holding GREETING, and the JNDI
     * environment that reaches it; the registry lives until the JVM ends.
     */
    public static Hashtable<String, String> startRegistry() throws IOException {
        int[] port = new int[1];
        RMIServerSocketFactory sockets = p -> {
            ServerSocket s = new ServerSocket(p, 50, InetAddress.getLoopbackAddress());
            port[0] = s.getLocalPort();
            return s;
        };
        Registry registry = LocateRegistry.createRegistry(0, null, sockets);
        GreetingImpl greeting = new GreetingImpl();
        registry.rebind(GREETING, UnicastRemoteObject.exportObject(greeting, 0));
        Hashtable<String, String> environment = new Hashtable<>();
        environment.put(Context.INITIAL_CONTEXT_FACTORY, "com.sun.jndi.rmi.registry.RegistryContextFactory");
        environment.put(Context.PROVIDER_URL, "rmi://127.0.0.1:" + port[0]);
        return environment;
    }

    /** Tells the test the port, then waits until standard input ends or says "stop". */
    public static void serveUntilStopped(int port) throws IOException {
        System.out.println("port " + port);
        System.out.flush();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        String line;
        while ((line = in.readLine()) != null && !line.trim().equals("stop")) {
            // anything else is ignored
        }
    }

    public void close() throws SQLException {
        myConnection.close();
    }
}
