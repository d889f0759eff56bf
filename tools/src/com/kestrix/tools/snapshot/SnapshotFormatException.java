package com.kestrix.tools.snapshot;

import java.io.IOException;

/**
 * A file that is not a snapshot this reader understands, or one that ends too early. The message
 * names what is wrong in words a user can act on, and where in the file it was found.
 */
public final class SnapshotFormatException extends IOException {
    private static final long serialVersionUID = 1L;

    public SnapshotFormatException(String message) {
        super(message);
    }
}
