package com.kestrix.programs;

import java.io.BufferedReader;
import java.io.InputStreamReader;

/**
 * Holds memory in shapes whose retained sizes can be worked out by hand: a ListOwner that alone
 * holds a linked list of 100,000 Nodes, each with its own Payload; and a Cache of 10,000
 * CacheEntries, each with a Payload, that the static fields of two classes, HolderA and HolderB,
 * both refer to, so that neither of them alone keeps it alive. An argument sets another number
 * of nodes, for benchmarks that want a bigger heap. Prints "ready", then waits for "exit" or
 * the end of standard input.
 */
public class RetainedGraph {
    public static final int NODES = 100_000;
    public static final int ENTRIES = 10_000;

    public static final class Payload {
        long first;
        long second;
    }

    public static final class Node {
        Node next;
        final Payload payload = new Payload();
    }

    public static final class ListOwner {
        Node head;
        int size;
    }

    public static final class CacheEntry {
        final Payload payload = new Payload();
    }

    public static final class Cache {
        final CacheEntry[] entries = new CacheEntry[ENTRIES];
    }

    public static final class HolderA {
        static Cache cache;
    }

    public static final class HolderB {
        static Cache cache;
    }

    static ListOwner ourOwner;

    public static void main(String[] args) throws Exception {
        int nodes = args.length > 0 ? Integer.parseInt(args[0]) : NODES;
        ListOwner owner = new ListOwner();
        for (int i = 0; i < nodes; i++) {
            Node node = new Node();
            node.next = owner.head;
            owner.head = node;
            owner.size++;
        }
        ourOwner = owner;
        Cache cache = new Cache();
        for (int i = 0; i < ENTRIES; i++) {
            cache.entries[i] = new CacheEntry();
        }
        HolderA.cache = cache;
        HolderB.cache = cache;
        cache = null;
        owner = null;
        System.out.println("ready");
        System.out.flush();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, "UTF-8"));
        String line;
        while ((line = in.readLine()) != null && !line.equals("exit")) {
            // only "exit" matters
        }
    }
}
