package com.kestrix.tools.connect;

import java.io.PrintStream;

/**
 * A one-line bar redrawn in place on a terminal. When the output is not a terminal nothing is
 * drawn, so that logs and pipes get no carriage returns.
 */
final class ProgressBar {
    private static final int WIDTH = 30;

    private final PrintStream myOut;
    private final boolean myEnabled;
    private final String myLabel;
    private int myShown = -1;

    ProgressBar(PrintStream out, boolean enabled, String label) {
        myOut = out;
        myEnabled = enabled;
        myLabel = label;
    }

    /** Shows a percentage from 0 to 100; values out of range are clamped. */
    void percent(int percent) {
        int value = Math.max(0, Math.min(100, percent));
        if (!myEnabled || value == myShown) {
            return;
        }
        myShown = value;
        int filled = value * WIDTH / 100;
        myOut.print("\r" + myLabel + " [" + "#".repeat(filled) + " ".repeat(WIDTH - filled) + "] "
                + String.format("%3d%%", value));
        myOut.flush();
    }

    /** Shows how much of a known total is done; a total of 0 counts as complete. */
    void bytes(long done, long total) {
        percent(total <= 0 ? 100 : (int) (done * 100 / total));
    }

    /** Completes the line: at 100% after success, as it stood after a failure. */
    void finish(boolean success) {
        if (!myEnabled) {
            return;
        }
        if (success) {
            percent(100);
        }
        if (myShown >= 0) {
            myOut.println();
        }
    }
}
