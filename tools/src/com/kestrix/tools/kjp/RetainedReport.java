package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.HeapDump;
import java.io.PrintWriter;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * What holds the memory of a heap: the objects that retain the most (what would be freed with
 * them) with the shortest path from a GC root to each, the retained size of each class, and the
 * top dominators, the objects that nothing but a GC root keeps alive.
 *
 * A class's retained size is the sum over its objects that no other object of the class
 * dominates: a linked list's nodes count once, through the first node, however long the list.
 */
final class RetainedReport {
    /** One step of a path: the label of the reference that leads to the object, and the object. */
    record Step(String via, int oid, String object) {
    }

    /**
     * An object and its path; a long path keeps its first and last steps, and says how many were
     * left out between them.
     */
    record Holder(int oid, String object, long shallow, long retained, long dominated, List<Step> path,
            int omittedSteps) {
    }

    record ClassRetained(String name, long objects, long shallow, long retained) {
    }

    private static final int MAX_PATH_STEPS = 16;

    final Profile myProfile;
    final HeapDump myHeap;
    final HeapAnalysis myAnalysis;
    final int myTop;
    long myObjects;
    long myBytes;
    long myReachableObjects;
    long myReachableBytes;
    final List<Holder> myBiggest = new ArrayList<>();
    final List<ClassRetained> myClasses = new ArrayList<>();
    final List<Holder> myTopDominators = new ArrayList<>();
    private final int[] myParent;
    private final int[] myParentSlot;
    private final long[] myDominated;
    private final Map<Integer, HeapDump.Root> myRootRecords = new HashMap<>();
    private int myClassClassOid;

    RetainedReport(Profile profile, HeapAnalysis analysis, int top) {
        myProfile = profile;
        myHeap = analysis.myHeap;
        myAnalysis = analysis;
        myTop = top;
        int n = myHeap.objectCount();
        for (HeapDump.Root root : myHeap.roots()) {
            myRootRecords.putIfAbsent(root.oid(), root);
        }
        for (HeapDump.HeapClass c : myHeap.classes()) {
            if ("java.lang.Class".equals(profile.snapshot().string(c.nameStrID()))) {
                myClassClassOid = c.oid();
            }
        }
        myParent = new int[n + 1];
        myParentSlot = new int[n + 1];
        shortestPaths();
        myDominated = new long[n + 1];
        for (int oid = 1; oid <= n; oid++) {
            if (myHeap.kind(oid) == HeapDump.NONE) {
                continue;
            }
            myObjects++;
            myBytes += myHeap.size(oid);
            if (reached(oid)) {
                myReachableObjects++;
                myReachableBytes += myHeap.size(oid);
            }
        }
        walkDominatorTree();
        TopN biggest = new TopN(top);
        TopN dominators = new TopN(top);
        for (int oid = 1; oid <= n; oid++) {
            if (myHeap.kind(oid) != HeapDump.NONE && reached(oid)) {
                biggest.offer(oid, analysis.myRetained[oid]);
                if (analysis.myDominators[oid] == 0) {
                    dominators.offer(oid, analysis.myRetained[oid]);
                }
            }
        }
        for (int oid : biggest.oidsDescending()) {
            myBiggest.add(holder(oid));
        }
        for (int oid : dominators.oidsDescending()) {
            myTopDominators.add(holder(oid));
        }
    }

    /**
     * The N objects of the largest values, lowest object index first among equals, kept in a
     * small sorted array: a heap of millions of objects is looked through once, without sorting
     * or boxing it.
     */
    static final class TopN {
        private final long[] myValues;
        private final int[] myOids;
        private int mySize;

        TopN(int n) {
            myValues = new long[n];
            myOids = new int[n];
        }

        /** Offered in rising object index. */
        void offer(int oid, long value) {
            int n = myValues.length;
            if (mySize == n && value <= myValues[n - 1]) {
                return;
            }
            int at = mySize < n ? mySize++ : n - 1;
            while (at > 0 && myValues[at - 1] < value) {
                myValues[at] = myValues[at - 1];
                myOids[at] = myOids[at - 1];
                at--;
            }
            myValues[at] = value;
            myOids[at] = oid;
        }

        int[] oidsDescending() {
            return Arrays.copyOf(myOids, mySize);
        }
    }

    private boolean reached(int oid) {
        return myParent[oid] != 0;
    }

    /** Breadth first from the roots over references other than an object's own class. */
    private void shortestPaths() {
        int[] queue = new int[myHeap.objectCount() + 1];
        int head = 0;
        int tail = 0;
        for (int root : myAnalysis.myRoots) {
            myParent[root] = -1;
            queue[tail++] = root;
        }
        int[] refs = myAnalysis.myRefs;
        while (head < tail) {
            int oid = queue[head++];
            int start = myAnalysis.slotStart(oid);
            int count = myAnalysis.slotCount(oid);
            for (int slot = myAnalysis.isClass(oid) ? 0 : 1; slot < count; slot++) {
                int target = refs[start + slot];
                if (target > 0 && target < myParent.length && myParent[target] == 0) {
                    myParent[target] = oid;
                    myParentSlot[target] = slot;
                    queue[tail++] = target;
                }
            }
        }
    }

    /**
     * Over the dominator tree, depth first without recursion: the objects each one dominates, and
     * each class's retained size from the objects with no dominator of their own class above them.
     */
    private void walkDominatorTree() {
        int n = myHeap.objectCount();
        int[] dominators = myAnalysis.myDominators;
        int[] childStart = new int[n + 2];
        for (int oid = 1; oid <= n; oid++) {
            if (reached(oid)) {
                childStart[dominators[oid] + 1]++;
            }
        }
        for (int i = 1; i <= n + 1; i++) {
            childStart[i] += childStart[i - 1];
        }
        int[] children = new int[childStart[n + 1]];
        int[] fill = Arrays.copyOf(childStart, n + 1);
        for (int oid = 1; oid <= n; oid++) {
            if (reached(oid)) {
                children[fill[dominators[oid]]++] = oid;
            }
        }
        // By class: objects, shallow bytes, retained bytes, and how many of its objects are on the
        // path from the virtual root to the node at hand.
        long[][] byClass = new long[n + 1][];
        int[] stack = new int[n + 2];
        int[] next = new int[n + 2];
        long[][] open = new long[n + 2][];
        int depth = 0;
        stack[0] = 0;
        next[0] = childStart[0];
        while (depth >= 0) {
            int node = stack[depth];
            if (next[depth] < childStart[node + 1]) {
                int child = children[next[depth]++];
                int key = classKey(child);
                long[] figures = byClass[key];
                if (figures == null) {
                    figures = new long[4];
                    byClass[key] = figures;
                }
                figures[0]++;
                figures[1] += myHeap.size(child);
                if (figures[3] == 0) {
                    figures[2] += myAnalysis.myRetained[child];
                }
                figures[3]++;
                open[depth + 1] = figures;
                myDominated[child] = 1;
                depth++;
                stack[depth] = child;
                next[depth] = childStart[child];
            } else {
                if (depth > 0) {
                    open[depth][3]--;
                    int parent = stack[depth - 1];
                    if (parent != 0) {
                        myDominated[parent] += myDominated[node];
                    }
                }
                depth--;
            }
        }
        for (int key = 0; key <= n; key++) {
            long[] f = byClass[key];
            if (f != null) {
                myClasses.add(new ClassRetained(className(key), f[0], f[1], f[2]));
            }
        }
        myClasses.sort(Comparator.comparingLong(ClassRetained::retained).reversed()
                .thenComparing(ClassRetained::name));
    }

    private int classKey(int oid) {
        return myHeap.kind(oid) == HeapDump.CLASS ? myClassClassOid : myHeap.classOf(oid);
    }

    private String className(int classOid) {
        HeapDump.HeapClass c = myHeap.heapClass(classOid);
        String name = c == null ? null : myProfile.snapshot().string(c.nameStrID());
        return name == null ? "<class #" + classOid + ">" : name;
    }

    private String describe(int oid) {
        if (myHeap.kind(oid) == HeapDump.CLASS) {
            return "class " + className(oid);
        }
        return className(myHeap.classOf(oid)) + " #" + oid;
    }

    private Holder holder(int oid) {
        List<Integer> chain = new ArrayList<>();
        for (int o = oid; o > 0; o = myParent[o]) {
            chain.add(o);
        }
        int omitted = Math.max(0, chain.size() - MAX_PATH_STEPS);
        List<Step> steps = new ArrayList<>();
        // From the root to the object; the first step's label says what kind of root it is.
        for (int i = chain.size() - 1; i >= 0; i--) {
            if (omitted > 0 && i == chain.size() - 1 - MAX_PATH_STEPS / 2) {
                i -= omitted - 1;
                continue;
            }
            int o = chain.get(i);
            steps.add(new Step(myParent[o] == -1 ? rootLabel(o) : via(myParent[o], myParentSlot[o]), o, describe(o)));
        }
        return new Holder(oid, describe(oid), myHeap.size(oid), myAnalysis.myRetained[oid], myDominated[oid], steps,
                omitted);
    }

    private String rootLabel(int oid) {
        HeapDump.Root root = myRootRecords.get(oid);
        if (root == null) {
            return "GC root: class";
        }
        String label = "GC root: " + String.join(", ", HeapDump.rootKindNames(root.kind()));
        String local = root.localNameStrID() == 0 ? null : myProfile.snapshot().string(root.localNameStrID());
        Profile.ThreadEntry thread = root.thread() == 0 ? null : myProfile.threadByNumber(root.thread());
        if (local != null) {
            label += " '" + local + "'";
        }
        if (thread != null) {
            label += " of thread \"" + thread.name() + "\"";
        }
        return label;
    }

    private String via(int from, int slot) {
        byte kind = myHeap.kind(from);
        if (kind == HeapDump.CLASS) {
            List<HeapDump.ClassReference> refs = myHeap.classReferences(from);
            if (slot >= refs.size()) {
                return "a class reference";
            }
            HeapDump.ClassReference r = refs.get(slot);
            switch (r.tag()) {
                case 14: {
                    int[] names = myHeap.staticFieldNames(from);
                    String name = names != null && r.ordinal() >= 0 && r.ordinal() < names.length
                            ? myProfile.snapshot().string(names[r.ordinal()]) : null;
                    return name == null ? "static field (inherited)" : "static " + name;
                }
                case 11:
                    return "class loader";
                case 12:
                    return "signers";
                case 13:
                    return "protection domain";
                default:
                    return "constant pool";
            }
        }
        if (kind == HeapDump.OBJECT_ARRAY) {
            return "[" + (slot - 1) + "]";
        }
        int[] names = myHeap.instanceFieldNames(myHeap.classOf(from));
        String name = names != null && slot - 1 < names.length ? myProfile.snapshot().string(names[slot - 1]) : null;
        return name == null ? "field #" + (slot - 1) : "." + name;
    }

    void writeText(ZoneId zone, PrintWriter out) {
        Listing.snapshotHeader(myProfile, zone, out);
        out.println(Format.padRight("Heap", 10) + Format.count(myObjects) + " objects, " + Format.count(myBytes)
                + " bytes; reachable from GC roots " + Format.count(myReachableObjects) + " objects, "
                + Format.count(myReachableBytes) + " bytes");
        if (myAnalysis.myFromIndex) {
            out.println(Format.padRight("Index", 10) + HeapAnalysis.indexFile(myProfile.snapshot().file()));
        }
        out.println();
        out.println("Biggest objects by retained size (top " + myBiggest.size() + ")");
        out.println("           Retained          Shallow       %  Object");
        for (Holder holder : myBiggest) {
            writeHolder(out, holder);
        }
        out.println();
        out.println("Retained size by class (top " + Math.min(myTop, myClasses.size()) + " of "
                + Format.count(myClasses.size()) + "; objects of a class held by another of the same class count once)");
        out.println("           Retained      Objects          Shallow       %  Class");
        for (ClassRetained c : myClasses.subList(0, Math.min(myTop, myClasses.size()))) {
            out.println("  " + Format.padLeft(Format.count(c.retained()), 17) + "  "
                    + Format.padLeft(Format.count(c.objects()), 11) + "  " + Format.padLeft(Format.count(c.shallow()), 15)
                    + "  " + Format.padLeft(Format.percent(c.retained(), myReachableBytes), 6) + "  " + c.name());
        }
        out.println();
        out.println("Top dominators: what only GC roots keep alive (top " + myTopDominators.size() + ")");
        out.println("           Retained    Dominated       %  Object");
        for (Holder holder : myTopDominators) {
            out.println("  " + Format.padLeft(Format.count(holder.retained()), 17) + "  "
                    + Format.padLeft(Format.count(holder.dominated()), 11) + "  "
                    + Format.padLeft(Format.percent(holder.retained(), myReachableBytes), 6) + "  " + holder.object()
                    + "  (" + heldBy(holder.path()) + ")");
        }
        out.flush();
    }

    /** What keeps a top dominator: its root kind, or the last reference of its path. */
    private static String heldBy(List<Step> path) {
        if (path.size() == 1) {
            return path.get(0).via();
        }
        return "via " + path.get(path.size() - 2).object() + " " + path.get(path.size() - 1).via();
    }

    private void writeHolder(PrintWriter out, Holder holder) {
        out.println("  " + Format.padLeft(Format.count(holder.retained()), 17) + "  "
                + Format.padLeft(Format.count(holder.shallow()), 15) + "  "
                + Format.padLeft(Format.percent(holder.retained(), myReachableBytes), 6) + "  " + holder.object());
        List<Step> steps = holder.path();
        for (int i = 0; i < steps.size(); i++) {
            if (holder.omittedSteps() > 0 && i == MAX_PATH_STEPS / 2) {
                out.println("          ... " + Format.count(holder.omittedSteps()) + " more steps");
            }
            Step step = steps.get(i);
            out.println("          " + (i == 0 ? step.via() + ": " + step.object() : step.via() + " -> " + step.object()));
        }
    }

    String renderJson() {
        Json json = Listing.snapshotJson(myProfile);
        json.field("objects", myObjects).field("bytes", myBytes);
        json.field("reachableObjects", myReachableObjects).field("reachableBytes", myReachableBytes);
        json.name("fromIndex").value(myAnalysis.myFromIndex);
        json.name("biggestObjects").beginArray();
        for (Holder holder : myBiggest) {
            holderJson(json, holder);
        }
        json.endArray();
        json.name("retainedByClass").beginArray();
        for (ClassRetained c : myClasses.subList(0, Math.min(myTop, myClasses.size()))) {
            json.beginObject().field("class", c.name()).field("objects", c.objects()).field("shallow", c.shallow())
                    .field("retained", c.retained()).endObject();
        }
        json.endArray();
        json.name("topDominators").beginArray();
        for (Holder holder : myTopDominators) {
            holderJson(json, holder);
        }
        json.endArray();
        return json.endObject().toString();
    }

    private void holderJson(Json json, Holder holder) {
        json.beginObject().field("oid", holder.oid()).field("object", holder.object())
                .field("shallow", holder.shallow()).field("retained", holder.retained())
                .field("dominated", holder.dominated()).field("omittedSteps", holder.omittedSteps());
        json.name("path").beginArray();
        for (Step step : holder.path()) {
            json.beginObject().field("via", step.via()).field("oid", step.oid()).field("object", step.object())
                    .endObject();
        }
        json.endArray().endObject();
    }
}
