package com.kestrix.memory;

import com.kestrix.test.SnapshotPaths;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;

/**
 * The allocation figures of a snapshot, one entry per (thread, allocating frame): the thread's
 * name, the call path from the outermost frame down as "Class.method" names, the number of
 * recorded objects and their bytes.
 */
final class AllocationProfile {
    record Site(String thread, List<String> path, long count, long bytes) {
        boolean endsWith(List<String> tail) {
            return path.size() >= tail.size() && path.subList(path.size() - tail.size(), path.size()).equals(tail);
        }

        @Override
        public String toString() {
            return thread + ": " + String.join(" > ", path) + " count=" + count + " bytes=" + bytes;
        }
    }

    final List<Site> sites = new ArrayList<>();
    /** Live instances by class name, from the instance counts table. */
    final Map<String, Long> instances = new HashMap<>();

    AllocationProfile(Snapshot snapshot) {
        Table counts = snapshot.table(TableLayout.INSTANCECOUNTS);
        for (int row = 0; row < counts.size(); row++) {
            if (counts.stamp(row) > 0) {
                instances.put(snapshot.string(counts.getInt(row, TableLayout.INSTANCECOUNTS.field("classNameStrID"))),
                        (long) counts.getInt(row, TableLayout.INSTANCECOUNTS.field("count")));
            }
        }
        Map<Integer, String> threadBySlot = SnapshotPaths.threadNamesBySlot(snapshot);
        Table pairs = snapshot.table(TableLayout.THREADFRAME);
        Table alloc = snapshot.table(TableLayout.ALLOCINFO);
        for (int row = 0; row < alloc.size(); row++) {
            long count = alloc.getLong(row, TableLayout.ALLOCINFO.field("count"));
            if (alloc.stamp(row) <= 0 || count == 0) {
                continue;
            }
            // The row's index is its TFI, which names the (thread, frame) pair.
            int pair = pairs.rowOf(alloc.index(row));
            if (pair < 0) {
                continue;
            }
            String thread = threadBySlot.getOrDefault(
                    pairs.getInt(pair, TableLayout.THREADFRAME.field("threadIndexForTFI")), "<no thread>");
            int frame = pairs.getInt(pair, TableLayout.THREADFRAME.field("frameID"));
            sites.add(new Site(thread, SnapshotPaths.methods(snapshot, frame), count,
                    alloc.getLong(row, TableLayout.ALLOCINFO.field("size"))));
        }
    }

    /** The sites whose path ends with these methods, one calling the next. */
    List<Site> endingWith(String... methods) {
        List<String> tail = Arrays.asList(methods);
        return sites.stream().filter(s -> s.endsWith(tail)).collect(Collectors.toList());
    }

    long countEndingWith(String... methods) {
        return endingWith(methods).stream().mapToLong(Site::count).sum();
    }

    long totalCount() {
        return sites.stream().mapToLong(Site::count).sum();
    }

    @Override
    public String toString() {
        return sites.stream().map(Site::toString).collect(Collectors.joining("\n"));
    }
}
