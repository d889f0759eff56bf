package com.kestrix.runtime;

import java.lang.management.ManagementFactory;
import java.lang.management.MemoryNotificationInfo;
import java.lang.management.MemoryPoolMXBean;
import java.lang.management.MemoryType;
import java.util.Iterator;

import javax.management.Notification;
import javax.management.NotificationEmitter;
import javax.management.NotificationListener;

/**
 * Captures one snapshot when the old generation passes a share of its maximum, then turns the
 * watch off until a client sets a new share.
 */
final class MemoryThresholdJVMTI {
    private static final MemoryPoolMXBean ourTenuredGenPool = findTenuredGenPool();

    static {
        NotificationEmitter emitter = (NotificationEmitter) ManagementFactory.getMemoryMXBean();
        emitter.addNotificationListener(new NotificationListener() {
            public void handleNotification(Notification notification, Object handback) {
                if (MemoryNotificationInfo.MEMORY_THRESHOLD_EXCEEDED.equals(notification.getType())) {
                    Core.captureMemoryOnThreshold();
                    Core.setCaptureMemoryThreshold(0);
                }
            }
        }, null, null);
    }

    private MemoryThresholdJVMTI() {
    }

    // The first heap pool that supports a usage threshold: the one that fills up before the JVM fails.
    private static MemoryPoolMXBean findTenuredGenPool() {
        for (Iterator<MemoryPoolMXBean> pools = ManagementFactory.getMemoryPoolMXBeans().iterator(); pools.hasNext();) {
            MemoryPoolMXBean pool = pools.next();
            if (pool.getType() == MemoryType.HEAP && pool.isUsageThresholdSupported()) {
                return pool;
            }
        }
        throw new RuntimeException("Could not find tenured space");
    }

    /** Arms the watch at the current share; 0 turns it off. */
    static void resetThreshold() {
        long max = ourTenuredGenPool.getUsage().getMax();
        // A pool without a defined maximum (-1) can't be watched by share.
        ourTenuredGenPool.setUsageThreshold(Math.max(0, max * Core.getCaptureMemoryThreshold() / 100));
    }
}
