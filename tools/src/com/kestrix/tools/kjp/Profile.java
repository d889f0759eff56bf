package com.kestrix.tools.kjp;

import com.kestrix.Constants;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotFormatException;
import com.kestrix.tools.snapshot.SnapshotHeader;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * The CPU profile of a snapshot: its threads and their call trees with times and invocation
 * counts. The agent keeps one call tree of frames for all threads and the figures per (thread,
 * frame) pair; here each thread, or all threads merged, get a tree of their own.
 */
final class Profile {
    /** A thread as the thread table names it. */
    record ThreadEntry(int runningNumber, String name, String group, long osThreadId, int slot) {
    }

    private final Snapshot mySnapshot;
    private final List<ThreadEntry> myThreads = new ArrayList<>();
    private final Map<Integer, ThreadEntry> myThreadBySlot = new HashMap<>();
    private final Map<Integer, String> myMethodNames = new HashMap<>();
    private final Map<Integer, String> myCompactMethodNames = new HashMap<>();
    private final Table myFrames;
    private final Table myMethods;
    private final int myFrameParent;
    private final int myFrameCallee;

    Profile(Snapshot snapshot) {
        mySnapshot = snapshot;
        myFrames = snapshot.table(TableLayout.FRAME);
        myMethods = snapshot.table(TableLayout.METHOD);
        myFrameParent = TableLayout.FRAME.field("parent");
        myFrameCallee = TableLayout.FRAME.field("callee");
        Table threads = snapshot.table(TableLayout.THREAD);
        TableLayout t = TableLayout.THREAD;
        for (int row = 0; row < threads.size(); row++) {
            if (threads.stamp(row) <= 0) {
                continue;
            }
            String name = snapshot.string(threads.getInt(row, t.field("nameStrID")));
            String group = snapshot.string(threads.getInt(row, t.field("groupStrID")));
            ThreadEntry entry = new ThreadEntry(threads.getInt(row, t.field("runningNumber")),
                    name == null ? "" : name, group == null ? "" : group,
                    threads.getLong(row, t.field("threadID")), threads.getInt(row, t.field("indexForTFI")));
            myThreads.add(entry);
            // Slot 0 belongs to no thread: threads folded into "<Oldest dead threads>" give theirs up.
            if (entry.slot() != 0) {
                myThreadBySlot.put(entry.slot(), entry);
            }
        }
        myThreads.sort((a, b) -> Integer.compare(a.runningNumber(), b.runningNumber()));
    }

    Snapshot snapshot() {
        return mySnapshot;
    }

    SnapshotHeader header() {
        return mySnapshot.header();
    }

    List<ThreadEntry> threads() {
        return Collections.unmodifiableList(myThreads);
    }

    /** Whether invocation counts were recorded (tracing), so that counts mean something. */
    boolean hasCounts() {
        return header().hasFlag(Constants.SNAPSHOT_WITH_COUNTS);
    }

    /** A text property of the JVM ("java.vm.name" and the like), or null. */
    String property(String name) {
        Table properties = mySnapshot.table(TableLayout.PROPERTIES);
        int nameField = TableLayout.PROPERTIES.field("nameStrID");
        int valueField = TableLayout.PROPERTIES.field("value");
        for (int row = 0; row < properties.size(); row++) {
            if (properties.stamp(row) > 0 && name.equals(mySnapshot.string(properties.getInt(row, nameField)))) {
                return mySnapshot.string(properties.getInt(row, valueField));
            }
        }
        return null;
    }

    /**
     * The call trees: one per thread with CPU data, in running-number order, or, when 'merged',
     * a single tree of all of them. 'threadNames', when not empty, selects threads by name.
     */
    List<CallTree> callTrees(boolean merged, Set<String> threadNames) throws SnapshotFormatException {
        List<CallTree> trees = trees(merged, threadNames, TableLayout.CPUPROFILING, "time", "count");
        for (CallTree tree : trees) {
            tree.computeOwnTimes();
        }
        return trees;
    }

    /**
     * The same for recorded allocations: bytes as the amount ('myOwn' at the allocating frame,
     * 'myTotal' with the callees) and the number of objects allocated at each frame as the count.
     */
    List<CallTree> allocationTrees(boolean merged, Set<String> threadNames) throws SnapshotFormatException {
        List<CallTree> trees = trees(merged, threadNames, TableLayout.ALLOCINFO, "size", "count");
        for (CallTree tree : trees) {
            tree.computeTotalsFromOwn();
        }
        return trees;
    }

    /** Whether the snapshot holds any recorded allocation. */
    boolean hasAllocations() {
        Table alloc = mySnapshot.table(TableLayout.ALLOCINFO);
        int countField = TableLayout.ALLOCINFO.field("count");
        for (int row = 0; row < alloc.size(); row++) {
            if (alloc.stamp(row) > 0 && alloc.getLong(row, countField) > 0) {
                return true;
            }
        }
        return false;
    }

    /** The call tree of a frame's path alone, for naming it: the methods from the frame to the root. */
    List<Integer> methodsLeafFirst(int frame) {
        return pathLeafFirst(frame, true);
    }

    /** The frames from 'frame' to the root, 'frame' first. */
    List<Integer> framesLeafFirst(int frame) {
        return pathLeafFirst(frame, false);
    }

    private List<Integer> pathLeafFirst(int frame, boolean methods) {
        List<Integer> path = new ArrayList<>();
        int guard = myFrames.size() + 1;
        for (int current = frame; current > 0 && guard-- > 0; ) {
            int row = myFrames.rowOf(current);
            if (row < 0) {
                break;
            }
            path.add(methods ? myFrames.getInt(row, myFrameCallee) : current);
            current = myFrames.getInt(row, myFrameParent);
        }
        return path;
    }

    /** The thread of a running number, or null. */
    ThreadEntry threadByNumber(int runningNumber) {
        for (ThreadEntry thread : myThreads) {
            if (thread.runningNumber() == runningNumber) {
                return thread;
            }
        }
        return null;
    }

    private List<CallTree> trees(boolean merged, Set<String> threadNames, TableLayout layout, String amount,
            String number) throws SnapshotFormatException {
        Table cpu = mySnapshot.table(layout);
        Table pairs = mySnapshot.table(TableLayout.THREADFRAME);
        int timeField = layout.field(amount);
        int countField = layout.field(number);
        int slotField = TableLayout.THREADFRAME.field("threadIndexForTFI");
        int frameField = TableLayout.THREADFRAME.field("frameID");

        Map<ThreadEntry, CallTree> bySlotThread = new LinkedHashMap<>();
        for (ThreadEntry thread : myThreads) {
            if (thread.slot() != 0 && (threadNames.isEmpty() || threadNames.contains(thread.name()))
                    && (!threadNames.isEmpty() || showsThread(thread.name()))) {
                bySlotThread.put(thread, null);
            }
        }
        CallTree mergedTree = merged ? new CallTree("all threads", null) : null;
        for (int row = 0; row < cpu.size(); row++) {
            long time = cpu.getLong(row, timeField);
            long count = cpu.getLong(row, countField);
            if (cpu.stamp(row) <= 0 || (time == 0 && count == 0)) {
                continue;
            }
            // The CPU row's index is its TFI: the same row of the thread-frame table names the pair.
            int pair = pairs.rowOf(cpu.index(row));
            if (pair < 0 || pairs.stamp(pair) <= 0) {
                continue;
            }
            int slot = pairs.getInt(pair, slotField);
            int frame = pairs.getInt(pair, frameField);
            ThreadEntry thread = myThreadBySlot.get(slot);
            if (thread == null) {
                thread = new ThreadEntry(0, "<thread slot " + slot + ">", "", 0, slot);
                myThreadBySlot.put(slot, thread);
                if (threadNames.isEmpty() || threadNames.contains(thread.name())) {
                    bySlotThread.put(thread, null);
                }
            }
            if (!bySlotThread.containsKey(thread)) {
                continue;
            }
            CallTree tree = mergedTree;
            if (tree == null) {
                tree = bySlotThread.get(thread);
                if (tree == null) {
                    tree = new CallTree(thread.name(), thread);
                    bySlotThread.put(thread, tree);
                }
            }
            int node = nodeFor(tree, frame);
            tree.myTotal[node] += time;
            tree.myCount[node] += count;
        }
        List<CallTree> trees = new ArrayList<>();
        if (mergedTree != null) {
            trees.add(mergedTree);
        } else {
            for (CallTree tree : bySlotThread.values()) {
                if (tree != null) {
                    trees.add(tree);
                }
            }
        }
        return trees;
    }

    /** The node of a frame in the tree, made with its missing ancestors. */
    private int nodeFor(CallTree tree, int frame) throws SnapshotFormatException {
        int existing = tree.nodeOf(frame);
        if (existing >= 0) {
            return existing;
        }
        // Walk up to the nearest frame the tree has, then add the path downwards.
        List<Integer> missing = new ArrayList<>();
        int current = frame;
        int anchor;
        while (true) {
            if (current < 0) {
                throw damaged("frame " + frame + " has a negative frame on its path to the root");
            }
            anchor = tree.nodeOf(current);
            if (anchor >= 0) {
                break;
            }
            missing.add(current);
            if (missing.size() > myFrames.size() + 1) {
                throw damaged("the call tree has a cycle through frame " + frame);
            }
            int row = myFrames.rowOf(current);
            // A frame the file lacks hangs under the root rather than losing its figures.
            current = row < 0 ? 0 : myFrames.getInt(row, myFrameParent);
        }
        int node = anchor;
        for (int i = missing.size() - 1; i >= 0; i--) {
            int f = missing.get(i);
            int row = myFrames.rowOf(f);
            node = tree.addNode(f, row < 0 ? -1 : myFrames.getInt(row, myFrameCallee), node);
        }
        return node;
    }

    private static SnapshotFormatException damaged(String what) {
        return new SnapshotFormatException("the file is damaged: " + what);
    }

    private static volatile boolean ourAgentThreadsShown;

    /** Whether the agent's own threads take part; by default they are left out. */
    static void setAgentThreadsShown(boolean shown) {
        ourAgentThreadsShown = shown;
    }

    /** Whether a thread that no --thread names takes part in the views. */
    static boolean showsThread(String name) {
        return ourAgentThreadsShown || !isAgentThread(name);
    }

    /** The agent's own threads, which a user has no reason to profile. */
    static boolean isAgentThread(String name) {
        return name != null && (name.startsWith("KJPAgent-") || name.equals("(GC Main Thread)"));
    }

    /** "com.example.App.compute(int, long[])" for a method index. */
    String methodName(int method) {
        return myMethodNames.computeIfAbsent(method, m -> describeMethod(m, ", "));
    }

    /** The same without blanks, for folded stacks whose lines end at the last blank. */
    String compactMethodName(int method) {
        return myCompactMethodNames.computeIfAbsent(method, m -> describeMethod(m, ","));
    }

    private String describeMethod(int method, String separator) {
        int row = method < 0 ? -1 : myMethods.rowOf(method);
        if (row < 0) {
            return "<unknown method " + method + ">";
        }
        TableLayout m = TableLayout.METHOD;
        return MethodNames.format(mySnapshot.string(myMethods.getInt(row, m.field("classNameStrID"))),
                mySnapshot.string(myMethods.getInt(row, m.field("nameStrID"))),
                mySnapshot.string(myMethods.getInt(row, m.field("signatureStrID"))), separator);
    }
}
