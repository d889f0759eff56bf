package com.kestrix.runtime;

/** A request the agent refuses or cannot carry out; its message goes back to the client. */
public class AgentException extends Exception {
    private static final long serialVersionUID = 1L;

    public AgentException(String message) {
        super(message);
    }
}
