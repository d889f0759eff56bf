package com.kestrix.analysis;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kestrix.Natives;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** The object storage, walk and OID natives as a UI calls them, on a small graph built by hand. */
class ObjectStorageNativesTest {
    private long myStorage;

    @BeforeAll
    static void loadLibrary() {
        Natives.load();
    }

    @AfterEach
    void free() {
        Natives.osNdelete(myStorage);
    }

    static int[] bits(int... set) {
        int[] bits = new int[2];
        for (int i : set) {
            bits[i >> 5] |= 1 << (i & 31);
        }
        return bits;
    }

    /**
     * Class 1; instances 2 -> 3 -> 4 and 2 -> 5 with sizes 16, 24, 32, 40; object array 6 of
     * length 2 holding 4 and 5; primitive array 7 of 100 bytes that nothing refers to.
     */
    void build() {
        myStorage = Natives.osNcreate(8, true, null);
        assertTrue(Natives.osNcreateClassImpl(myStorage, 1, 200, 1, 0));
        int[][] fields = {{}, {}, {3, 5}, {4}, {}, {}};
        int[] sizes = {0, 0, 16, 24, 32, 40};
        for (int i = 2; i <= 5; i++) {
            Natives.osNcreateObjectImpl(myStorage, i, 1, sizes[i], 2, fields[i].length);
            for (int f = 0; f < fields[i].length; f++) {
                Natives.osNsetRefImpl(myStorage, i, fields[i][f], f + 1);
            }
        }
        Natives.osNcreateObjectArrayImpl(myStorage, 6, 1, 24, 2, 2);
        Natives.osNsetRefImpl(myStorage, 6, 4, 1);
        Natives.osNsetRefImpl(myStorage, 6, 5, 2);
        Natives.osNcreatePrimArrayImpl(myStorage, 7, 1, 116, 3, 100);
    }

    @Test
    void buildsTheGraphAndComputesRetainedSizes() {
        build();
        assertEquals(1, Natives.osNgetRefImpl(myStorage, 2, 0), "an instance's class stands at position 0");
        assertEquals(3, Natives.osNgetRefCountImpl(myStorage, 2));
        assertEquals(3, Natives.osNgetRefCountImpl(myStorage, 6));
        assertEquals(2, Natives.osNgetArrayLengthImpl(myStorage, 6));
        assertEquals(-1, Natives.osNgetArrayLengthImpl(myStorage, 2));
        assertEquals(100, Natives.osNgetArrayLengthImpl(myStorage, 7));
        assertEquals(3, Natives.osNgetGenerationImpl(myStorage, 7));
        assertFalse(Natives.osNisObjectValidImpl(myStorage, 0));
        assertTrue(Natives.osNisObjectValidImpl(myStorage, 7));
        assertEquals(-1, Natives.osNgetAllocatorThreadImpl(myStorage, 3));
        Natives.osNsetAllocatorImpl(myStorage, 3, 7, 9);
        assertEquals(7, Natives.osNgetAllocatorThreadImpl(myStorage, 3));
        assertEquals(9, Natives.osNgetAllocatorFrameImpl(myStorage, 3));
        Natives.osNsetPrimitiveDataPositionImpl(myStorage, 7, 0x123456789AL);
        assertEquals(0x123456789AL, Natives.osNgetPrimitiveDataPositionImpl(myStorage, 7));

        int[] all = bits(1, 2, 3, 4, 5, 6, 7);
        int[] counts = new int[8];
        assertTrue(Natives.osNcomputeBRTImpl(myStorage, all, counts));
        assertArrayEquals(new int[8], counts);
        // Roots: the class, instance 2 and the array 6.
        assertTrue(Natives.osNcomputeDominatorsAndRetainedSizesImpl(myStorage, new int[] {1, 2, 6}, all));
        assertEquals(2, Natives.osNgetDominatorImpl(myStorage, 3));
        assertEquals(0, Natives.osNgetDominatorImpl(myStorage, 4), "4 is reached through 3 and through 6");
        assertEquals(0, Natives.osNgetDominatorImpl(myStorage, 7), "7 is garbage");
        assertEquals(16 + 24, Natives.osNgetRetainedSizeImpl(myStorage, 2));
        assertEquals(32, Natives.osNgetRetainedSizeImpl(myStorage, 4));

        assertEquals(16 + 24 + 32 + 40, Natives.s1(myStorage, bits(2, 3, 4, 5)));
        assertEquals(0, Natives.s1(myStorage, bits()));
        int[] reached = bits(1);
        assertTrue(Natives.f(myStorage, new int[] {3}, reached));
        assertArrayEquals(bits(1, 3, 4), reached);
        // What 2 holds exclusively among the live instances and arrays (the walk enters only
        // objects set in that mask): itself and 3, since 6 reaches 4 and 5 without it.
        int[] held = new int[2];
        assertTrue(Natives.f0(myStorage, null, new int[] {2}, 0, 1, new int[] {2, 6}, bits(2, 3, 4, 5, 6), held));
        assertArrayEquals(bits(2, 3), held);
        // With a given, its bits join the walk's and the result is what the walk reached, with
        // every object out of scope counted in (bits past the last object mean nothing).
        int[] walked = new int[2];
        assertTrue(Natives.f0(myStorage, bits(3), new int[] {2}, 0, 1, new int[] {6}, bits(2, 3, 4, 5, 6), walked));
        assertEquals(bits(1, 3, 4, 5, 6, 7)[0], walked[0] & 0xFF);
    }

    @Test
    void refusesBadIndicesWithTheirConditions() {
        RuntimeException e = assertThrows(RuntimeException.class, () -> Natives.osNcreate(0, false, null));
        assertEquals("objectCount > 0", e.getMessage());
        myStorage = Natives.osNcreate(4, false, null);
        e = assertThrows(RuntimeException.class, () -> Natives.osNcreateObjectImpl(myStorage, 4, 1, 16, 0, 0));
        assertEquals("index < myObjectCount (4, 4)", e.getMessage());
        e = assertThrows(RuntimeException.class, () -> Natives.osNcreateClassImpl(myStorage, 0, 16, 0, 0));
        assertEquals("index > 0 (0, 4)", e.getMessage());
        assertFalse(Natives.osNisObjectValidImpl(myStorage, 3), "nothing was created there");
        // Multi-dimensional arrays: the class and a slot for each element of all dimensions.
        assertTrue(Natives.osNcreateArrayExtImpl(myStorage, 2, 1, 64, 0, 0, new int[] {2, 3}));
        assertEquals(7, Natives.osNgetRefCountImpl(myStorage, 2));
        assertEquals(1, Natives.osNgetRefImpl(myStorage, 2, 0));
        assertEquals(-1, Natives.osNgetArrayLengthImpl(myStorage, 2));
        assertTrue(Natives.osNcreateArrayExtImpl(myStorage, 3, 1, 16, 0, 0, new int[0]));
        assertEquals(2, Natives.osNgetRefCountImpl(myStorage, 3));
        assertFalse(Natives.osNreadArrayImpl(myStorage, 13, new int[1], 0, 1));
        assertEquals(0L, Natives.getIndexFileFullLength());
    }

    @Test
    void objectIdsBecomeRanks() {
        long processor = Natives.createOIDProcessor(true, 4);
        Natives.processOIDs(processor, new long[] {900, 5, 1L << 40, 77, 12345}, 4);
        Natives.convertOIDsToIndices(processor);
        assertEquals(1, Natives.getIndex(processor, 5));
        assertEquals(4, Natives.getIndex(processor, 1L << 40));
        assertEquals(0, Natives.getIndex(processor, 12345), "only the count given is added");
        Natives.deleteOIDProcessor(processor);
        Natives.deleteOIDProcessor(0);
    }
}
