package com.kestrix.bench;

import com.sun.management.HotSpotDiagnosticMXBean;
import java.io.BufferedReader;
import java.io.File;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * Holds a heap of about six million objects of the usual kinds: hash maps of strings to boxed
 * numbers, array lists of strings, int and long arrays, object arrays. Prints "ready" and reads
 * commands from standard input: "hprof PATH" has the JVM write its own HPROF dump of all objects
 * there and prints "hprof MS" with the milliseconds it took; "exit" ends.
 */
public class BigHeap {
    static final List<Object> ourKept = new ArrayList<Object>();

    public static void main(String[] args) throws Exception {
        int groups = args.length > 0 ? Integer.parseInt(args[0]) : 1000;
        for (int g = 0; g < groups; g++) {
            // Per group about 6,000 objects: 1,000 map entries with key string and its byte[]
            // (3,000) and boxed value (most cached or 1,000), a list of 500 strings (1,000), arrays.
            Map<String, Long> map = new HashMap<String, Long>();
            for (int i = 0; i < 1000; i++) {
                map.put("k" + g + "-" + i, Long.valueOf((long) g * 1000 + i));
            }
            List<String> list = new ArrayList<String>();
            for (int i = 0; i < 500; i++) {
                list.add("s" + g + "/" + i);
            }
            Object[] arrays = new Object[20];
            for (int i = 0; i < arrays.length; i++) {
                arrays[i] = (i & 1) == 0 ? new int[i * 8] : new long[i * 4];
            }
            ourKept.add(map);
            ourKept.add(list);
            ourKept.add(arrays);
        }
        System.gc();
        System.out.println("ready");
        System.out.flush();
        HotSpotDiagnosticMXBean bean = ManagementFactory.getPlatformMXBean(HotSpotDiagnosticMXBean.class);
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, "UTF-8"));
        String line;
        while ((line = in.readLine()) != null) {
            if (line.startsWith("hprof ")) {
                String path = line.substring(6);
                new File(path).delete();
                long start = System.nanoTime();
                bean.dumpHeap(path, false);
                System.out.println("hprof " + (System.nanoTime() - start) / 1000000);
                System.out.flush();
            } else if (line.equals("exit")) {
                break;
            }
        }
    }
}
