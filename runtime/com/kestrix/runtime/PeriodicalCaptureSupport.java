package com.kestrix.runtime;

import java.util.Timer;
import java.util.TimerTask;

/**
 * Snapshots at a fixed period. The maximum count is only kept for the client to read: the timer
 * runs until the next setup.
 */
final class PeriodicalCaptureSupport {
    private static long ourCapturePeriodSec = -1;
    private static int ourMaxSnapshotCount = -1;
    private static volatile int ourAlreadyCapturedSnapshotCount;
    private static Timer ourTimer;

    private PeriodicalCaptureSupport() {
    }

    /** A period of -1 turns periodic capture off. */
    static synchronized void setup(long periodSec, int maxSnapshotCount) {
        if (ourTimer != null) {
            ourTimer.cancel();
            ourTimer = null;
        }
        ourCapturePeriodSec = periodSec;
        ourMaxSnapshotCount = maxSnapshotCount;
        ourAlreadyCapturedSnapshotCount = 0;
        if (periodSec == -1) {
            return;
        }
        Timer timer;
        try {
            timer = new Timer("KJPAgent-PeriodicCapturer", true);
        } catch (Throwable e) {
            timer = new Timer(true);
        }
        long periodMs = periodSec * 1000;
        try {
            timer.scheduleAtFixedRate(new TimerTask() {
                public void run() {
                    Core.capturePeriodicMemorySnapshot();
                    ourAlreadyCapturedSnapshotCount++;
                }
            }, periodMs, periodMs);
        } catch (RuntimeException e) {
            // A bad period leaves no timer thread behind.
            timer.cancel();
            throw e;
        }
        ourTimer = timer;
    }

    static long getCapturePeriodSec() {
        return ourCapturePeriodSec;
    }

    static int getMaxSnapshotCount() {
        return ourMaxSnapshotCount;
    }

    static int getAlreadyCapturedSnapshotCount() {
        return ourAlreadyCapturedSnapshotCount;
    }
}
