package com.kestrix.runtime;

import java.io.IOException;
import java.io.OutputStream;
import java.net.Socket;
import java.util.Timer;
import java.util.TimerTask;

/**
 * The output of a client connection, with a limit on how long one write may make no progress.
 * java.net has no write timeout: a client that stops reading a long answer (a snapshot
 * transfer, a table update) would hold the listener, and with it every other client, for good.
 * Writes go out in pieces, and a piece that the peer hasn't taken within the request limit
 * closes the socket, which ends the blocked write with an exception like any broken connection.
 * A client that reads slowly but steadily is never cut off.
 */
final class WriteDeadline extends OutputStream {
    /** The most that one piece may hold: small enough that each piece shows progress. */
    static final int PIECE_SIZE = 8192;

    private static Timer ourWatchdog;

    private final OutputStream myOut;
    private final Socket mySocket;
    private final TimerTask myCheck;
    /** When the piece being written began, by System.nanoTime; 0 while no piece is written. */
    private volatile long myPieceStartNs;
    private volatile boolean myExpired;

    private WriteDeadline(Socket socket) throws IOException {
        mySocket = socket;
        myOut = socket.getOutputStream();
        myCheck = new TimerTask() {
            @Override
            public void run() {
                check();
            }
        };
    }

    /**
     * The socket's output, guarded. The limit is RequestProcessing.ourRequestTimeoutMs as it
     * stands when the connection opens; it is watched at a quarter of it, at least once a second.
     */
    static OutputStream guard(Socket socket) throws IOException {
        WriteDeadline guarded = new WriteDeadline(socket);
        long period = Math.max(1, Math.min(1000, RequestProcessing.ourRequestTimeoutMs / 4));
        watchdog().schedule(guarded.myCheck, period, period);
        return guarded;
    }

    // One daemon thread for the agent, made when the first client connects; named as the
    // agent's own, so that no profiling engine looks at it.
    private static synchronized Timer watchdog() {
        if (ourWatchdog == null) {
            ourWatchdog = new Timer("KJPAgent-WriteWatchdog", true);
        }
        return ourWatchdog;
    }

    private void check() {
        long start = myPieceStartNs;
        if (start != 0 && System.nanoTime() - start > RequestProcessing.ourRequestTimeoutMs * 1_000_000L) {
            myExpired = true;
            myCheck.cancel();
            try {
                mySocket.close();
            } catch (IOException ignored) {
                // closed already: the write ends either way
            }
        }
    }

    @Override
    public void write(int b) throws IOException {
        write(new byte[] {(byte) b}, 0, 1);
    }

    @Override
    public void write(byte[] b, int off, int len) throws IOException {
        for (int done = 0; done < len; ) {
            int piece = Math.min(PIECE_SIZE, len - done);
            myPieceStartNs = System.nanoTime() | 1;
            try {
                myOut.write(b, off + done, piece);
            } catch (IOException e) {
                throw myExpired ? new IOException("the client took nothing for "
                        + RequestProcessing.ourRequestTimeoutMs + " ms", e) : e;
            } finally {
                myPieceStartNs = 0;
            }
            done += piece;
        }
    }

    @Override
    public void flush() throws IOException {
        myOut.flush();
    }

    @Override
    public void close() throws IOException {
        myCheck.cancel();
        myOut.close();
    }
}
