package com.kestrix.tools.kjp;

import java.io.PrintStream;

/**
 * What kjp is busy with, for work that takes long enough to be noticed, on one line of the
 * terminal redrawn in place. Without a terminal nothing is written, so that pipes and logs stay
 * clean.
 */
final class Progress {
    static final Progress NONE = new Progress(null);

    private final PrintStream myOut;
    private String myPhase;
    private int myShown = -1;
    private long myLastDraw;

    Progress(PrintStream out) {
        myOut = out;
    }

    /** Progress on standard error when there is a terminal, else none. */
    static Progress onTerminal(PrintStream err) {
        return System.console() != null ? new Progress(err) : NONE;
    }

    void phase(String text) {
        done();
        myPhase = text;
        myShown = -1;
        draw(myPhase + " ...");
    }

    void bytes(long done, long total) {
        int percent = total <= 0 ? 100 : (int) Math.min(100, done * 100 / total);
        long now = System.nanoTime();
        if (myOut == null || percent == myShown || now - myLastDraw < 100_000_000L) {
            return;
        }
        myShown = percent;
        myLastDraw = now;
        draw(myPhase + String.format(" %3d%%", percent));
    }

    /** Ends the line of the current phase. */
    void done() {
        if (myOut != null && myPhase != null) {
            myOut.print("\r\033[K");
            myOut.flush();
        }
        myPhase = null;
    }

    private void draw(String line) {
        if (myOut != null) {
            myOut.print("\r\033[K" + line);
            myOut.flush();
        }
    }
}
