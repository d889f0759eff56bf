package com.kestrix.test;

import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.util.ArrayList;
import java.util.List;

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
}
