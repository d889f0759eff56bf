package com.kestrix.tools.connect;

import com.kestrix.runtime.Packet;
import com.kestrix.runtime.PresentableException;
import com.kestrix.runtime.Protocol;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/**
 * One incremental update of the agent's tables. The request names the tables by a bit mask and,
 * for each, the highest stamp the client already has; the agent answers with every row changed
 * later, whole. The rows come little-endian, as in a snapshot file, but without the table tag:
 * table id, row count, rows, and -1 after the last table.
 */
public final class TableUpdate {
    /** One row as the agent sent it: its index, its stamp (negative once deleted) and its fields. */
    public record Row(int index, int stamp, long[] values, String text) {
    }

    private final Map<Integer, List<Row>> myTables;
    private final int myMaxStamp;

    private TableUpdate(Map<Integer, List<Row>> tables, int maxStamp) {
        myTables = tables;
        myMaxStamp = maxStamp;
    }

    /**
     * Asks for the tables of the mask, each with rows stamped after its entry in minStamps
     * (indexed by table id; null asks for everything).
     */
    public static TableUpdate request(AgentClient client, int mask, int[] minStamps) throws IOException {
        DataOutputStream out = client.begin(Protocol.PACKET_UPDATE_DATABASE_TABLES);
        Packet.writeInt(out, mask);
        for (int bit = 0; bit < 32; bit++) {
            if ((mask & 1 << bit) != 0) {
                Packet.writeInt(out, minStamps == null || bit >= minStamps.length ? 0 : minStamps[bit]);
            }
        }
        out.flush();
        client.expectOk();
        return read(client.in());
    }

    /** Reads the stream that follows the success response, up to and with its end mark. */
    public static TableUpdate read(DataInputStream in) throws IOException {
        Map<Integer, List<Row>> tables = new LinkedHashMap<>();
        int maxStamp = 0;
        while (true) {
            int id = Integer.reverseBytes(in.readInt());
            if (id == -1) {
                return new TableUpdate(tables, maxStamp);
            }
            TableLayout layout = TableLayout.byId(id);
            if (layout == null) {
                throw incorrect("unknown table id " + id);
            }
            int count = Integer.reverseBytes(in.readInt());
            if (count < 0) {
                throw incorrect("table " + layout.tableName + " with " + count + " rows");
            }
            List<Row> rows = new ArrayList<>(Math.min(count, 1 << 16));
            for (int r = 0; r < count; r++) {
                int index = Integer.reverseBytes(in.readInt());
                int stamp = Integer.reverseBytes(in.readInt());
                String text = null;
                if (layout == TableLayout.STRING) {
                    int length = Integer.reverseBytes(in.readInt());
                    if (length < -1) {
                        throw incorrect("string length " + length);
                    }
                    if (length >= 0) {
                        byte[] bytes = new byte[length];
                        in.readFully(bytes);
                        text = new String(bytes, StandardCharsets.UTF_8);
                    }
                }
                long[] values = new long[layout.widths.length];
                for (int f = 0; f < values.length; f++) {
                    values[f] = layout.widths[f] == 4 ? Integer.reverseBytes(in.readInt())
                            : Long.reverseBytes(in.readLong());
                }
                rows.add(new Row(index, stamp, values, text));
                maxStamp = Math.max(maxStamp, Math.abs(stamp));
            }
            tables.computeIfAbsent(id, k -> new ArrayList<>()).addAll(rows);
        }
    }

    /** The ids of the tables in the stream, in stream order. */
    public List<Integer> tableIds() {
        return new ArrayList<>(myTables.keySet());
    }

    /** The rows of a table; empty when the table was not in the stream or had no changed row. */
    public List<Row> rows(int tableId) {
        List<Row> rows = myTables.get(tableId);
        return rows == null ? Collections.emptyList() : rows;
    }

    /** The highest absolute stamp among all rows: asking again with it gives only later changes. */
    public int maxStamp() {
        return myMaxStamp;
    }

    private static PresentableException incorrect(String detail) {
        return new PresentableException(Protocol.INCORRECT_DATA_FROM_AGENT_MESSAGE, detail);
    }
}
