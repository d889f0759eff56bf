package com.kestrix.programs;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Keeps 64 threads starting, burning CPU, allocating, throwing and ending for the given seconds
 * (the argument, or the property stress.seconds, or 60),
 * while one more thread defines a small class in loader after loader and lets them go, so that
 * classes are loaded and unloaded all the while. Every thread adds its own CPU time as it ends.
 * Prints "ready" first, and at the end "threads N" and "cpu NS", the CPU time of all its threads.
 */
public final class SamplerStress {
    static final int LIVE = 64;
    static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();
    static final AtomicLong ourCpuNs = new AtomicLong();
    static volatile long ourSink;

    /** The class each loader defines anew. */
    public static final class Loaded {
        @Override
        public int hashCode() {
            return 7;
        }
    }

    private SamplerStress() {
    }

    public static void main(String[] args) throws Exception {
        long seconds = args.length > 0 ? Long.parseLong(args[0]) : Long.getLong("stress.seconds", 60);
        long end = System.nanoTime() + seconds * 1_000_000_000L;
        byte[] loaded = classBytes(Loaded.class);
        System.out.println("ready");
        System.out.flush();
        Thread loader = new Thread(() -> {
            loadAndUnload(loaded, end);
            ourCpuNs.addAndGet(THREADS.getCurrentThreadCpuTime());
        }, "stress-loader");
        loader.start();
        List<Thread> live = new ArrayList<>();
        int started = 0;
        while (System.nanoTime() < end) {
            live.removeIf(t -> !t.isAlive());
            while (live.size() < LIVE) {
                final int number = started;
                Thread thread = new Thread(() -> {
                    work(number);
                    ourCpuNs.addAndGet(THREADS.getCurrentThreadCpuTime());
                }, "stress-" + number);
                thread.start();
                live.add(thread);
                started++;
            }
            Thread.sleep(2);
        }
        for (Thread thread : live) {
            thread.join();
        }
        loader.join();
        ourCpuNs.addAndGet(THREADS.getCurrentThreadCpuTime());
        System.out.println("threads " + started);
        System.out.println("cpu " + ourCpuNs.get());
    }

    /** A few to some tens of milliseconds of CPU, with arrays and caught exceptions on the way. */
    static void work(int number) {
        long x = number;
        int rounds = 5 + number % 40;
        for (int r = 0; r < rounds; r++) {
            for (int i = 0; i < 200_000; i++) {
                x = x * 6364136223846793005L + i;
            }
            long[] array = new long[64 + (int) (x & 255)];
            array[0] = x;
            x += array.length;
            try {
                throw new IllegalStateException("round " + r);
            } catch (IllegalStateException e) {
                x += e.getMessage().length();
            }
        }
        ourSink += x;
    }

    static void loadAndUnload(byte[] bytes, long end) {
        String name = Loaded.class.getName();
        for (int i = 1; System.nanoTime() < end; i++) {
            ClassLoader loader = new ClassLoader(null) {
                @Override
                protected Class<?> findClass(String className) throws ClassNotFoundException {
                    if (!className.equals(name)) {
                        throw new ClassNotFoundException(className);
                    }
                    return defineClass(className, bytes, 0, bytes.length);
                }
            };
            try {
                ourSink += loader.loadClass(name).getDeclaredConstructor().newInstance().hashCode();
            } catch (ReflectiveOperationException e) {
                throw new IllegalStateException(e);
            }
            if (i % 500 == 0) {
                System.gc();
            }
        }
    }

    static byte[] classBytes(Class<?> type) throws IOException {
        String resource = type.getName().replace('.', '/') + ".class";
        try (InputStream in = SamplerStress.class.getClassLoader().getResourceAsStream(resource)) {
            ByteArrayOutputStream out = new ByteArrayOutputStream();
            byte[] buffer = new byte[4096];
            for (int n = in.read(buffer); n > 0; n = in.read(buffer)) {
                out.write(buffer, 0, n);
            }
            return out.toByteArray();
        }
    }
}
