package com.kestrix.tools.kjp;

import java.util.HashSet;
import java.util.List;
import java.util.Set;

/**
 * The J2EE figures of "kjp report": SQL statements, requests and JNDI calls, each counted once
 * where the application made it (calls made inside another of their kind are not counted again).
 */
final class J2EESummary {
    final SqlReport mySql;
    final long myRequests;
    final int myUris;
    final long myJndiCalls;

    J2EESummary(Profile profile, Set<String> threadNames) {
        mySql = new SqlReport(profile, threadNames, 0, 0);
        List<J2EEEvents.Event> events = J2EEEvents.read(profile);
        long requests = 0;
        Set<String> uris = new HashSet<>();
        for (J2EEEvents.Event e : J2EEEvents.outermost(profile, events, J2EEEvents.Event::isRequest)) {
            if (threadNames.isEmpty() || threadNames.contains(e.threadName())) {
                requests += e.count();
                uris.add(e.text());
            }
        }
        long jndi = 0;
        for (J2EEEvents.Event e : J2EEEvents.outermost(profile, events, e -> e.kind() == J2EEEvents.KIND_JNDI)) {
            if (threadNames.isEmpty() || threadNames.contains(e.threadName())) {
                jndi += e.count();
            }
        }
        myRequests = requests;
        myUris = uris.size();
        myJndiCalls = jndi;
    }

    boolean isEmpty() {
        return mySql.myExecutions == 0 && myRequests == 0 && myJndiCalls == 0;
    }

    /**
     * "J2EE: 1,010 SQL statements (2 distinct), 550 requests (2 URIs); see kjp sql, kjp requests",
     * with the parts that have events; null when none has.
     */
    String line() {
        if (isEmpty()) {
            return null;
        }
        StringBuilder text = new StringBuilder("J2EE: ");
        String see = "";
        if (mySql.myExecutions > 0) {
            text.append(Listing.counted(mySql.myExecutions, "SQL statement", "SQL statements")).append(" (")
                    .append(Format.count(mySql.myDistinct)).append(" distinct)");
            see = "kjp sql";
        }
        if (myRequests > 0) {
            text.append(see.isEmpty() ? "" : ", ").append(Listing.counted(myRequests, "request", "requests"))
                    .append(" (").append(Listing.counted(myUris, "URI", "URIs")).append(')');
            see += (see.isEmpty() ? "" : ", ") + "kjp requests";
        }
        if (myJndiCalls > 0) {
            text.append(mySql.myExecutions + myRequests > 0 ? ", " : "")
                    .append(Listing.counted(myJndiCalls, "JNDI call", "JNDI calls"));
        }
        return see.isEmpty() ? text.toString() : text + "; see " + see;
    }

    void writeJson(Json json) {
        json.name("j2ee").beginObject().field("sqlStatements", mySql.myExecutions)
                .field("distinctStatements", mySql.myDistinct).field("requests", myRequests)
                .field("distinctUris", myUris).field("jndiCalls", myJndiCalls).endObject();
    }
}
