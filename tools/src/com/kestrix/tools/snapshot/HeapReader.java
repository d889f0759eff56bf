package com.kestrix.tools.snapshot;

import java.io.IOException;

/**
 * Reads the heap part of a snapshot, from the counts section (whose tag the caller has read) to
 * the first table, into a {@link HeapDump}. The records come in any order; each starts with its
 * tag, and the primitive data ends with a table of positions aligned to 8 bytes of the file.
 */
final class HeapReader {
    private final SnapshotInput myIn;
    private final long myFileSize;
    private final int myOidWidth;
    private final boolean myWithReferences;
    private final java.util.function.LongConsumer myProgress;
    private ReferenceGraph myGraph;
    private boolean myEndedAtTable;

    /**
     * With 'withReferences' the references are kept too, as {@link HeapDump#references()}. The
     * progress consumer, if any, hears the file offset now and then.
     */
    HeapReader(SnapshotInput in, long fileSize, int oidWidth, boolean withReferences,
            java.util.function.LongConsumer progress) {
        myIn = in;
        myFileSize = fileSize;
        myOidWidth = oidWidth;
        myWithReferences = withReferences;
        myProgress = progress;
    }

    private int oid() throws IOException {
        return myOidWidth == 4 ? myIn.readInt() : (int) myIn.readLong();
    }

    private SnapshotFormatException damaged(String what, long offset) {
        return new SnapshotFormatException("the file is damaged: " + what + " at offset " + offset);
    }

    private int object(HeapDump heap, long offset) throws IOException {
        int oid = oid();
        if (oid <= 0 || oid > heap.myObjectCount) {
            throw damaged("object id " + oid + " outside 1.." + heap.myObjectCount, offset);
        }
        return oid;
    }

    private int objectOrZero(HeapDump heap, long offset) throws IOException {
        int oid = oid();
        if (oid < 0 || oid > heap.myObjectCount) {
            throw damaged("object id " + oid + " outside 0.." + heap.myObjectCount, offset);
        }
        return oid;
    }

    /** Whether reading stopped at the tag of a table, which is consumed then. */
    boolean endedAtTable() {
        return myEndedAtTable;
    }

    /** Reads up to and including the tag of the first table. */
    HeapDump read() throws IOException {
        int objectCount = myIn.readInt();
        myIn.readInt(); // string values
        myIn.readInt(); // allocator records
        if (objectCount < 0 || objectCount > myFileSize) {
            throw damaged("heap object count " + objectCount, myIn.offset() - 12);
        }
        HeapDump heap = new HeapDump(objectCount);
        if (myWithReferences) {
            myGraph = new ReferenceGraph(objectCount);
        }
        long records = 0;
        while (!myIn.atEnd()) {
            long offset = myIn.offset();
            if (myProgress != null && (++records & 0xFFFF) == 0) {
                myProgress.accept(offset);
            }
            int tag = myIn.readByte();
            switch (tag) {
                case SnapshotReader.TABLE_TAG:
                    myEndedAtTable = true;
                    return complete(heap);
                case 3:
                case 4:
                case 5: {
                    int oid = object(heap, offset);
                    int classOid = object(heap, offset);
                    heap.myKinds[oid] = (byte) tag;
                    heap.myClassOf[oid] = classOid;
                    heap.mySizes[oid] = myIn.readLong();
                    heap.myGenerations[oid] = myIn.readInt();
                    int count = myIn.readInt(); // reference field count or length
                    if (myGraph != null) {
                        if (count < 0 || (tag != 5 && count > myFileSize)) {
                            throw damaged("reference count " + count, offset);
                        }
                        // The class at slot 0, then the fields or the elements of an object array.
                        myGraph.declare(oid, tag == 5 ? 1 : count + 1);
                    }
                    break;
                }
                case 7: {
                    object(heap, offset);
                    int length = myIn.readInt();
                    if (length < 0) {
                        throw damaged("string length " + length, offset);
                    }
                    myIn.skip(2L * length);
                    break;
                }
                case 8: {
                    int oid = object(heap, offset);
                    heap.setAllocator(oid, myIn.readInt(), myIn.readInt());
                    break;
                }
                case 9:
                case 10:
                case 14:
                case 15: {
                    int from = object(heap, offset);
                    int to = object(heap, offset);
                    int ordinal = myIn.readInt();
                    if (myGraph != null) {
                        if (tag == 9 || tag == 10) {
                            myGraph.addFieldOrElement(from, to, ordinal, offset);
                        }
                    }
                    if (tag == 14 || tag == 15) {
                        heap.addClassReference(from, tag, to, ordinal);
                    }
                    if (tag == 9) {
                        heap.myFieldReferences++;
                    } else if (tag == 10) {
                        heap.myElementReferences++;
                    } else {
                        heap.myClassReferences++;
                    }
                    break;
                }
                case 11:
                case 12:
                case 13: {
                    int from = object(heap, offset);
                    int to = object(heap, offset);
                    heap.addClassReference(from, tag, to, -1);
                    heap.myClassReferences++;
                    break;
                }
                case 39:
                    readPrimitiveData(heap, offset);
                    break;
                case 40:
                    readClass(heap, offset);
                    break;
                case 43: {
                    int oid = object(heap, offset);
                    int kind = myIn.readInt();
                    int thread = myIn.readInt();
                    int holder = oid();
                    int frame = myIn.readInt();
                    int name = myIn.readInt();
                    heap.myRoots.add(new HeapDump.Root(oid, kind, thread, holder, frame, name));
                    break;
                }
                default:
                    throw damaged("unknown heap record tag " + tag, offset);
            }
        }
        // The table stream always follows the heap: a file that ends in the heap was cut short,
        // even where the cut falls between two records.
        throw new java.io.EOFException();
    }

    private HeapDump complete(HeapDump heap) throws IOException {
        if (myGraph != null) {
            myGraph.complete(heap);
            heap.myReferences = myGraph;
        }
        return heap;
    }

    private void readClass(HeapDump heap, long offset) throws IOException {
        int nameStrID = myIn.readInt();
        int oid = object(heap, offset);
        int superOid = objectOrZero(heap, offset);
        long size = myIn.readLong();
        int generation = myIn.readInt();
        myIn.readLong();
        int interfaces = count(offset);
        for (int i = 0; i < interfaces; i++) {
            objectOrZero(heap, offset);
        }
        int[][] referenceFieldNames = new int[2][];
        for (int list = 0; list < 4; list++) {
            int fields = count(offset);
            if (list < 2) {
                // Own static reference fields, then all instance reference fields: name, modifiers.
                referenceFieldNames[list] = new int[fields];
                for (int f = 0; f < fields; f++) {
                    referenceFieldNames[list][f] = myIn.readInt();
                    myIn.readInt();
                }
                continue;
            }
            // name and modifiers, or name and signature letter
            myIn.skip((long) fields * (list < 2 ? 8 : 5));
        }
        heap.myStaticFieldNames.put(oid, referenceFieldNames[0]);
        heap.myInstanceFieldNames.put(oid, referenceFieldNames[1]);
        heap.myKinds[oid] = HeapDump.CLASS;
        heap.mySizes[oid] = size;
        heap.myGenerations[oid] = generation;
        heap.myClasses.put(oid, new HeapDump.HeapClass(oid, nameStrID, superOid, size, generation));
    }

    private int count(long offset) throws IOException {
        int n = myIn.readInt();
        if (n < 0 || n > myFileSize) {
            throw damaged("list length " + n, offset);
        }
        return n;
    }

    private void readPrimitiveData(HeapDump heap, long offset) throws IOException {
        long length = myIn.readLong();
        if (length < 0 || length > myFileSize - myIn.offset()) {
            throw damaged("primitive data length " + length, offset);
        }
        myIn.skip(length);
        heap.myPrimitiveBytes = length;
        int positions = count(offset);
        while (myIn.offset() % 8 != 0) {
            myIn.readByte();
        }
        myIn.skip(8L * positions);
    }
}
