package com.kestrix.programs;

/**
 * The smallest program to run under the agent: prints one line and ends normally. With the
 * argument "wait-for-agent" it first waits until the agent listens for clients.
 */
public class Hello {
    public static void main(String[] args) throws InterruptedException {
        if (args.length > 0 && args[0].equals("wait-for-agent")) {
            AgentStart.awaitListening();
        }
        System.out.println("hello from " + System.getProperty("java.version"));
    }
}
