package com.kestrix.tools.snapshot;

import java.util.Arrays;
import java.util.List;
import java.util.Map;

/**
 * The references of a heap dump, collected while the heap part is read and then laid out as the
 * object storage of the analysis natives keeps them: for each object a run of slots, its class
 * at slot 0, its reference fields or array elements from slot 1 (a null field is slot value 0),
 * and for a class the references of {@link HeapDump#classReferences(int)}, in that order.
 */
public final class ReferenceGraph {
    private final int myObjectCount;
    private final int[] mySlots;
    // Field and element references, three ints each: from, to, slot.
    private int[] myEdges = new int[3 * 1024];
    private int myEdgeCount;
    private int[] myStartAndCount;
    private int[] myRefs;

    ReferenceGraph(int objectCount) {
        myObjectCount = objectCount;
        mySlots = new int[objectCount + 1];
    }

    void declare(int oid, int slots) {
        mySlots[oid] = slots;
    }

    void addFieldOrElement(int from, int to, int ordinal, long offset) throws SnapshotFormatException {
        if (ordinal < 0 || ordinal >= Integer.MAX_VALUE - 1) {
            throw new SnapshotFormatException("the file is damaged: reference position " + ordinal + " at offset "
                    + offset);
        }
        if (myEdgeCount * 3 + 3 > myEdges.length) {
            myEdges = Arrays.copyOf(myEdges, myEdges.length * 2);
        }
        myEdges[3 * myEdgeCount] = from;
        myEdges[3 * myEdgeCount + 1] = to;
        myEdges[3 * myEdgeCount + 2] = ordinal + 1;
        myEdgeCount++;
    }

    /** Lays the references out once the heap part is read; damaged positions are named. */
    void complete(HeapDump heap) throws SnapshotFormatException {
        for (Map.Entry<Integer, List<HeapDump.ClassReference>> e : heap.myClassReferenceLists.entrySet()) {
            mySlots[e.getKey()] = e.getValue().size();
        }
        myStartAndCount = new int[2 * (myObjectCount + 1)];
        long next = 0;
        for (int oid = 1; oid <= myObjectCount; oid++) {
            myStartAndCount[2 * oid] = (int) next;
            myStartAndCount[2 * oid + 1] = mySlots[oid];
            next += mySlots[oid];
            if (next > Integer.MAX_VALUE - 8) {
                throw new SnapshotFormatException("has more references than this tool can hold (" + next + ")");
            }
        }
        myRefs = new int[(int) next];
        for (int oid = 1; oid <= myObjectCount; oid++) {
            byte kind = heap.kind(oid);
            if (kind != HeapDump.NONE && kind != HeapDump.CLASS && mySlots[oid] > 0) {
                myRefs[myStartAndCount[2 * oid]] = heap.classOf(oid);
            }
        }
        for (int e = 0; e < myEdgeCount; e++) {
            int from = myEdges[3 * e];
            int slot = myEdges[3 * e + 2];
            if (slot >= mySlots[from]) {
                throw new SnapshotFormatException("the file is damaged: object " + from + " has a reference at position "
                        + (slot - 1) + " but only " + Math.max(0, mySlots[from] - 1) + " reference slots");
            }
            myRefs[myStartAndCount[2 * from] + slot] = myEdges[3 * e + 1];
        }
        myEdges = null;
        for (Map.Entry<Integer, List<HeapDump.ClassReference>> e : heap.myClassReferenceLists.entrySet()) {
            int start = myStartAndCount[2 * e.getKey()];
            for (HeapDump.ClassReference r : e.getValue()) {
                myRefs[start++] = r.target();
            }
        }
    }

    public int objectCount() {
        return myObjectCount;
    }

    /** Two ints an object index: where its run of slots starts and how long it is. */
    public int[] startAndCount() {
        return myStartAndCount;
    }

    /** The slots of all objects, one after the other. */
    public int[] refs() {
        return myRefs;
    }
}
