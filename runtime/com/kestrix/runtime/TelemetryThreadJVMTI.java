package com.kestrix.runtime;

import java.io.DataOutputStream;
import java.io.IOException;
import java.lang.management.ClassLoadingMXBean;
import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryUsage;
import java.lang.management.OperatingSystemMXBean;
import java.lang.management.ThreadInfo;
import java.lang.management.ThreadMXBean;
import java.util.ArrayList;
import java.util.Iterator;
import java.util.List;

import com.kestrix.api.TelemetryRecord;

/**
 * Samples the JVM's telemetry once a second and hands it to the agent. A bean the JVM lacks
 * leaves its values at 0; nothing here ever reports a failure.
 */
final class TelemetryThreadJVMTI extends Thread {
    /** Prefix of the native methods the agent wraps; their frames are folded in dumps. */
    static final String NATIVE_WRAPPER_PREFIX = "$$KJP$$";
    private static final String CALLBACK_CLASS = "com.kestrix.runtime.Callback";
    private static final long PERIOD_MS = 1000;
    // Short-lived JVMs end before it: they never pay for the management beans.
    private static final long FIRST_PASS_DELAY_MS = 300;
    // The deadlock search is costly: one pass in this many does it.
    private static final int DEADLOCK_CHECK_PERIOD = 5;

    private int myRunCount;
    private final ArrayList<String> myCollectorNames = new ArrayList<String>(2);

    TelemetryThreadJVMTI() {
        super("KJPAgent-Telemetry");
        setDaemon(true);
        setPriority(Thread.NORM_PRIORITY);
    }

    public void run() {
        try {
            Thread.sleep(FIRST_PASS_DELAY_MS);
        } catch (InterruptedException e) {
            return;
        }
        // The application may be out of heap at any moment, this thread's first allocations
        // included: every step is tried again on the next pass rather than ending telemetry.
        boolean dumperEnabled = false;
        int[] constants = null;
        int[] values = null;
        while (true) {
            if (!dumperEnabled) {
                try {
                    OOMEDumper.enable();
                    dumperEnabled = true;
                } catch (Throwable e) {
                    // again on the next pass
                }
            }
            try {
                if (constants == null) {
                    constants = new int[TelemetryRecord.TELEC_FIELD_COUNT];
                    values = new int[TelemetryRecord.TELE_FIELD_COUNT];
                }
                java.util.Arrays.fill(constants, 0);
                java.util.Arrays.fill(values, 0);
                runImpl(constants, values);
            } catch (Throwable e) {
                // One bad pass (a bean that throws, a short-lived OutOfMemoryError) must not end
                // telemetry for the rest of the JVM's life: the next pass starts afresh.
            }
            try {
                Thread.sleep(PERIOD_MS);
            } catch (InterruptedException e) {
                return;
            }
        }
    }

    /*
     * Each bean is read on its own: one that is missing or throws leaves its own values at 0
     * and the rest of the sample stands. Reading can throw even where the bean exists; some
     * JVMs report a pool's committed size above its maximum, and the MemoryUsage for it then
     * fails to construct.
     */
    private void runImpl(int[] constants, int[] values) {
        try {
            MemoryUsage heap = ManagementFactory.getMemoryMXBean().getHeapMemoryUsage();
            values[TelemetryRecord.TELE_HEAP_MEMORY_USED_KB] = (int) (heap.getUsed() / 1024);
            values[TelemetryRecord.TELE_HEAP_MEMORY_COMMITTED_KB] = (int) (heap.getCommitted() / 1024);
            constants[TelemetryRecord.TELEC_HEAP_MEMORY_MAX_KB_PROP_INDEX] = (int) (heap.getMax() / 1024);
        } catch (Throwable ignored) {
            // no heap values in this sample
        }
        try {
            MemoryUsage nonHeap = ManagementFactory.getMemoryMXBean().getNonHeapMemoryUsage();
            values[TelemetryRecord.TELE_NON_HEAP_MEMORY_USED_KB] = (int) (nonHeap.getUsed() / 1024);
            values[TelemetryRecord.TELE_NON_HEAP_MEMORY_COMMITTED_KB] = (int) (nonHeap.getCommitted() / 1024);
            constants[TelemetryRecord.TELEC_NON_HEAP_MEMORY_MAX_KB_PROP_INDEX] = (int) (nonHeap.getMax() / 1024);
        } catch (Throwable ignored) {
            // no non-heap values in this sample
        }

        try {
            ClassLoadingMXBean classLoading = ManagementFactory.getClassLoadingMXBean();
            values[TelemetryRecord.TELE_LOADED_CLASS_COUNT] = classLoading.getLoadedClassCount();
            constants[TelemetryRecord.TELEC_UNLOADED_CLASS_COUNT_PROP_INDEX] =
                    (int) classLoading.getUnloadedClassCount();
        } catch (Throwable ignored) {
            // no class counts in this sample
        }

        ThreadMXBean threads = null;
        try {
            threads = ManagementFactory.getThreadMXBean();
            values[TelemetryRecord.TELE_LIVE_THREAD_COUNT] = threads.getThreadCount();
            values[TelemetryRecord.TELE_DAEMON_THREAD_COUNT] = threads.getDaemonThreadCount();
            constants[TelemetryRecord.TELEC_PEAK_THREAD_COUNT_PROP_INDEX] = threads.getPeakThreadCount();
            constants[TelemetryRecord.TELEC_CREATED_THREAD_COUNT_PROP_INDEX] =
                    (int) threads.getTotalStartedThreadCount();
        } catch (Throwable ignored) {
            // no thread counts in this sample
        }
        if (threads != null && !Core.ourIsIBM && myRunCount % DEADLOCK_CHECK_PERIOD == 0) {
            try {
                long[] deadlocked = threads.findMonitorDeadlockedThreads();
                if (deadlocked != null && deadlocked.length > 0) {
                    constants[TelemetryRecord.TELEC_DEADLOCK_FOUND_PROP_INDEX] = 1;
                }
            } catch (Throwable ignored) {
                // no deadlock search in this pass
            }
        }

        try {
            long totalTime = 0;
            List<GarbageCollectorMXBean> collectors = ManagementFactory.getGarbageCollectorMXBeans();
            for (Iterator<GarbageCollectorMXBean> i = collectors.iterator(); i.hasNext();) {
                GarbageCollectorMXBean collector = i.next();
                long count = Math.max(0, collector.getCollectionCount());
                long time = Math.max(0, collector.getCollectionTime());
                int position = positionOfCollector(collector.getName());
                if (position == 0) {
                    values[TelemetryRecord.TELE_GC_COLLECTION1_COUNT] += (int) count;
                } else if (position == 1) {
                    values[TelemetryRecord.TELE_GC_COLLECTION2_COUNT] += (int) count;
                }
                totalTime += time;
            }
            values[TelemetryRecord.TELE_GC_TOTAL_COLLECTION_TIME_MS] = (int) totalTime;
        } catch (Throwable ignored) {
            // no collection figures in this sample
        }

        try {
            OperatingSystemMXBean system = ManagementFactory.getOperatingSystemMXBean();
            values[TelemetryRecord.TELE_PROCESSOR_COUNT] = system.getAvailableProcessors();
        } catch (Throwable ignored) {
            // no processor count in this sample
        }

        long cpuTimeNs = Core.getProcessCPUTimeNs();
        if (cpuTimeNs > 0) {
            values[TelemetryRecord.TELE_CPU_TIME_MS] = (int) (cpuTimeNs / 1000000);
        }

        Core.storeTelemetryRecord(constants, values);
        myRunCount++;
    }

    /**
     * The position of a collector in order of first sight. A new one is named in the session's
     * properties as "collector.name.1", ".2" and so on; the first two have a count of their own.
     */
    private int positionOfCollector(String name) {
        int position = myCollectorNames.indexOf(name);
        if (position == -1) {
            myCollectorNames.add(name);
            position = myCollectorNames.size() - 1;
            Core.setProperty("collector.name." + (position + 1), name);
        }
        return position;
    }

    /** Writes the thread-dump response: uptime, then every live thread with its folded stack. */
    static void processGetJVMThreadDumpImpl(DataOutputStream out) throws IOException {
        ThreadMXBean threads = ManagementFactory.getThreadMXBean();
        ThreadInfo[] infos = threads.getThreadInfo(threads.getAllThreadIds(), Integer.MAX_VALUE);
        boolean contention = threads.isThreadContentionMonitoringSupported()
                && threads.isThreadContentionMonitoringEnabled();
        // Threads that ended meanwhile come back as null and are left out.
        List<ThreadInfoRes> result = new ArrayList<ThreadInfoRes>(infos.length);
        for (int i = 0; i < infos.length; i++) {
            if (infos[i] != null) {
                result.add(toRes(infos[i], contention));
            }
        }
        Packet.writeHeader(out, Protocol.PACKET_OK_RESP);
        Packet.writeLong(out, ManagementFactory.getRuntimeMXBean().getUptime());
        Packet.writeInt(out, result.size());
        for (Iterator<ThreadInfoRes> i = result.iterator(); i.hasNext();) {
            i.next().write(out);
        }
    }

    private static ThreadInfoRes toRes(ThreadInfo info, boolean contention) {
        ThreadInfoRes res = new ThreadInfoRes();
        res.myThreadId = info.getThreadId();
        res.myThreadName = info.getThreadName();
        res.myBlockedTime = contention ? info.getBlockedTime() : -1;
        res.myBlockedCount = contention ? info.getBlockedCount() : -1;
        res.myWaitedTime = contention ? info.getWaitedTime() : -1;
        res.myWaitedCount = contention ? info.getWaitedCount() : -1;
        res.myLockName = info.getLockName();
        res.myLockOwnerId = info.getLockOwnerId();
        res.myInNative = info.isInNative();
        res.mySuspended = info.isSuspended();
        res.myState = info.getThreadState().ordinal();
        res.myStackTrace = foldNativeWrappers(info.getStackTrace());
        return res;
    }

    /**
     * The stack as the program sees it. A wrapped native method shows as two frames: the native
     * under its prefixed name, then the Java wrapper under the method's own name. They become
     * one frame with the wrapper's class, method and file, and the native frame's line. A thread
     * caught inside a probe shows no frame of the agent's callback class.
     */
    static StackTraceElementRes[] foldNativeWrappers(StackTraceElement[] stack) {
        List<StackTraceElementRes> frames = new ArrayList<StackTraceElementRes>(stack.length);
        for (int i = 0; i < stack.length; i++) {
            StackTraceElement frame = stack[i];
            if (CALLBACK_CLASS.equals(frame.getClassName())) {
                continue;
            }
            if (frame.getMethodName().startsWith(NATIVE_WRAPPER_PREFIX) && i + 1 < stack.length) {
                StackTraceElement wrapper = stack[i + 1];
                frames.add(new StackTraceElementRes(wrapper.getClassName(), wrapper.getMethodName(),
                        wrapper.getFileName(), frame.getLineNumber()));
                i++;
            } else {
                frames.add(new StackTraceElementRes(frame.getClassName(), frame.getMethodName(), frame.getFileName(),
                        frame.getLineNumber()));
            }
        }
        return frames.toArray(new StackTraceElementRes[frames.size()]);
    }
}
