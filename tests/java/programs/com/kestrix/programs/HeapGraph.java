package com.kestrix.programs;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.util.HashMap;
import java.util.Map;

/**
 * Holds an object graph whose every part is known, for tests that read a heap dump back: a
 * linked list of 100,000 nodes whose values count from 0, a map of 1,000 strings "key-i" to
 * "value-i", a tree of three levels whose nodes are labelled by their path ("root", "L", "R",
 * "LL", "LR", "RL", "RR"), and a static array of eight known ints. main keeps a Marker in a
 * local variable named "marker" while it waits. Prints "ready" once all is built, then reads
 * standard input: "churn" starts eight threads that allocate all the time and others that start
 * and end, and on JVMs with virtual threads a hundred of those that allocate and sleep by turns;
 * "exit" or the end of input ends the program.
 */
public class HeapGraph {
    public static final int LIST_LENGTH = 100_000;
    public static final int MAP_SIZE = 1_000;

    public static final class ListNode {
        ListNode next;
        int value;

        ListNode(int value, ListNode next) {
            this.value = value;
            this.next = next;
        }
    }

    public static final class TreeNode {
        final TreeNode left;
        final TreeNode right;
        final String label;

        TreeNode(String label, TreeNode left, TreeNode right) {
            this.label = label;
            this.left = left;
            this.right = right;
        }
    }

    public static final class Marker {
        final long stamp = 42L;
    }

    static ListNode ourList;
    static Map<String, String> ourMap;
    static TreeNode ourTree;
    static int[] ourNumbers;
    static volatile boolean ourChurning;

    static ListNode makeList() {
        ListNode head = null;
        for (int i = LIST_LENGTH - 1; i >= 0; i--) {
            head = new ListNode(i, head);
        }
        return head;
    }

    static Map<String, String> makeMap() {
        Map<String, String> map = new HashMap<String, String>();
        for (int i = 0; i < MAP_SIZE; i++) {
            map.put("key-" + i, "value-" + i);
        }
        return map;
    }

    static TreeNode makeTree(String path, int depth) {
        if (depth == 2) {
            return new TreeNode(path, null, null);
        }
        String prefix = path.equals("root") ? "" : path;
        return new TreeNode(path, makeTree(prefix + "L", depth + 1), makeTree(prefix + "R", depth + 1));
    }

    static void churn() {
        ourChurning = true;
        for (int i = 0; i < 8; i++) {
            Thread allocator = new Thread(new Runnable() {
                public void run() {
                    Object[] ring = new Object[1024];
                    int n = 0;
                    while (ourChurning) {
                        ring[n++ & 1023] = new int[n & 63];
                        ring[n++ & 1023] = "s" + n;
                    }
                }
            }, "allocator-" + i);
            allocator.setDaemon(true);
            allocator.start();
        }
        Thread starter = new Thread(new Runnable() {
            public void run() {
                while (ourChurning) {
                    Thread shortLived = new Thread(new Runnable() {
                        public void run() {
                            new HashMap<String, Object>().put("x", new byte[128]);
                        }
                    }, "short-lived");
                    shortLived.start();
                    try {
                        shortLived.join();
                    } catch (InterruptedException e) {
                        return;
                    }
                }
            }
        }, "starter");
        starter.setDaemon(true);
        starter.start();
        startVirtualThreads();
    }

    // Through reflection, since this program also runs on JVMs without them.
    static void startVirtualThreads() {
        java.lang.reflect.Method start;
        try {
            start = Thread.class.getMethod("startVirtualThread", Runnable.class);
        } catch (NoSuchMethodException e) {
            return;
        }
        for (int i = 0; i < 100; i++) {
            try {
                start.invoke(null, new Runnable() {
                    public void run() {
                        java.util.List<Object> kept = new java.util.ArrayList<Object>();
                        while (ourChurning) {
                            kept.add(new long[16]);
                            if (kept.size() > 64) {
                                kept.clear();
                            }
                            try {
                                Thread.sleep(1);
                            } catch (InterruptedException e) {
                                return;
                            }
                        }
                    }
                });
            } catch (Exception e) {
                throw new IllegalStateException(e);
            }
        }
    }

    public static void main(String[] args) throws Exception {
        ourList = makeList();
        ourMap = makeMap();
        ourTree = makeTree("root", 0);
        ourNumbers = new int[] {3, 1, 4, 1, 5, 9, 2, 6};
        Marker marker = new Marker();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, "UTF-8"));
        System.out.println("ready");
        System.out.flush();
        String line;
        while ((line = in.readLine()) != null) {
            if (line.trim().equals("exit")) {
                break;
            }
            if (line.trim().equals("churn")) {
                churn();
            }
            System.out.println("done " + line.trim());
            System.out.flush();
        }
        ourChurning = false;
        System.out.println(marker.stamp);
    }
}
