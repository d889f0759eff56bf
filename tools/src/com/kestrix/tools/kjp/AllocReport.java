package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.SnapshotFormatException;
import java.io.PrintWriter;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;

/**
 * Where the recorded objects were allocated: per allocating method and per call path, objects
 * and bytes, for all threads together or for each thread. Only what allocation recording picked
 * is counted (every object with "alloc", every N-th with a sampling rule).
 */
final class AllocReport {
    /** The figures of all threads together, or of one thread. */
    record Section(String thread, long objects, long bytes, List<HotSpots.MethodFigures> methods,
            List<HotSpots.PathFigures> paths) {
    }

    final Profile myProfile;
    final List<Section> mySections = new ArrayList<>();
    long myObjects;
    long myBytes;
    int myThreads;

    AllocReport(Profile profile, int top, int paths, boolean byThread, Set<String> threads)
            throws SnapshotFormatException {
        myProfile = profile;
        if (!profile.hasAllocations()) {
            throw new SnapshotFormatException("has no recorded allocations: they are recorded while allocation "
                    + "recording runs (-agentlib:kjpagent=alloc, or kjp connect HOST:PORT start-alloc)");
        }
        List<CallTree> perThread = profile.allocationTrees(false, threads);
        for (CallTree tree : perThread) {
            if (tree.myTotal[0] > 0 || count(tree) > 0) {
                myThreads++;
                myBytes += tree.myTotal[0];
                myObjects += count(tree);
            }
        }
        List<CallTree> trees = byThread ? perThread : profile.allocationTrees(true, threads);
        for (CallTree tree : trees) {
            long objects = count(tree);
            if (objects == 0) {
                continue;
            }
            List<HotSpots.MethodFigures> methods = HotSpots.byMethod(List.of(tree));
            methods = methods.subList(0, Math.min(top, methods.size()));
            mySections.add(new Section(byThread ? tree.myName : null, objects, tree.myTotal[0], methods,
                    HotSpots.hottestPaths(List.of(tree), paths)));
        }
    }

    private static long count(CallTree tree) {
        long sum = 0;
        for (int node = 0; node < tree.size(); node++) {
            sum += tree.myCount[node];
        }
        return sum;
    }

    void writeText(ZoneId zone, PrintWriter out) {
        Listing.snapshotHeader(myProfile, zone, out);
        out.println(Format.padRight("Recorded", 10) + Format.count(myObjects) + " objects, " + Format.count(myBytes)
                + " bytes in " + myThreads + (myThreads == 1 ? " thread" : " threads"));
        for (Section section : mySections) {
            String whose = section.thread() == null ? "all threads" : "thread " + section.thread();
            out.println();
            out.println("Allocations by allocating method, " + whose + " (" + Format.count(section.objects())
                    + " objects, " + Format.count(section.bytes()) + " bytes)");
            out.println("      Objects       %            Bytes       %  Method");
            for (HotSpots.MethodFigures m : section.methods()) {
                out.println("  " + Format.padLeft(Format.count(m.invocations()), 11) + "  "
                        + Format.padLeft(Format.percent(m.invocations(), section.objects()), 6) + "  "
                        + Format.padLeft(Format.count(m.ownNs()), 15) + "  "
                        + Format.padLeft(Format.percent(m.ownNs(), section.bytes()), 6) + "  "
                        + myProfile.methodName(m.method()));
            }
            out.println();
            out.println("Allocation hot spots by call path, " + whose);
            out.println("      Objects            Bytes  Path");
            for (HotSpots.PathFigures p : section.paths()) {
                String lead = "  " + Format.padLeft(Format.count(p.invocations()), 11) + "  "
                        + Format.padLeft(Format.count(p.ownNs()), 15) + "  ";
                String indent = " ".repeat(lead.length());
                for (int i = 0; i < p.methodsLeafFirst().size(); i++) {
                    String name = myProfile.methodName(p.methodsLeafFirst().get(i));
                    out.println(i == 0 ? lead + name : indent + "<- " + name);
                }
            }
        }
        out.flush();
    }

    String renderJson() {
        Json json = Listing.snapshotJson(myProfile);
        json.field("objects", myObjects).field("bytes", myBytes).field("threads", myThreads);
        json.name("sections").beginArray();
        for (Section section : mySections) {
            json.beginObject().field("thread", section.thread()).field("objects", section.objects())
                    .field("bytes", section.bytes());
            json.name("methods").beginArray();
            for (HotSpots.MethodFigures m : section.methods()) {
                json.beginObject().field("method", myProfile.methodName(m.method())).field("objects", m.invocations())
                        .field("bytes", m.ownNs()).field("bytesWithCallees", m.totalNs()).endObject();
            }
            json.endArray().name("paths").beginArray();
            for (HotSpots.PathFigures p : section.paths()) {
                json.beginObject().field("objects", p.invocations()).field("bytes", p.ownNs());
                json.name("methodsLeafFirst").beginArray();
                for (int method : p.methodsLeafFirst()) {
                    json.value(myProfile.methodName(method));
                }
                json.endArray().endObject();
            }
            json.endArray().endObject();
        }
        json.endArray().endObject();
        return json.toString();
    }
}
