package com.kestrix.programs;

import com.kestrix.programs.lib.LibA;
import java.lang.management.ManagementFactory;
import java.lang.reflect.Method;
import java.lang.management.ThreadMXBean;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Comparator;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.locks.LockSupport;

/**
 * Threads whose CPU profile is known in advance, for the CPU profiling tests. Arguments are
 * scenario names, run one after the other, each with its figure after a colon:
 *
 * <ul>
 * <li>apart:MS: threads "alpha" and "beta" side by side, each burning MS ms of its CPU time, alpha
 * in alphaWork(), beta in betaWork().</li>
 * <li>spin:MS: thread "spinner" calls spinFor() once for MS ms of its CPU time, between two
 * sleeps, and prints "spinner cpu ns N" with the CPU time the call really took.</li>
 * <li>idle:MS: threads "sleeper", "waiter", "parker" and "acceptor" sit in Thread.sleep,
 * Object.wait, LockSupport.park and ServerSocket.accept for MS ms, each inside a method named
 * waitingRoom...(); thread "blocked" waits as long for a monitor inside wallBlocked() and prints
 * "blocked wall ns N", the wall time of that call.</li>
 * <li>count:N: thread "counter" runs countLoop(), which calls tick() exactly N times, and then
 * parks until the JVM ends.</li>
 * <li>library:N: thread "library" calls, N times, appWork(), which enters the library
 * (LibA.outer, LibA.inner, LibB.deep) that calls back into callback(); then sorts a list through
 * Collections.sort with a comparator of this program.</li>
 * </ul>
 */
public class CpuScenarios {
    static volatile long ourSink;
    static final ThreadMXBean BEAN = ManagementFactory.getThreadMXBean();

    static long cpuNow() {
        return BEAN.getCurrentThreadCpuTime();
    }

    static long lcg(long x, int rounds) {
        for (int i = 0; i < rounds; i++) {
            x = x * 6364136223846793005L + 1442695040888963407L;
        }
        return x;
    }

    /** Burns the given CPU time of the calling thread in this method's own code. */
    static void spinFor(long nanos) {
        long end = cpuNow() + nanos;
        long x = 17;
        while (cpuNow() < end) {
            for (int i = 0; i < 20_000; i++) {
                x = x * 6364136223846793005L + 1442695040888963407L;
            }
        }
        ourSink += x;
    }

    static void alphaWork(long nanos) {
        long end = cpuNow() + nanos;
        long x = 3;
        while (cpuNow() < end) {
            for (int i = 0; i < 50_000; i++) {
                x = x * 6364136223846793005L + 1442695040888963407L;
            }
        }
        ourSink += x;
    }

    static void betaWork(long nanos) {
        long end = cpuNow() + nanos;
        long x = 5;
        while (cpuNow() < end) {
            for (int i = 0; i < 50_000; i++) {
                x = x * 2862933555777941757L + 3037000493L;
            }
        }
        ourSink += x;
    }

    static void apart(final long millis) throws InterruptedException {
        Thread alpha = new Thread(() -> alphaWork(millis * 1_000_000L), "alpha");
        Thread beta = new Thread(() -> betaWork(millis * 1_000_000L), "beta");
        alpha.start();
        beta.start();
        alpha.join();
        beta.join();
    }

    static void spin(final long millis) throws InterruptedException {
        Thread spinner = new Thread(() -> {
            try {
                // The sleeps around the call keep its edges away from the thread's first and
                // last sample.
                Thread.sleep(100);
                long before = cpuNow();
                spinFor(millis * 1_000_000L);
                long used = cpuNow() - before;
                System.out.println("spinner cpu ns " + used);
                Thread.sleep(100);
            } catch (InterruptedException e) {
                throw new IllegalStateException(e);
            }
        }, "spinner");
        spinner.start();
        spinner.join();
    }

    static void waitingRoomSleep(long millis) throws InterruptedException {
        Thread.sleep(millis);
    }

    static void waitingRoomWait(Object lock, boolean[] released) throws InterruptedException {
        synchronized (lock) {
            while (!released[0]) {
                lock.wait();
            }
        }
    }

    static void waitingRoomPark(boolean[] released) {
        while (!released[0]) {
            LockSupport.park();
        }
    }

    static Socket waitingRoomAccept(ServerSocket server) throws Exception {
        return server.accept();
    }

    static void wallBlocked(Object monitor) {
        synchronized (monitor) {
            ourSink++;
        }
    }

    static void idle(final long millis) throws Exception {
        final Object lock = new Object();
        final boolean[] released = new boolean[1];
        final Object monitor = new Object();
        final ServerSocket server = new ServerSocket(0, 1, InetAddress.getLoopbackAddress());
        final CountDownLatch ready = new CountDownLatch(5);
        List<Thread> threads = new ArrayList<>();
        threads.add(new Thread(() -> {
            try {
                ready.countDown();
                waitingRoomSleep(millis);
            } catch (InterruptedException e) {
                throw new IllegalStateException(e);
            }
        }, "sleeper"));
        threads.add(new Thread(() -> {
            try {
                ready.countDown();
                waitingRoomWait(lock, released);
            } catch (InterruptedException e) {
                throw new IllegalStateException(e);
            }
        }, "waiter"));
        final Thread parker = new Thread(() -> {
            ready.countDown();
            waitingRoomPark(released);
        }, "parker");
        threads.add(parker);
        threads.add(new Thread(() -> {
            try {
                ready.countDown();
                waitingRoomAccept(server).close();
            } catch (Exception e) {
                throw new IllegalStateException(e);
            }
        }, "acceptor"));
        threads.add(new Thread(() -> {
            ready.countDown();
            long before = System.nanoTime();
            wallBlocked(monitor);
            System.out.println("blocked wall ns " + (System.nanoTime() - before));
        }, "blocked"));
        synchronized (monitor) {
            for (Thread thread : threads) {
                thread.start();
            }
            ready.await();
            Thread.sleep(millis);
        }
        synchronized (lock) {
            released[0] = true;
            lock.notifyAll();
        }
        LockSupport.unpark(parker);
        new Socket(server.getInetAddress(), server.getLocalPort()).close();
        for (Thread thread : threads) {
            thread.join();
        }
        server.close();
    }

    static long tick() {
        // Enough work that lcg's own time stays well above tick's, which holds the cost of the
        // probes around the call to lcg: on a loaded machine a read of the thread clock can
        // cost over a microsecond.
        long x = lcg(ourSink, 50_000);
        ourSink = x;
        return x;
    }

    static void countLoop(int times) {
        for (int i = 0; i < times; i++) {
            tick();
        }
    }

    /** The counter stays alive until the JVM ends: its calls must be in the exit snapshot too. */
    static void count(final int times) throws InterruptedException {
        final java.util.concurrent.CountDownLatch counted = new java.util.concurrent.CountDownLatch(1);
        Thread counter = new Thread(() -> {
            countLoop(times);
            counted.countDown();
            while (true) {
                java.util.concurrent.locks.LockSupport.park();
            }
        }, "counter");
        counter.setDaemon(true);
        counter.start();
        counted.await();
    }

    /** Called back from the library. */
    public static void callback() {
        ourSink += 1;
    }

    static final class ByValue implements Comparator<Long> {
        @Override
        public int compare(Long a, Long b) {
            return Long.compare(a, b);
        }
    }

    static void appWork() {
        LibA.outer();
    }

    static void sortWork() {
        List<Long> values = new ArrayList<>();
        long x = 11;
        for (int i = 0; i < 50; i++) {
            x = lcg(x, 1);
            values.add(x);
        }
        Collections.sort(values, new ByValue());
        ourSink += values.get(0);
    }

    static void library(final int times) throws InterruptedException {
        Thread library = new Thread(() -> {
            for (int i = 0; i < times; i++) {
                appWork();
            }
            sortWork();
        }, "library");
        library.start();
        library.join();
    }

    static final Object ourVirtualMonitor = new Object();

    /**
     * The counted loop of a virtual thread, which leaves its carrier often: it yields, sleeps
     * while holding a monitor that the other virtual threads wait for, and parks.
     */
    static void virtualLoop(int times) {
        try {
            for (int i = 0; i < times; i++) {
                tick();
                if (i % 64 == 0) {
                    Thread.yield();
                }
                if (i % 256 == 1) {
                    synchronized (ourVirtualMonitor) {
                        Thread.sleep(1);
                    }
                }
                if (i % 256 == 2) {
                    LockSupport.parkNanos(100_000);
                }
            }
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    /** Four virtual threads and then one platform thread run virtualLoop; needs Java 21. */
    static void virtual(final int times) throws Exception {
        Object builder = Thread.class.getMethod("ofVirtual").invoke(null);
        Method start = Class.forName("java.lang.Thread$Builder").getMethod("start", Runnable.class);
        List<Thread> threads = new ArrayList<>();
        for (int t = 0; t < 4; t++) {
            threads.add((Thread) start.invoke(builder, (Runnable) () -> virtualLoop(times)));
        }
        for (Thread thread : threads) {
            thread.join();
        }
        Thread platform = new Thread(() -> virtualLoop(times), "platform");
        platform.start();
        platform.join();
    }

    public static void main(String[] args) throws Exception {
        for (String arg : args) {
            int colon = arg.indexOf(':');
            String name = colon < 0 ? arg : arg.substring(0, colon);
            long figure = colon < 0 ? 0 : Long.parseLong(arg.substring(colon + 1));
            switch (name) {
                case "apart":
                    apart(figure);
                    break;
                case "spin":
                    spin(figure);
                    break;
                case "idle":
                    idle(figure);
                    break;
                case "count":
                    count((int) figure);
                    break;
                case "library":
                    library((int) figure);
                    break;
                case "virtual":
                    virtual((int) figure);
                    break;
                default:
                    throw new IllegalArgumentException("unknown scenario " + arg);
            }
        }
        System.out.println("scenarios done");
    }
}
