package com.kestrix.connect;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.kestrix.test.Jvm;
import com.kestrix.test.LiveAgent;
import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.Socket;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Who may connect: a second host, made as a network namespace of its own joined to this one by
 * a veth pair, tries the agent's port. With onlylocal, and with listen= on loopback, it must
 * not get through; without them it does, which shows that the second host can reach the port
 * at all.
 */
class RemoteAddressTest {
    private static final String HERE = "10.199.%d.1";
    private static final String THERE = "10.199.%d.2";
    private static String ourNamespace;
    private static String ourLink;
    private static int ourSubnet;

    static List<Path> jdks() {
        return Jvm.jdks();
    }

    private static int run(String... command) throws IOException, InterruptedException {
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        byte[] output = process.getInputStream().readAllBytes();
        if (!process.waitFor(30, TimeUnit.SECONDS)) {
            process.destroyForcibly();
            return -1;
        }
        if (process.exitValue() != 0) {
            System.err.println(String.join(" ", command) + ": " + new String(output, StandardCharsets.UTF_8));
        }
        return process.exitValue();
    }

    @BeforeAll
    static void makeSecondHost() throws Exception {
        long pid = ProcessHandle.current().pid();
        ourSubnet = (int) (pid % 200) + 20;
        ourNamespace = "kjpns" + pid;
        ourLink = "kjpv" + pid % 100000;
        String here = String.format(HERE, ourSubnet);
        String there = String.format(THERE, ourSubnet);
        boolean made = run("ip", "netns", "add", ourNamespace) == 0
                && run("ip", "link", "add", ourLink, "type", "veth", "peer", "name", ourLink + "p") == 0
                && run("ip", "link", "set", ourLink + "p", "netns", ourNamespace) == 0
                && run("ip", "addr", "add", here + "/24", "dev", ourLink) == 0
                && run("ip", "link", "set", ourLink, "up") == 0
                && run("ip", "netns", "exec", ourNamespace, "ip", "addr", "add", there + "/24", "dev", ourLink + "p") == 0
                && run("ip", "netns", "exec", ourNamespace, "ip", "link", "set", ourLink + "p", "up") == 0;
        Assumptions.assumeTrue(made, "a second host needs network namespaces (root and iproute2); skipped here");
    }

    @AfterAll
    static void removeSecondHost() throws Exception {
        if (ourNamespace != null) {
            run("ip", "link", "del", ourLink);
            run("ip", "netns", "del", ourNamespace);
        }
    }

    /** Whether the second host gets a connection to the address and port within 5 s. */
    private static boolean connectsFromSecondHost(String address, int port) throws Exception {
        String probe = "exec 3<>/dev/tcp/" + address + "/" + port;
        return run("ip", "netns", "exec", ourNamespace, "timeout", "5", "bash", "-c", probe) == 0;
    }

    private static boolean connectsFromHere(String address, int port) {
        try (Socket socket = new Socket()) {
            socket.connect(new InetSocketAddress(address, port), 5000);
            return true;
        } catch (IOException e) {
            return false;
        }
    }

    @ParameterizedTest
    @MethodSource("jdks")
    void onlyLocalAndListenKeepOtherHostsOut(Path jdk, @TempDir Path dir) throws Exception {
        String here = String.format(HERE, ourSubnet);
        List<String> results = new ArrayList<>();
        for (String options : new String[] {"", "onlylocal", "listen=127.0.0.1:%d", "listen=" + here + ":%d"}) {
            int port = LiveAgent.freePort();
            boolean listen = options.startsWith("listen=");
            String agentOptions = (listen ? "" : "port=" + port + ",") + "dir=" + dir
                    + (options.isEmpty() ? "" : "," + String.format(options, port));
            try (LiveAgent agent = LiveAgent.launch(jdk, dir, agentOptions, port)) {
                agent.awaitStderr(listen ? "listening on " + String.format(options.substring(7), port) + "..."
                        : LiveAgent.LISTENING + port + "...", 60);
                agent.awaitStdout("ready", 60);
                results.add(options.replace(":%d", "") + ": there " + connectsFromSecondHost(here, port)
                        + ", loopback " + connectsFromHere("127.0.0.1", port));
            }
        }
        assertEquals(List.of(
                ": there true, loopback true",
                "onlylocal: there false, loopback true",
                "listen=127.0.0.1: there false, loopback true",
                "listen=" + here + ": there true, loopback false"), results);
    }
}
