package com.kestrix.programs;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.locks.ReentrantLock;
import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * Blocks, waits and throws in known ways, for the tests of monitor profiling and exception
 * telemetry. Each lock scenario prints how long its blocked thread was blocked by its own clock
 * ("blocked monitor 401234567"), so the test can compare the agent's figure with it.
 *
 * Arguments: "locks" (a synchronized block, Object.wait(500), a ReentrantLock and a read-write
 * lock, each held by a named thread for 400 ms while another blocks; on JVMs with virtual threads
 * also virtual threads blocking on a monitor), "exceptions" (1,000 IllegalStateExceptions caught
 * two frames up, one IllegalArgumentException rethrown 10 times, one UnsupportedOperationException
 * escaping a thread), "churn N" (N threads that each contend and throw 5 ChurnExceptions, then
 * end), or without arguments "live" (reads commands from standard input: "churn N", "exit";
 * answers "done ...").
 */
public class LocksAndExceptions {
    static final long HOLD_MS = 400;
    static final Object MONITOR = new Object();
    static final Object WAIT_MONITOR = new Object();
    static final ReentrantLock LOCK = new ReentrantLock();
    static final ReentrantReadWriteLock READ_WRITE = new ReentrantReadWriteLock();
    static final Object CHURN_MONITOR = new Object();

    static class ChurnException extends RuntimeException {
        private static final long serialVersionUID = 1L;
    }

    interface Holding {
        void hold(CountDownLatch held) throws Exception;
    }

    /** The holder takes the lock and signals; the blocker then blocks until the holder lets go. */
    static long blockedNanos(String name, Holding holding, Runnable blocker) throws Exception {
        final CountDownLatch held = new CountDownLatch(1);
        Thread holder = new Thread(() -> {
            try {
                holding.hold(held);
            } catch (Exception e) {
                throw new RuntimeException(e);
            }
        }, name + "-holder");
        holder.start();
        held.await();
        final long[] blocked = new long[1];
        Thread blocked1 = new Thread(() -> {
            long start = System.nanoTime();
            blocker.run();
            blocked[0] = System.nanoTime() - start;
        }, name + "-blocked");
        blocked1.start();
        blocked1.join();
        holder.join();
        return blocked[0];
    }

    static void holdMonitor(CountDownLatch held) throws InterruptedException {
        synchronized (MONITOR) {
            held.countDown();
            Thread.sleep(HOLD_MS);
        }
    }

    static void blockOnMonitor() {
        synchronized (MONITOR) {
            MONITOR.hashCode();
        }
    }

    static void holdLock(CountDownLatch held) throws InterruptedException {
        LOCK.lock();
        try {
            held.countDown();
            Thread.sleep(HOLD_MS);
        } finally {
            LOCK.unlock();
        }
    }

    static void blockOnLock() {
        LOCK.lock();
        LOCK.unlock();
    }

    static void holdWriteLock(CountDownLatch held) throws InterruptedException {
        READ_WRITE.writeLock().lock();
        try {
            held.countDown();
            Thread.sleep(HOLD_MS);
        } finally {
            READ_WRITE.writeLock().unlock();
        }
    }

    static void blockOnReadLock() {
        READ_WRITE.readLock().lock();
        READ_WRITE.readLock().unlock();
    }

    static long waitHalfSecond() throws InterruptedException {
        long start = System.nanoTime();
        synchronized (WAIT_MONITOR) {
            WAIT_MONITOR.wait(500);
        }
        return System.nanoTime() - start;
    }

    static void virtualBlock() {
        synchronized (MONITOR) {
            MONITOR.hashCode();
        }
    }

    /** Four virtual threads block on a monitor that a platform thread holds; nothing where there are none. */
    static void virtualThreadsBlock() throws Exception {
        Method ofVirtual;
        try {
            ofVirtual = Thread.class.getMethod("ofVirtual");
        } catch (NoSuchMethodException e) {
            return;
        }
        Object builder = ofVirtual.invoke(null);
        Method start = Class.forName("java.lang.Thread$Builder").getMethod("start", Runnable.class);
        List<Thread> threads = new ArrayList<Thread>();
        synchronized (MONITOR) {
            for (int i = 0; i < 4; i++) {
                threads.add((Thread) start.invoke(builder, (Runnable) LocksAndExceptions::virtualBlock));
            }
            Thread.sleep(200);
        }
        for (Thread thread : threads) {
            thread.join();
        }
        System.out.println("virtual threads blocked");
    }

    static void locks() throws Exception {
        System.out.println("blocked monitor " + blockedNanos("monitor", LocksAndExceptions::holdMonitor,
                LocksAndExceptions::blockOnMonitor));
        System.out.println("waited " + waitHalfSecond());
        System.out.println("blocked lock " + blockedNanos("lock", LocksAndExceptions::holdLock,
                LocksAndExceptions::blockOnLock));
        System.out.println("blocked readlock " + blockedNanos("readlock", LocksAndExceptions::holdWriteLock,
                LocksAndExceptions::blockOnReadLock));
        virtualThreadsBlock();
    }

    static void throwIllegalState(int i) {
        throw new IllegalStateException("number " + i);
    }

    static void passOn(int i) {
        throwIllegalState(i);
    }

    static void catchTwoFramesUp(int i) {
        try {
            passOn(i);
        } catch (IllegalStateException expected) {
            // counted where it lands
        }
    }

    static void throwOriginal() {
        throw new IllegalArgumentException("rethrown");
    }

    static void relay(int times) {
        try {
            if (times == 0) {
                throwOriginal();
            } else {
                relay(times - 1);
            }
        } catch (IllegalArgumentException e) {
            throw e;
        }
    }

    static void catchRethrown() {
        try {
            relay(9);  // ten catches that throw it on, then this one
        } catch (IllegalArgumentException expected) {
            // the final place
        }
    }

    static void escape() {
        throw new UnsupportedOperationException("escapes its thread");
    }

    static void exceptions() throws Exception {
        for (int i = 0; i < 1000; i++) {
            catchTwoFramesUp(i);
        }
        catchRethrown();
        Thread escaper = new Thread(LocksAndExceptions::escape, "escaper");
        escaper.start();
        escaper.join();
        System.out.println("exceptions thrown");
    }

    static void churnOnce() {
        for (int i = 0; i < 5; i++) {
            synchronized (CHURN_MONITOR) {
                Thread.yield();
            }
            try {
                throw new ChurnException();
            } catch (ChurnException expected) {
                // five per thread, always
            }
        }
    }

    static void churn(int count) throws InterruptedException {
        List<Thread> threads = new ArrayList<Thread>();
        for (int i = 0; i < count; i++) {
            Thread thread = new Thread(LocksAndExceptions::churnOnce, "churn-" + i);
            thread.start();
            threads.add(thread);
            if (threads.size() == 8) {
                for (Thread t : threads) {
                    t.join();
                }
                threads.clear();
            }
        }
        for (Thread t : threads) {
            t.join();
        }
        System.out.println("churned " + count);
    }

    static void live() throws Exception {
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, "UTF-8"));
        System.out.println("ready");
        System.out.flush();
        String line;
        while ((line = in.readLine()) != null) {
            String[] words = line.trim().split(" ");
            if (words[0].equals("exit")) {
                break;
            } else if (words[0].equals("churn")) {
                churn(Integer.parseInt(words[1]));
            }
            System.out.println("done " + line.trim());
            System.out.flush();
        }
    }

    public static void main(String[] args) throws Exception {
        String what = args.length > 0 ? args[0] : "live";
        if (what.equals("locks")) {
            locks();
        } else if (what.equals("exceptions")) {
            exceptions();
        } else if (what.equals("churn")) {
            churn(Integer.parseInt(args[1]));
        } else if (what.equals("live")) {
            live();
        }
    }
}
