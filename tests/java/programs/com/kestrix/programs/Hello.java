package com.kestrix.programs;

/** The smallest program to run under the agent: prints one line and ends normally. */
public class Hello {
    public static void main(String[] args) {
        System.out.println("hello from " + System.getProperty("java.version"));
    }
}
