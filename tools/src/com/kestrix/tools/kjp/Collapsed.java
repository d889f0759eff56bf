package com.kestrix.tools.kjp;

import java.io.IOException;
import java.io.PrintStream;
import java.util.Arrays;
import java.util.Comparator;

/**
 * Folded stacks: one line a call path, its frames from the root joined by ";", then a blank and
 * the path's own value. The format that flame-graph scripts and speedscope read. Per-thread
 * trees get the thread's name as their first frame. Lines come depth first, siblings by name,
 * and are written as they are made: a long profile has more path text than fits in memory.
 * Every line repeats its whole path, so the text grows with the square of the depth; frames
 * deeper than a limit are folded into one "[deeper frames]" frame under their ancestor at the
 * limit, which carries the sum of their values.
 */
final class Collapsed {
    enum Value {
        /** Own CPU time in nanoseconds. */
        TIME,
        /** Invocations of the path's last method. */
        COUNT,
        /** Bytes of the recorded objects the path's last method allocated. */
        ALLOC_BYTES,
        /** Number of recorded objects the path's last method allocated. */
        ALLOC_COUNT;

        /** Whether the figures come from allocation recording instead of CPU profiling. */
        boolean isAllocation() {
            return this == ALLOC_BYTES || this == ALLOC_COUNT;
        }

        /** Whether the own figure is the tree's own amount (time, bytes) rather than its count. */
        boolean isAmount() {
            return this == TIME || this == ALLOC_BYTES;
        }
    }

    /** Frames deeper than this are folded, unless the caller says otherwise. */
    static final int DEFAULT_MAX_DEPTH = 1024;

    static final String DEEPER_FRAMES = "[deeper frames]";

    static final String NARROW_FRAMES = "[narrow frames]";

    /** Output past this many characters gets a warning: few tools read a file that large. */
    static final long LARGE_OUTPUT = 1L << 30;

    private Collapsed() {
    }

    /** Passes the text on and, once it has passed LARGE_OUTPUT characters, says so on 'err', once. */
    static final class LargeOutputWarning implements Appendable {
        private final Appendable myOut;
        private final PrintStream myErr;
        private long myLength;
        private boolean myWarned;

        LargeOutputWarning(Appendable out, PrintStream err) {
            myOut = out;
            myErr = err;
        }

        private void count(long length) {
            myLength += length;
            if (!myWarned && myLength > LARGE_OUTPUT) {
                myWarned = true;
                myErr.println("kjp: the folded stacks pass 1 GB; a higher --min-percent or a lower --max-depth"
                        + " makes them smaller");
            }
        }

        @Override
        public Appendable append(CharSequence text) throws IOException {
            count(text.length());
            myOut.append(text);
            return this;
        }

        @Override
        public Appendable append(CharSequence text, int start, int end) throws IOException {
            count(end - start);
            myOut.append(text, start, end);
            return this;
        }

        @Override
        public Appendable append(char c) throws IOException {
            count(1);
            myOut.append(c);
            return this;
        }
    }

    /** Writes the lines of paths whose value is above 0. */
    static void write(Profile profile, Iterable<CallTree> trees, Value value, Appendable out) throws IOException {
        write(profile, trees, value, DEFAULT_MAX_DEPTH, 0, out);
    }

    /**
     * As above, folding the frames below depth maxDepth (at least 1) of each path, and the
     * subtrees worth less than minPercent of their tree's whole into one "[narrow frames]" frame
     * under their parent, which carries their sum: the totals stay true, the file small.
     */
    static void write(Profile profile, Iterable<CallTree> trees, Value value, int maxDepth, double minPercent,
            Appendable out) throws IOException {
        StringBuilder path = new StringBuilder();
        for (CallTree tree : trees) {
            path.setLength(0);
            if (tree.myThread != null) {
                path.append(frameName(tree.myThread.name()));
            }
            int[] pathLength = new int[tree.size()];
            int[] depth = new int[tree.size()];
            long[] subtree = subtreeValues(tree, value);
            long narrow = (long) Math.ceil(subtree[0] * minPercent / 100.0);
            int[] stack = new int[64];
            int top = 0;
            pathLength[0] = path.length();
            // Children are pushed in reverse, so that the first by name comes out first.
            int[] rootChildren = childrenByName(profile, tree, 0);
            for (int i = rootChildren.length - 1; i >= 0; i--) {
                stack = push(stack, top++, rootChildren[i]);
            }
            while (top > 0) {
                int node = stack[--top];
                path.setLength(pathLength[tree.myParent[node]]);
                if (path.length() > 0) {
                    path.append(';');
                }
                path.append(frameName(tree.name(profile, node, true)));
                pathLength[node] = path.length();
                depth[node] = depth[tree.myParent[node]] + 1;
                long v = value(tree, value, node);
                if (v > 0) {
                    out.append(path).append(' ').append(Long.toString(v)).append('\n');
                }
                if (depth[node] >= maxDepth) {
                    long deeper = valueBelow(tree, value, node);
                    if (deeper > 0) {
                        out.append(path).append(';').append(DEEPER_FRAMES).append(' ')
                                .append(Long.toString(deeper)).append('\n');
                    }
                    continue;
                }
                int[] children = childrenByName(profile, tree, node);
                long narrowSum = 0;
                for (int i = children.length - 1; i >= 0; i--) {
                    if (subtree[children[i]] < narrow) {
                        narrowSum += subtree[children[i]];
                    } else {
                        stack = push(stack, top++, children[i]);
                    }
                }
                if (narrowSum > 0) {
                    out.append(path).append(';').append(NARROW_FRAMES).append(' ').append(Long.toString(narrowSum))
                            .append('\n');
                }
            }
        }
    }

    /** Each node's value with everything below it; children come after their parents. */
    private static long[] subtreeValues(CallTree tree, Value value) {
        long[] sums = new long[tree.size()];
        for (int node = tree.size() - 1; node >= 0; node--) {
            sums[node] += value(tree, value, node);
            if (tree.myParent[node] >= 0) {
                sums[tree.myParent[node]] += sums[node];
            }
        }
        return sums;
    }

    private static long value(CallTree tree, Value value, int node) {
        return value.isAmount() ? tree.myOwn[node] : tree.myCount[node];
    }

    /** The sum of the values of all nodes below 'node', walked without recursion. */
    private static long valueBelow(CallTree tree, Value value, int node) {
        long sum = 0;
        int[] stack = new int[64];
        int top = 0;
        for (int child = tree.myFirstChild[node]; child != -1; child = tree.myNextSibling[child]) {
            stack = push(stack, top++, child);
        }
        while (top > 0) {
            int n = stack[--top];
            sum += value(tree, value, n);
            for (int child = tree.myFirstChild[n]; child != -1; child = tree.myNextSibling[child]) {
                stack = push(stack, top++, child);
            }
        }
        return sum;
    }

    static int[] childrenByName(Profile profile, CallTree tree, int node) {
        int n = 0;
        for (int child = tree.myFirstChild[node]; child != -1; child = tree.myNextSibling[child]) {
            n++;
        }
        Integer[] children = new Integer[n];
        n = 0;
        for (int child = tree.myFirstChild[node]; child != -1; child = tree.myNextSibling[child]) {
            children[n++] = child;
        }
        Arrays.sort(children, Comparator.comparing((Integer c) -> tree.name(profile, c, true))
                .thenComparingInt(c -> tree.myFrame[c]));
        return Arrays.stream(children).mapToInt(Integer::intValue).toArray();
    }

    private static int[] push(int[] stack, int at, int value) {
        int[] result = at < stack.length ? stack : Arrays.copyOf(stack, stack.length * 2);
        result[at] = value;
        return result;
    }

    /** A frame without the characters that separate frames and values. */
    static String frameName(String name) {
        return name.replace(';', ':').replace('\n', ' ').replace('\r', ' ');
    }
}
