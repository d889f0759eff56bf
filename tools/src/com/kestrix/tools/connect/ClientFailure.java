package com.kestrix.tools.connect;

/** A failure on the client's side, such as a refused connection: its message is one line for the user. */
public final class ClientFailure extends RuntimeException {
    private static final long serialVersionUID = 1L;

    public ClientFailure(String message) {
        super(message);
    }
}
