package com.kestrix.tools.kjp;

import java.util.ArrayList;
import java.util.Comparator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.function.Predicate;

/**
 * J2EE events as frames of their own in the call trees of flame and collapsed: "[SQL] SELECT
 * ...", "[request] /cart", "[dispatch] /view", "[JNDI] jdbc/shop" between the probed method's
 * frame and its callees. The event's time is what the CPU data of that frame grew by during the
 * calls, so the event frame is part of the probed frame and holds its callees: its time is the
 * events', but never less than the callees' nor more than the probed frame's, and the totals of
 * the tree stay what was recorded. Events of several texts at one frame and thread (requests of
 * different URIs through HttpServlet's service method) share one frame that names them all: the
 * recording cannot tell which callee ran for which.
 */
final class J2EEFrames {
    /** Events made inside another of their kind are left to it, as in kjp sql and kjp requests. */
    private static final List<Predicate<J2EEEvents.Event>> KINDS = List.of(J2EEEvents.Event::isSql,
            J2EEEvents.Event::isRequest, e -> e.kind() == J2EEEvents.KIND_DISPATCH,
            e -> e.kind() == J2EEEvents.KIND_JNDI);

    /** Texts named in a shared frame before "| N more". */
    private static final int NAMED = 4;

    private J2EEFrames() {
    }

    /**
     * Inserts the frames into each tree: a per-thread tree gets its thread's events, a merged
     * one those of the threads it holds. 'value' COUNT gives the frames no invocations of their
     * own, so that counts stay those of methods.
     */
    static void insert(Profile profile, List<CallTree> trees, Set<String> threadNames, Collapsed.Value value) {
        List<J2EEEvents.Event> events = J2EEEvents.read(profile);
        List<J2EEEvents.Event> shown = new ArrayList<>();
        for (Predicate<J2EEEvents.Event> kind : KINDS) {
            shown.addAll(J2EEEvents.outermost(profile, events, kind));
        }
        for (CallTree tree : trees) {
            Map<Integer, List<J2EEEvents.Event>> byNode = new LinkedHashMap<>();
            for (J2EEEvents.Event e : shown) {
                boolean inTree = tree.myThread != null ? e.thread() == tree.myThread.runningNumber()
                        : threadNames.isEmpty() || threadNames.contains(e.threadName());
                int node = inTree ? tree.nodeOf(e.frame()) : -1;
                if (node > 0) {
                    byNode.computeIfAbsent(node, k -> new ArrayList<>()).add(e);
                }
            }
            if (byNode.isEmpty()) {
                continue;
            }
            for (Map.Entry<Integer, List<J2EEEvents.Event>> entry : byNode.entrySet()) {
                int node = entry.getKey();
                long callees = 0;
                for (int child = tree.myFirstChild[node]; child != -1; child = tree.myNextSibling[child]) {
                    callees += tree.myTotal[child];
                }
                long time = 0;
                long calls = 0;
                for (J2EEEvents.Event e : entry.getValue()) {
                    time += e.timeNs();
                    calls += e.count();
                }
                int inserted = tree.insertLabelled(node, label(profile, entry.getValue()),
                        Math.min(tree.myTotal[node], Math.max(time, callees)));
                tree.myCount[inserted] = value == Collapsed.Value.COUNT ? 0 : calls;
            }
            tree.preorder();
            tree.computeOwnTimes();
        }
    }

    /** "[SQL] SELECT ...", or for several texts "[request] /a | /b | /c | 2 more", the costliest first. */
    static String label(Profile profile, List<J2EEEvents.Event> events) {
        Map<String, long[]> byText = new LinkedHashMap<>();
        for (J2EEEvents.Event e : events) {
            String text = e.text();
            if (text.isEmpty()) {
                List<Integer> methods = profile.methodsLeafFirst(e.frame());
                text = "(" + (methods.isEmpty() ? "no text" : J2EEEvents.simpleName(profile.methodName(methods.get(0))))
                        + ")";
            }
            long[] figures = byText.computeIfAbsent(text, k -> new long[2]);
            figures[0] += e.timeNs();
            figures[1] += e.count();
        }
        List<Map.Entry<String, long[]>> texts = new ArrayList<>(byText.entrySet());
        texts.sort(Comparator.comparingLong((Map.Entry<String, long[]> t) -> -t.getValue()[0])
                .thenComparingLong(t -> -t.getValue()[1]).thenComparing(Map.Entry::getKey));
        StringBuilder label = new StringBuilder("[").append(J2EEEvents.kindName(events.get(0).kind())).append("] ");
        for (int i = 0; i < Math.min(NAMED, texts.size()); i++) {
            label.append(i == 0 ? "" : " | ").append(texts.get(i).getKey());
        }
        if (texts.size() > NAMED) {
            label.append(" | ").append(texts.size() - NAMED).append(" more");
        }
        return label.toString();
    }
}
