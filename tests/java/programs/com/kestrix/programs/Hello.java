package com.kestrix.programs;

/**
 * The smallest program to run under the agent: prints one line and ends normally. With the
 * argument "wait-for-agent" it first waits (up to a minute) until the agent listens for clients,
 * which it does on a thread of its own once the JVM has started.
 */
public class Hello {
    public static void main(String[] args) throws InterruptedException {
        if (args.length > 0 && args[0].equals("wait-for-agent")) {
            for (int i = 0; i < 6000 && !agentListens(); i++) {
                Thread.sleep(10);
            }
        }
        System.out.println("hello from " + System.getProperty("java.version"));
    }

    private static boolean agentListens() {
        for (Thread thread : Thread.getAllStackTraces().keySet()) {
            if (thread.getName().equals("KJPAgent-RequestListener")) {
                return true;
            }
        }
        return false;
    }
}
