package com.kestrix.test;

import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/** Call paths of a snapshot as the tests compare them: "class.method" names, outermost first. */
public final class SnapshotPaths {
    private SnapshotPaths() {
    }

    /** The methods from the root down to 'frame'; a frame or method the snapshot lacks is named as missing. */
    public static List<String> methods(Snapshot snapshot, int frame) {
        Table frames = snapshot.table(TableLayout.FRAME);
        Table methods = snapshot.table(TableLayout.METHOD);
        List<String> path = new ArrayList<>();
        int guard = frames.size() + 1;
        for (int current = frame; current > 0 && guard-- > 0; ) {
            int row = frames.rowOf(current);
            if (row < 0) {
                path.add(0, "<missing frame " + current + ">");
                break;
            }
            int method = methods.rowOf(frames.getInt(row, TableLayout.FRAME.field("callee")));
            path.add(0, method < 0 ? "<unknown method>"
                    : snapshot.string(methods.getInt(method, TableLayout.METHOD.field("classNameStrID"))) + "."
                            + snapshot.string(methods.getInt(method, TableLayout.METHOD.field("nameStrID"))));
            current = frames.getInt(row, TableLayout.FRAME.field("parent"));
        }
        return path;
    }

    /** The names of the snapshot's threads by their slot in the thread-frame pairs. */
    public static Map<Integer, String> threadNamesBySlot(Snapshot snapshot) {
        Map<Integer, String> names = new HashMap<>();
        Table threads = snapshot.table(TableLayout.THREAD);
        for (int row = 0; row < threads.size(); row++) {
            int slot = threads.getInt(row, TableLayout.THREAD.field("indexForTFI"));
            if (threads.stamp(row) > 0 && slot != 0) {
                names.put(slot, snapshot.string(threads.getInt(row, TableLayout.THREAD.field("nameStrID"))));
            }
        }
        return names;
    }
}
