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
    private boolean myEndedAtTable;

    HeapReader(SnapshotInput in, long fileSize, int oidWidth) {
        myIn = in;
        myFileSize = fileSize;
        myOidWidth = oidWidth;
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

    /** Reads up to and including the tag of the first table, or to the end of the file. */
    HeapDump read() throws IOException {
        int objectCount = myIn.readInt();
        myIn.readInt(); // string values
        myIn.readInt(); // allocator records
        if (objectCount < 0 || objectCount > myFileSize) {
            throw damaged("heap object count " + objectCount, myIn.offset() - 12);
        }
        HeapDump heap = new HeapDump(objectCount);
        while (!myIn.atEnd()) {
            long offset = myIn.offset();
            int tag = myIn.readByte();
            switch (tag) {
                case SnapshotReader.TABLE_TAG:
                    myEndedAtTable = true;
                    return heap;
                case 3:
                case 4:
                case 5: {
                    int oid = object(heap, offset);
                    int classOid = object(heap, offset);
                    heap.myKinds[oid] = (byte) tag;
                    heap.myClassOf[oid] = classOid;
                    heap.mySizes[oid] = myIn.readLong();
                    heap.myGenerations[oid] = myIn.readInt();
                    myIn.readInt(); // reference field count or length
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
                case 15:
                    object(heap, offset);
                    object(heap, offset);
                    myIn.readInt();
                    if (tag == 9) {
                        heap.myFieldReferences++;
                    } else if (tag == 10) {
                        heap.myElementReferences++;
                    } else {
                        heap.myClassReferences++;
                    }
                    break;
                case 11:
                case 12:
                case 13:
                    object(heap, offset);
                    object(heap, offset);
                    heap.myClassReferences++;
                    break;
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
        for (int list = 0; list < 4; list++) {
            int fields = count(offset);
            // name and modifiers, or name and signature letter
            myIn.skip((long) fields * (list < 2 ? 8 : 5));
        }
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
