package com.kestrix.tools.snapshot;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collection;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * The heap part of a snapshot as far as the kjp reports need it: every object with its class,
 * shallow size and generation, the classes, the GC roots and the allocation sites of recorded
 * objects. Objects are numbered densely from 1 (their OIDs), so everything per object is an
 * array indexed by OID. References are counted, not kept.
 */
public final class HeapDump {
    /** What an OID is: no object, an instance, an object or primitive array, or a class. */
    public static final byte NONE = 0;
    public static final byte INSTANCE = 3;
    public static final byte OBJECT_ARRAY = 4;
    public static final byte PRIMITIVE_ARRAY = 5;
    public static final byte CLASS = 40;

    /** GC root kinds, one bit each, as record 43 carries them. */
    public static final int ROOT_OTHER = 1;
    public static final int ROOT_JNI_GLOBAL = 2;
    public static final int ROOT_JNI_LOCAL = 4;
    public static final int ROOT_STACK_LOCAL = 8;
    public static final int ROOT_THREAD = 32;
    public static final int ROOT_MONITOR = 64;

    /** A class record. */
    public record HeapClass(int oid, int nameStrID, int superOid, long size, int generation) {
    }

    /** A reference a class holds, by record tag: 11 loader, 12 signers, 13 domain, 14 static field, 15 constant pool. */
    public record ClassReference(int tag, int target, int ordinal) {
    }

    /** A GC root record. */
    public record Root(int oid, int kind, int thread, int holder, int frame, int localNameStrID) {
    }

    final int myObjectCount;
    final byte[] myKinds;
    final int[] myClassOf;
    final long[] mySizes;
    final int[] myGenerations;
    final Map<Integer, HeapClass> myClasses = new HashMap<>();
    final List<Root> myRoots = new ArrayList<>();
    int[] myAllocatorThreads;
    int[] myAllocatorFrames;
    long myFieldReferences;
    long myElementReferences;
    long myClassReferences;
    int myAllocatorRecords;
    long myPrimitiveBytes;
    ReferenceGraph myReferences;
    final Map<Integer, int[]> myInstanceFieldNames = new HashMap<>();
    final Map<Integer, int[]> myStaticFieldNames = new HashMap<>();
    final Map<Integer, List<ClassReference>> myClassReferenceLists = new HashMap<>();

    HeapDump(int objectCount) {
        myObjectCount = objectCount;
        myKinds = new byte[objectCount + 1];
        myClassOf = new int[objectCount + 1];
        mySizes = new long[objectCount + 1];
        myGenerations = new int[objectCount + 1];
    }

    /** The highest OID, which is the number of objects the dump announced. */
    public int objectCount() {
        return myObjectCount;
    }

    public byte kind(int oid) {
        return myKinds[oid];
    }

    /** The OID of the object's class; 0 for a class and for an OID without object. */
    public int classOf(int oid) {
        return myClassOf[oid];
    }

    public long size(int oid) {
        return mySizes[oid];
    }

    public int generation(int oid) {
        return myGenerations[oid];
    }

    /** The class of an OID, or null. */
    public HeapClass heapClass(int oid) {
        return myClasses.get(oid);
    }

    public Collection<HeapClass> classes() {
        return Collections.unmodifiableCollection(myClasses.values());
    }

    public List<Root> roots() {
        return Collections.unmodifiableList(myRoots);
    }

    public boolean hasAllocators() {
        return myAllocatorThreads != null;
    }

    /** The running number of the thread that allocated a recorded object; 0 for others. */
    public int allocatorThread(int oid) {
        return myAllocatorThreads == null ? 0 : myAllocatorThreads[oid];
    }

    /** The frame that allocated a recorded object; 0 for others. */
    public int allocatorFrame(int oid) {
        return myAllocatorFrames == null ? 0 : myAllocatorFrames[oid];
    }

    /** The references, when the snapshot was read with them; null otherwise. */
    public ReferenceGraph references() {
        return myReferences;
    }

    /** The name ids of a class's instance reference fields, inherited first, by ordinal; null if unknown. */
    public int[] instanceFieldNames(int classOid) {
        return myInstanceFieldNames.get(classOid);
    }

    /** The name ids of a class's own static reference fields, by ordinal; null if unknown. */
    public int[] staticFieldNames(int classOid) {
        return myStaticFieldNames.get(classOid);
    }

    /** The references a class holds, in the order of the file; empty for others. */
    public List<ClassReference> classReferences(int classOid) {
        return myClassReferenceLists.getOrDefault(classOid, List.of());
    }

    void addClassReference(int classOid, int tag, int target, int ordinal) {
        myClassReferenceLists.computeIfAbsent(classOid, k -> new ArrayList<>()).add(new ClassReference(tag, target, ordinal));
    }

    public long fieldReferences() {
        return myFieldReferences;
    }

    public long elementReferences() {
        return myElementReferences;
    }

    void setAllocator(int oid, int thread, int frame) {
        if (myAllocatorThreads == null) {
            myAllocatorThreads = new int[myObjectCount + 1];
            myAllocatorFrames = new int[myObjectCount + 1];
        }
        myAllocatorThreads[oid] = thread;
        myAllocatorFrames[oid] = frame;
        myAllocatorRecords++;
    }

    /** Root kind names, lowest bit first. */
    public static List<String> rootKindNames(int kind) {
        List<String> names = new ArrayList<>();
        String[] all = {"other", "JNI global", "JNI local", "stack local", "", "thread", "monitor"};
        for (int bit = 0; bit < all.length; bit++) {
            if ((kind & (1 << bit)) != 0 && !all[bit].isEmpty()) {
                names.add(all[bit]);
            }
        }
        return names.isEmpty() ? Arrays.asList("kind " + kind) : names;
    }
}
