package com.kestrix.bench;

import com.kestrix.tools.connect.AgentClient;
import com.kestrix.tools.connect.TableUpdate;
import java.util.Arrays;

/**
 * A client that connects anew every second for an incremental table update, as a UI that comes
 * and goes would. Prints one line per minute and, at the end, the number of failed updates; the
 * exit status is 1 if any failed.
 */
public class UpdateClient {
    public static void main(String[] args) throws Exception {
        int port = Integer.parseInt(args[0]);
        long seconds = Long.parseLong(args[1]);
        long end = System.nanoTime() + seconds * 1_000_000_000L;
        int[] stamps = new int[32];
        int updates = 0;
        int failures = 0;
        long rows = 0;
        while (System.nanoTime() < end) {
            try (AgentClient client = AgentClient.connect("localhost", port)) {
                TableUpdate update = client.updateTables(258047, stamps);
                Arrays.fill(stamps, Math.max(stamps[0], update.maxStamp()));
                for (int id : update.tableIds()) {
                    rows += update.rows(id).size();
                }
                updates++;
            } catch (Exception e) {
                failures++;
                System.out.println("update failed: " + e);
            }
            Thread.sleep(1000);
        }
        System.out.println("updates " + updates + " failed " + failures + " rows " + rows);
        System.exit(failures == 0 ? 0 : 1);
    }
}
