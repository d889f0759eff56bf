package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.HeapDump;
import com.kestrix.tools.snapshot.Snapshot;
import com.kestrix.tools.snapshot.SnapshotFormatException;
import com.kestrix.tools.snapshot.Table;
import com.kestrix.tools.snapshot.TableLayout;
import java.io.PrintWriter;
import java.time.ZoneId;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;

/**
 * The heap of a snapshot: its size, its GC roots by kind, the classes by the shallow size of
 * their instances, the generations with what each mark added that is still alive, and, for one
 * class, where its live objects were allocated when allocation recording saw them.
 */
final class HeapReport {
    record ClassFigures(String name, long instances, long bytes) {
    }

    record Generation(int id, String description, long uptimeMs, long objects, long bytes) {
    }

    record Site(String thread, List<Integer> methodsLeafFirst, long objects, long bytes) {
    }

    final Profile myProfile;
    final HeapDump myHeap;
    long myObjects;
    long myBytes;
    int myClassCount;
    final Map<String, Long> myRootsByKind = new TreeMap<>();
    int myRootCount;
    final List<ClassFigures> myClasses = new ArrayList<>();
    final List<Generation> myGenerations = new ArrayList<>();
    /** With --class: the class, its figures and allocation sites; null otherwise. */
    ClassFigures myClass;
    final List<Site> mySites = new ArrayList<>();
    long myUnrecorded;
    long myUnrecordedBytes;
    final int myTop;

    HeapReport(Profile profile, int top, String className) throws SnapshotFormatException {
        myProfile = profile;
        myTop = top;
        Snapshot snapshot = profile.snapshot();
        myHeap = snapshot.heap();
        if (myHeap == null) {
            throw new SnapshotFormatException("has no heap dump: capture one with 'kjp connect HOST:PORT capture "
                    + "--heap', or start the JVM with -agentlib:kjpagent=onexit=memory");
        }
        Map<Integer, long[]> byClass = new HashMap<>();
        Map<Integer, long[]> byGeneration = new HashMap<>();
        for (int oid = 1; oid <= myHeap.objectCount(); oid++) {
            byte kind = myHeap.kind(oid);
            if (kind == HeapDump.NONE) {
                continue;
            }
            long size = myHeap.size(oid);
            myObjects++;
            myBytes += size;
            long[] g = byGeneration.computeIfAbsent(myHeap.generation(oid), k -> new long[2]);
            g[0]++;
            g[1] += size;
            int classOid = kind == HeapDump.CLASS ? classClassOid() : myHeap.classOf(oid);
            long[] c = byClass.computeIfAbsent(classOid, k -> new long[2]);
            c[0]++;
            c[1] += size;
        }
        myClassCount = myHeap.classes().size();
        for (Map.Entry<Integer, long[]> e : byClass.entrySet()) {
            myClasses.add(new ClassFigures(className(e.getKey()), e.getValue()[0], e.getValue()[1]));
        }
        myClasses.sort(Comparator.comparingLong(ClassFigures::bytes).reversed()
                .thenComparing(Comparator.comparingLong(ClassFigures::instances).reversed())
                .thenComparing(ClassFigures::name));
        for (HeapDump.Root root : myHeap.roots()) {
            myRootCount++;
            for (String name : HeapDump.rootKindNames(root.kind())) {
                myRootsByKind.merge(name, 1L, Long::sum);
            }
        }
        Table generations = snapshot.table(TableLayout.GENERATION);
        TableLayout g = TableLayout.GENERATION;
        for (int row = 0; row < generations.size(); row++) {
            if (generations.stamp(row) <= 0) {
                continue;
            }
            int id = generations.index(row);
            long[] figures = byGeneration.getOrDefault(id, new long[2]);
            myGenerations.add(new Generation(id, snapshot.string(generations.getInt(row, g.field("descriptionStrID"))),
                    generations.getLong(row, g.field("uptimeMs")), figures[0], figures[1]));
        }
        if (className != null) {
            collectSites(className);
        }
    }

    private int myClassClassOid = -1;

    private int classClassOid() {
        if (myClassClassOid == -1) {
            myClassClassOid = 0;
            for (HeapDump.HeapClass c : myHeap.classes()) {
                if ("java.lang.Class".equals(myProfile.snapshot().string(c.nameStrID()))) {
                    myClassClassOid = c.oid();
                }
            }
        }
        return myClassClassOid;
    }

    private String className(int classOid) {
        HeapDump.HeapClass c = myHeap.heapClass(classOid);
        String name = c == null ? null : myProfile.snapshot().string(c.nameStrID());
        return name == null ? "<class #" + classOid + ">" : name;
    }

    private void collectSites(String name) throws SnapshotFormatException {
        List<Integer> classOids = new ArrayList<>();
        for (HeapDump.HeapClass c : myHeap.classes()) {
            if (name.equals(myProfile.snapshot().string(c.nameStrID()))) {
                classOids.add(c.oid());
            }
        }
        if (classOids.isEmpty()) {
            throw new SnapshotFormatException("has no class " + name + " in its heap");
        }
        long instances = 0;
        long bytes = 0;
        Map<Long, long[]> bySite = new LinkedHashMap<>();
        for (int oid = 1; oid <= myHeap.objectCount(); oid++) {
            if (myHeap.kind(oid) == HeapDump.NONE || myHeap.kind(oid) == HeapDump.CLASS
                    || !classOids.contains(myHeap.classOf(oid))) {
                continue;
            }
            long size = myHeap.size(oid);
            instances++;
            bytes += size;
            int frame = myHeap.allocatorFrame(oid);
            if (frame == 0) {
                myUnrecorded++;
                myUnrecordedBytes += size;
                continue;
            }
            long key = (long) myHeap.allocatorThread(oid) << 32 | (frame & 0xFFFFFFFFL);
            long[] f = bySite.computeIfAbsent(key, k -> new long[2]);
            f[0]++;
            f[1] += size;
        }
        myClass = new ClassFigures(name, instances, bytes);
        for (Map.Entry<Long, long[]> e : bySite.entrySet()) {
            int thread = (int) (e.getKey() >> 32);
            int frame = (int) (long) e.getKey();
            Profile.ThreadEntry entry = myProfile.threadByNumber(thread);
            mySites.add(new Site(entry == null ? "<thread " + thread + ">" : entry.name(),
                    myProfile.methodsLeafFirst(frame), e.getValue()[0], e.getValue()[1]));
        }
        mySites.sort(Comparator.comparingLong(Site::objects).reversed().thenComparing(Site::thread));
    }

    void writeText(ZoneId zone, PrintWriter out) {
        Listing.snapshotHeader(myProfile, zone, out);
        out.println(Format.padRight("Heap", 10) + Format.count(myObjects) + " objects, " + Format.count(myBytes)
                + " bytes, " + Format.count(myClassCount) + " classes");
        List<String> roots = new ArrayList<>();
        for (Map.Entry<String, Long> e : myRootsByKind.entrySet()) {
            roots.add(Format.count(e.getValue()) + " " + e.getKey());
        }
        out.println(Format.padRight("GC roots", 10) + Format.count(myRootCount)
                + (roots.isEmpty() ? "" : ": " + String.join(", ", roots)));
        if (myClass != null) {
            writeSites(out);
            out.flush();
            return;
        }
        out.println();
        out.println("Classes by shallow size of their instances (top " + Math.min(myTop, myClasses.size()) + " of "
                + Format.count(myClasses.size()) + ")");
        out.println("    Instances            Bytes       %  Class");
        for (ClassFigures c : myClasses.subList(0, Math.min(myTop, myClasses.size()))) {
            out.println("  " + Format.padLeft(Format.count(c.instances()), 11) + "  "
                    + Format.padLeft(Format.count(c.bytes()), 15) + "  "
                    + Format.padLeft(Format.percent(c.bytes(), myBytes), 6) + "  " + c.name());
        }
        out.println();
        out.println("Generations: what each mark added that is still alive");
        out.println("    #     Uptime       Objects            Bytes  Mark");
        for (Generation g : myGenerations) {
            out.println("  " + Format.padLeft(String.valueOf(g.id()), 3) + "  "
                    + Format.padLeft(Format.millis(g.uptimeMs() * 1_000_000), 9).replace(".0 ms", " ms") + "  "
                    + Format.padLeft(Format.count(g.objects()), 12) + "  " + Format.padLeft(Format.count(g.bytes()), 15)
                    + "  " + (g.description() == null ? "" : g.description()));
        }
        out.flush();
    }

    private void writeSites(PrintWriter out) {
        out.println();
        out.println("Live instances of " + myClass.name() + ": " + Format.count(myClass.instances()) + ", "
                + Format.count(myClass.bytes()) + " bytes");
        if (!myHeap.hasAllocators()) {
            out.println("No allocation sites: they are in snapshots taken while allocation recording runs.");
            return;
        }
        out.println("Allocation sites");
        out.println("      Objects            Bytes  Thread and path");
        for (Site site : mySites) {
            String lead = "  " + Format.padLeft(Format.count(site.objects()), 11) + "  "
                    + Format.padLeft(Format.count(site.bytes()), 15) + "  ";
            String indent = " ".repeat(lead.length());
            out.println(lead + "thread " + site.thread());
            for (int i = 0; i < site.methodsLeafFirst().size(); i++) {
                String name = myProfile.methodName(site.methodsLeafFirst().get(i));
                out.println(indent + (i == 0 ? "at " : "<- ") + name);
            }
        }
        if (myUnrecorded > 0) {
            out.println("  " + Format.padLeft(Format.count(myUnrecorded), 11) + "  "
                    + Format.padLeft(Format.count(myUnrecordedBytes), 15) + "  not recorded");
        }
    }

    String renderJson() {
        Json json = Listing.snapshotJson(myProfile);
        json.field("objects", myObjects).field("bytes", myBytes).field("classes", myClassCount);
        json.name("gcRoots").beginObject().field("total", myRootCount);
        for (Map.Entry<String, Long> e : myRootsByKind.entrySet()) {
            json.field(e.getKey(), e.getValue());
        }
        json.endObject();
        if (myClass != null) {
            json.name("class").beginObject().field("name", myClass.name()).field("instances", myClass.instances())
                    .field("bytes", myClass.bytes()).field("unrecordedInstances", myUnrecorded);
            json.name("allocationSites").beginArray();
            for (Site site : mySites) {
                json.beginObject().field("thread", site.thread()).field("objects", site.objects())
                        .field("bytes", site.bytes()).name("methodsLeafFirst").beginArray();
                for (int method : site.methodsLeafFirst()) {
                    json.value(myProfile.methodName(method));
                }
                json.endArray().endObject();
            }
            json.endArray().endObject();
        } else {
            json.name("classes").beginArray();
            for (ClassFigures c : myClasses.subList(0, Math.min(myTop, myClasses.size()))) {
                json.beginObject().field("name", c.name()).field("instances", c.instances()).field("bytes", c.bytes())
                        .endObject();
            }
            json.endArray();
        }
        json.name("generations").beginArray();
        for (Generation g : myGenerations) {
            json.beginObject().field("id", g.id()).field("description", g.description())
                    .field("uptimeMs", g.uptimeMs()).field("objects", g.objects()).field("bytes", g.bytes()).endObject();
        }
        json.endArray().endObject();
        return json.toString();
    }
}
