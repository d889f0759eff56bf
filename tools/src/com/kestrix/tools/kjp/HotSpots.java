package com.kestrix.tools.kjp;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.PriorityQueue;

/** Where the time went: figures per method, and the call paths with the most own time. */
final class HotSpots {
    /** A method's figures summed over every path it appears on. */
    record MethodFigures(int method, long ownNs, long totalNs, long invocations) {
    }

    /** One call path: the figures of its last frame and the methods from there to the root. */
    record PathFigures(String thread, long ownNs, long totalNs, long invocations, List<Integer> methodsLeafFirst) {
    }

    private HotSpots() {
    }

    /**
     * Per method: own time and invocations summed over all its nodes, and total time summed over
     * the nodes that have no caller of the same method above them, so that recursion is counted
     * once. Sorted by own time, then total time, then method index.
     */
    static List<MethodFigures> byMethod(List<CallTree> trees) {
        Map<Integer, long[]> figures = new HashMap<>();
        Map<Integer, Integer> onPath = new HashMap<>();
        for (CallTree tree : trees) {
            // Depth-first, with ~node marking the exit of a node.
            int[] stack = new int[64];
            int top = 0;
            stack[top++] = 0;
            while (top > 0) {
                int entry = stack[--top];
                if (entry < 0) {
                    int method = tree.myMethod[~entry];
                    onPath.merge(method, -1, Integer::sum);
                    continue;
                }
                int node = entry;
                if (node != 0) {
                    int method = tree.myMethod[node];
                    long[] f = figures.computeIfAbsent(method, m -> new long[3]);
                    f[0] += tree.myOwn[node];
                    f[2] += tree.myCount[node];
                    int active = onPath.getOrDefault(method, 0);
                    if (active == 0) {
                        f[1] += tree.myTotal[node];
                    }
                    onPath.put(method, active + 1);
                    if (top + 1 >= stack.length) {
                        stack = Arrays.copyOf(stack, stack.length * 2);
                    }
                    stack[top++] = ~node;
                }
                for (int child = tree.myFirstChild[node]; child != -1; child = tree.myNextSibling[child]) {
                    if (top >= stack.length) {
                        stack = Arrays.copyOf(stack, stack.length * 2);
                    }
                    stack[top++] = child;
                }
            }
        }
        List<MethodFigures> result = new ArrayList<>();
        for (Map.Entry<Integer, long[]> e : figures.entrySet()) {
            long[] f = e.getValue();
            result.add(new MethodFigures(e.getKey(), f[0], f[1], f[2]));
        }
        result.sort(BY_OWN);
        return result;
    }

    static final Comparator<MethodFigures> BY_OWN = Comparator.comparingLong(MethodFigures::ownNs).reversed()
            .thenComparing(Comparator.comparingLong(MethodFigures::totalNs).reversed())
            .thenComparingInt(MethodFigures::method);

    static final Comparator<MethodFigures> BY_TOTAL = Comparator.comparingLong(MethodFigures::totalNs).reversed()
            .thenComparing(Comparator.comparingLong(MethodFigures::ownNs).reversed())
            .thenComparingInt(MethodFigures::method);

    /** The 'limit' nodes with the most own time over all trees, most first. */
    static List<PathFigures> hottestPaths(List<CallTree> trees, int limit) {
        record Candidate(CallTree tree, int node) {
        }
        Comparator<Candidate> order = Comparator.comparingLong((Candidate c) -> c.tree().myOwn[c.node()])
                .thenComparingInt(c -> -c.tree().myFrame[c.node()])
                .thenComparing(c -> c.tree().myName, Comparator.reverseOrder());
        PriorityQueue<Candidate> best = new PriorityQueue<>(order);
        for (CallTree tree : trees) {
            for (int node = 1; node < tree.size(); node++) {
                if (tree.myOwn[node] <= 0) {
                    continue;
                }
                Candidate candidate = new Candidate(tree, node);
                if (best.size() < limit) {
                    best.add(candidate);
                } else if (limit > 0 && order.compare(candidate, best.peek()) > 0) {
                    best.poll();
                    best.add(candidate);
                }
            }
        }
        List<Candidate> chosen = new ArrayList<>(best);
        chosen.sort(order.reversed());
        List<PathFigures> result = new ArrayList<>();
        for (Candidate c : chosen) {
            List<Integer> methods = new ArrayList<>();
            for (int node = c.node(); node > 0; node = c.tree().myParent[node]) {
                methods.add(c.tree().myMethod[node]);
            }
            result.add(new PathFigures(c.tree().myName, c.tree().myOwn[c.node()], c.tree().myTotal[c.node()],
                    c.tree().myCount[c.node()], methods));
        }
        return result;
    }
}
