package com.kestrix.tools.kjp;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * The call tree of one thread, or of several merged: a node per frame (call path) that carries
 * figures, with its ancestors up to the root. Nodes live in parallel arrays, since a long
 * profile has millions of them. Node 0 is the root, frame 0, which has no method.
 */
final class CallTree {
    final String myName;
    /** The thread of a per-thread tree; null for a merged one. */
    final Profile.ThreadEntry myThread;
    int mySize;
    int[] myFrame;
    int[] myMethod;
    int[] myParent;
    int[] myFirstChild;
    int[] myNextSibling;
    /** Time in nanoseconds, including callees, as recorded. */
    long[] myTotal;
    long[] myCount;
    /** Total minus the children's totals, never below 0; filled by {@link #computeOwnTimes}. */
    long[] myOwn;
    private int[] myNodeByFrameKeys;
    private int[] myNodeByFrameValues;
    /** Frames that no method makes (J2EE events), by their method number: -2, -3 and down. */
    private final Map<Integer, String> myLabels = new HashMap<>();

    CallTree(String name, Profile.ThreadEntry thread) {
        myName = name;
        myThread = thread;
        int capacity = 64;
        myFrame = new int[capacity];
        myMethod = new int[capacity];
        myParent = new int[capacity];
        myFirstChild = new int[capacity];
        myNextSibling = new int[capacity];
        myTotal = new long[capacity];
        myCount = new long[capacity];
        myNodeByFrameKeys = new int[128];
        myNodeByFrameValues = new int[128];
        Arrays.fill(myNodeByFrameKeys, -1);
        addNode(0, -1, -1);
    }

    int size() {
        return mySize;
    }

    /** The node of a frame, or -1. */
    int nodeOf(int frame) {
        int mask = myNodeByFrameKeys.length - 1;
        for (int slot = mix(frame) & mask;; slot = (slot + 1) & mask) {
            int key = myNodeByFrameKeys[slot];
            if (key == frame) {
                return myNodeByFrameValues[slot];
            }
            if (key == -1) {
                return -1;
            }
        }
    }

    /** Adds a node under 'parent' (a node, -1 for the root itself) and returns it. */
    int addNode(int frame, int method, int parent) {
        if (mySize == myFrame.length) {
            grow();
        }
        int node = mySize++;
        myFrame[node] = frame;
        myMethod[node] = method;
        myParent[node] = parent;
        myFirstChild[node] = -1;
        myNextSibling[node] = -1;
        if (parent >= 0) {
            myNextSibling[node] = myFirstChild[parent];
            myFirstChild[parent] = node;
        }
        putFrame(frame, node);
        return node;
    }

    /**
     * A frame named 'label' between 'node' and its children, which move up onto it; 'total' is
     * its time with theirs. Call {@link #preorder} when all are in: the new frames break the
     * rule that parents come first.
     */
    int insertLabelled(int node, String label, long total) {
        int method = -2 - myLabels.size();
        myLabels.put(method, label);
        int first = myFirstChild[node];
        int inserted = addNode(method, method, node);
        myFirstChild[inserted] = first;
        myNextSibling[inserted] = -1;
        myFirstChild[node] = inserted;
        for (int child = first; child != -1; child = myNextSibling[child]) {
            myParent[child] = inserted;
        }
        myTotal[inserted] = total;
        return inserted;
    }

    /** The frame's name: its method's, or the label of an inserted frame. */
    String name(Profile profile, int node, boolean compact) {
        String label = myLabels.get(myMethod[node]);
        if (label != null) {
            return label;
        }
        return compact ? profile.compactMethodName(myMethod[node]) : profile.methodName(myMethod[node]);
    }

    /** Numbers the nodes again so that every parent comes before its children; own figures are dropped. */
    void preorder() {
        int[] order = new int[mySize];
        int[] newIndex = new int[mySize];
        int n = 0;
        List<Integer> stack = new ArrayList<>();
        stack.add(0);
        while (!stack.isEmpty()) {
            int node = stack.remove(stack.size() - 1);
            newIndex[node] = n;
            order[n++] = node;
            for (int child = myFirstChild[node]; child != -1; child = myNextSibling[child]) {
                stack.add(child);
            }
        }
        int[] frame = myFrame.clone();
        int[] method = myMethod.clone();
        int[] parent = myParent.clone();
        int[] firstChild = myFirstChild.clone();
        int[] nextSibling = myNextSibling.clone();
        long[] total = myTotal.clone();
        long[] count = myCount.clone();
        Arrays.fill(myNodeByFrameKeys, -1);
        for (int i = 0; i < n; i++) {
            int old = order[i];
            myFrame[i] = frame[old];
            myMethod[i] = method[old];
            myParent[i] = parent[old] < 0 ? -1 : newIndex[parent[old]];
            myFirstChild[i] = firstChild[old] < 0 ? -1 : newIndex[firstChild[old]];
            myNextSibling[i] = nextSibling[old] < 0 ? -1 : newIndex[nextSibling[old]];
            myTotal[i] = total[old];
            myCount[i] = count[old];
            insert(myFrame[i], i);
        }
        myOwn = null;
    }

    void computeOwnTimes() {
        myOwn = new long[mySize];
        for (int node = 0; node < mySize; node++) {
            long own = myTotal[node];
            for (int child = myFirstChild[node]; child != -1; child = myNextSibling[child]) {
                own -= myTotal[child];
            }
            myOwn[node] = Math.max(0, own);
        }
    }

    /**
     * For figures recorded at the frame where they arose (allocations), added to 'myTotal' while
     * the tree was built: they become the own figures, and the totals their sums over each
     * subtree.
     */
    void computeTotalsFromOwn() {
        myOwn = Arrays.copyOf(myTotal, mySize);
        myTotal = new long[myFrame.length];
        // Children always come after their parents, so one backward pass sums bottom-up.
        for (int node = mySize - 1; node >= 0; node--) {
            myTotal[node] += myOwn[node];
            if (myParent[node] >= 0) {
                myTotal[myParent[node]] += myTotal[node];
            }
        }
    }

    /** The sum of own times, which is what the tree's threads spent in all. */
    long totalOwnTime() {
        long sum = 0;
        for (int node = 0; node < mySize; node++) {
            sum += myOwn[node];
        }
        return sum;
    }

    /** Children of a node, largest total first, then by frame for a stable order. */
    int[] sortedChildren(int node) {
        int n = 0;
        for (int child = myFirstChild[node]; child != -1; child = myNextSibling[child]) {
            n++;
        }
        Integer[] children = new Integer[n];
        n = 0;
        for (int child = myFirstChild[node]; child != -1; child = myNextSibling[child]) {
            children[n++] = child;
        }
        Arrays.sort(children, (a, b) -> myTotal[a] != myTotal[b] ? Long.compare(myTotal[b], myTotal[a])
                : Integer.compare(myFrame[a], myFrame[b]));
        int[] result = new int[n];
        for (int i = 0; i < n; i++) {
            result[i] = children[i];
        }
        return result;
    }

    private void grow() {
        int capacity = myFrame.length * 2;
        myFrame = Arrays.copyOf(myFrame, capacity);
        myMethod = Arrays.copyOf(myMethod, capacity);
        myParent = Arrays.copyOf(myParent, capacity);
        myFirstChild = Arrays.copyOf(myFirstChild, capacity);
        myNextSibling = Arrays.copyOf(myNextSibling, capacity);
        myTotal = Arrays.copyOf(myTotal, capacity);
        myCount = Arrays.copyOf(myCount, capacity);
    }

    private void putFrame(int frame, int node) {
        if (mySize * 2 > myNodeByFrameKeys.length) {
            int[] oldKeys = myNodeByFrameKeys;
            int[] oldValues = myNodeByFrameValues;
            myNodeByFrameKeys = new int[oldKeys.length * 2];
            myNodeByFrameValues = new int[oldKeys.length * 2];
            Arrays.fill(myNodeByFrameKeys, -1);
            for (int i = 0; i < oldKeys.length; i++) {
                if (oldKeys[i] != -1) {
                    insert(oldKeys[i], oldValues[i]);
                }
            }
        }
        insert(frame, node);
    }

    private void insert(int frame, int node) {
        int mask = myNodeByFrameKeys.length - 1;
        int slot = mix(frame) & mask;
        while (myNodeByFrameKeys[slot] != -1 && myNodeByFrameKeys[slot] != frame) {
            slot = (slot + 1) & mask;
        }
        myNodeByFrameKeys[slot] = frame;
        myNodeByFrameValues[slot] = node;
    }

    private static int mix(int key) {
        int h = key * 0x9E3779B9;
        return h ^ (h >>> 16);
    }
}
