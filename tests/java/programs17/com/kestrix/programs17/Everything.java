package com.kestrix.programs17;

import java.io.IOException;
import java.lang.reflect.Method;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Function;
import java.util.stream.Collectors;
import java.util.stream.IntStream;

/**
 * A program that uses much of the modern language and library in one run, with an output
 * that depends on nothing but its own code, so that runs with and without the agent can be
 * compared line by line.
 */
public final class Everything {
    sealed interface Shape permits Circle, Rect, Square {
    }

    record Circle(double radius) implements Shape {
    }

    record Rect(double width, double height) implements Shape {
        Rect {
            if (width < 0 || height < 0) {
                throw new IllegalArgumentException("negative size");
            }
        }
    }

    record Square(double side) implements Shape {
    }

    /** An inner class that reads its outer instance. */
    final class Counter {
        private int count;

        void add(int value) {
            count += value;
            total += value;
        }
    }

    /** A resource that reports its closing. */
    static final class Resource implements AutoCloseable {
        private final String name;
        private final List<String> log;

        Resource(String name, List<String> log) {
            this.name = name;
            this.log = log;
            log.add("open " + name);
        }

        @Override
        public void close() {
            log.add("close " + name);
        }
    }

    private long total;

    static int fib(int n) {
        return n < 2 ? n : fib(n - 1) + fib(n - 2);
    }

    static double area(Shape shape) {
        if (shape instanceof Circle c) {
            return Math.PI * c.radius() * c.radius();
        } else if (shape instanceof Rect r) {
            return r.width() * r.height();
        } else if (shape instanceof Square s) {
            return s.side() * s.side();
        }
        throw new IllegalStateException();
    }

    static String kind(String word) {
        switch (word) {
            case "apple":
            case "pear":
                return "fruit";
            case "carrot":
                return "vegetable";
            default:
                return word.isEmpty() ? "nothing" : "unknown";
        }
    }

    static int arrowSwitch(String word) {
        return switch (word) {
            case "one" -> 1;
            case "two" -> 2;
            case "three" -> {
                int x = 1;
                for (int i = 0; i < 2; i++) {
                    x++;
                }
                yield x;
            }
            default -> -1;
        };
    }

    static String resources() {
        List<String> log = new ArrayList<>();
        try (Resource a = new Resource("a", log); Resource b = new Resource("b", log)) {
            log.add("use " + a.name + b.name);
            throw new IOException("failed in use");
        } catch (IOException e) {
            log.add("caught " + e.getMessage());
        } finally {
            log.add("finally");
        }
        return String.join(",", log);
    }

    static String reflection() throws Exception {
        Method method = Everything.class.getDeclaredMethod("kind", String.class);
        Object result = method.invoke(null, "pear");
        Class<?> recordClass = Class.forName("com.kestrix.programs17.Everything$Rect");
        String components = java.util.Arrays.stream(recordClass.getRecordComponents()).map(c -> c.getName())
                .collect(Collectors.joining("+"));
        Object rect = recordClass.getDeclaredConstructor(double.class, double.class).newInstance(2.0, 3.0);
        try {
            recordClass.getDeclaredConstructor(double.class, double.class).newInstance(-1.0, 3.0);
        } catch (java.lang.reflect.InvocationTargetException e) {
            components += " (" + e.getCause().getMessage() + ")";
        }
        return result + " " + components + " " + rect;
    }

    static List<Long> threads() throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(4);
        AtomicLong shared = new AtomicLong();
        List<Future<Long>> futures = new ArrayList<>();
        for (int t = 0; t < 8; t++) {
            final int id = t;
            Callable<Long> task = () -> {
                long sum = 0;
                for (int i = 0; i <= 1000 * (id + 1); i++) {
                    sum += i;
                }
                shared.addAndGet(sum);
                return sum;
            };
            futures.add(pool.submit(task));
        }
        List<Long> results = new ArrayList<>();
        for (Future<Long> future : futures) {
            results.add(future.get());
        }
        pool.shutdown();
        Thread plain = new Thread(() -> shared.addAndGet(-1), "plain");
        plain.start();
        plain.join();
        results.add(shared.get());
        return results;
    }

    static String nio() throws IOException {
        Path file = Files.createTempFile("kjp-everything", ".txt");
        try {
            Files.writeString(file, "line one\nline two\nline three\n", StandardCharsets.UTF_8);
            try (FileChannel channel = FileChannel.open(file, StandardOpenOption.READ, StandardOpenOption.WRITE)) {
                ByteBuffer buffer = ByteBuffer.allocate(64);
                int read = channel.read(buffer);
                buffer.flip();
                channel.position(channel.size());
                channel.write(ByteBuffer.wrap("line four\n".getBytes(StandardCharsets.UTF_8)));
                String first = StandardCharsets.UTF_8.decode(buffer).toString().lines().findFirst().orElse("");
                return read + " " + first + " " + Files.readAllLines(file).size() + " "
                        + ByteBuffer.allocateDirect(16).putLong(0x0102030405060708L).flip().getLong();
            }
        } finally {
            Files.delete(file);
        }
    }

    public static void main(String[] args) throws Exception {
        System.out.println("fib " + fib(15));

        List<Shape> shapes = List.of(new Circle(1), new Rect(2, 3), new Square(4), new Circle(0.5));
        System.out.printf("areas %.4f%n", shapes.stream().mapToDouble(Everything::area).sum());
        System.out.println("shapes " + shapes);

        Map<String, List<String>> byKind = new TreeMap<>(groupByKind(List.of("apple", "carrot", "pear", "x", "")));
        System.out.println("kinds " + byKind);
        System.out.println("arrow " + IntStream.of(arrowSwitch("one"), arrowSwitch("two"), arrowSwitch("three"),
                arrowSwitch("four")).boxed().map(String::valueOf).collect(Collectors.joining(",")));

        System.out.println("resources " + resources());

        Everything outer = new Everything();
        Everything.Counter counter = outer.new Counter();
        IntStream.rangeClosed(1, 100).forEach(counter::add);
        System.out.println("inner " + counter.count + " " + outer.total);

        Function<Integer, Function<Integer, Integer>> adder = a -> b -> a + b;
        Comparator<String> byLength = Comparator.comparingInt(String::length).thenComparing(Comparator.reverseOrder());
        System.out.println("lambdas " + adder.apply(3).apply(4) + " "
                + List.of("ccc", "a", "bb", "b", "aaa").stream().sorted(byLength).toList());
        String text = """
                text block
                  with indent""";
        System.out.println("text " + text.lines().map(String::strip).collect(Collectors.joining("|")));
        System.out.println("parallel " + IntStream.range(0, 100000).parallel().mapToLong(i -> (long) i * i).sum());

        System.out.println("reflection " + reflection());
        System.out.println("threads " + threads());
        System.out.println("nio " + nio());

        try {
            Object o = List.of(1).get(3);
            System.out.println("not reached " + o);
        } catch (IndexOutOfBoundsException e) {
            System.out.println("exception " + e.getClass().getSimpleName());
        }
        StringBuilder builder = new StringBuilder();
        for (int i = 0; i < 5; i++) {
            builder.append(new int[i].length).append(new String[i][2].length);
        }
        System.out.println("arrays " + builder);
        System.out.println("done");
    }

    private static Map<String, List<String>> groupByKind(List<String> words) {
        return words.stream().collect(Collectors.groupingBy(Everything::kind));
    }
}
