package com.kestrix.tools.kjp;

import com.kestrix.tools.snapshot.SnapshotHeader;
import java.time.Instant;
import java.util.List;

/** The report's data as one JSON object, for scripts. Times are nanoseconds; instants ISO-8601 in UTC. */
final class JsonReport {
    private JsonReport() {
    }

    static String render(Report report) {
        SnapshotHeader h = report.myHeader;
        Json json = new Json().beginObject();
        json.field("file", report.myProfile.snapshot().file().toString());
        json.name("session").beginObject()
                .field("name", h.sessionName())
                .field("startTime", Instant.ofEpochSecond(h.startTimeSeconds()).toString())
                .field("startTimeEpochSeconds", h.startTimeSeconds())
                .field("captureTime", Instant.ofEpochMilli(h.captureTimeMillis()).toString())
                .field("captureTimeEpochMillis", h.captureTimeMillis())
                .field("cause", h.cause())
                .field("snapshotNumber", h.snapshotNumber())
                .field("formatVersion", String.valueOf(h.formatVersion()))
                .field("creator", h.creator())
                .field("flags", h.flags());
        json.name("flagNames").beginArray();
        for (String flag : h.flagNames()) {
            json.value(flag);
        }
        json.endArray();
        json.field("jvm", report.jvm()).field("command", report.command()).endObject();

        json.name("cpu").beginObject()
                .field("mode", report.cpuMode())
                .field("timesSource", report.timesSourceKey())
                .name("invocationCounts").value(report.myProfile.hasCounts())
                .field("totalTimeNs", report.myCpuNs)
                .field("threadsWithData", report.myThreadsWithCpu)
                .endObject();

        // Present only when the snapshot has such rows, as the text report's lines are.
        LockReport locks = report.myLocks;
        if (!locks.mySections.isEmpty()) {
            json.name("locks").beginObject();
            for (LockReport.Kind kind : LockReport.Kind.values()) {
                LockReport.Section section = locks.section(kind);
                json.name(kind.many).beginObject().field("timeNs", section == null ? 0 : section.timeNs())
                        .field("count", section == null ? 0 : section.count()).endObject();
            }
            json.name("recordingDurationNs");
            if (locks.myDurationNs == null) {
                json.value((String) null);
            } else {
                json.value(locks.myDurationNs);
            }
            json.endObject();
        }
        ExceptionReport exceptions = report.myExceptions;
        if (exceptions.myThrown > 0) {
            json.name("exceptions").beginObject().field("thrown", exceptions.myThrown)
                    .field("classes", exceptions.myClasses).field("uncaught", exceptions.myUncaught).endObject();
        }
        if (!report.myJ2EE.isEmpty()) {
            report.myJ2EE.writeJson(json);
        }

        json.name("threads").beginArray();
        for (Report.ThreadLine line : report.myThreads) {
            json.beginObject()
                    .field("runningNumber", line.thread().runningNumber())
                    .field("name", line.thread().name())
                    .field("group", line.thread().group())
                    .field("osThreadId", line.thread().osThreadId());
            json.name("cpuTimeNs");
            if (line.cpuNs() == null) {
                json.value((String) null);
            } else {
                json.value(line.cpuNs());
            }
            json.endObject();
        }
        json.endArray();

        json.name("sections").beginArray();
        for (Report.Section section : report.mySections) {
            json.beginObject().field("thread", section.thread()).field("cpuTimeNs", section.cpuNs());
            hotSpots(json, "hotSpotsByOwnTime", section.byOwnTime(), report.myProfile.hasCounts());
            hotSpots(json, "hotSpotsByTotalTime", section.byTotalTime(), report.myProfile.hasCounts());
            json.name("hottestPaths").beginArray();
            for (Report.HotPath path : section.paths()) {
                json.beginObject().field("ownTimeNs", path.ownNs()).field("totalTimeNs", path.totalNs());
                if (report.myProfile.hasCounts()) {
                    json.field("invocations", path.invocations());
                }
                json.name("methodsLeafFirst").beginArray();
                for (String method : path.methodsLeafFirst()) {
                    json.value(method);
                }
                json.endArray().endObject();
            }
            json.endArray().endObject();
        }
        json.endArray();
        return json.endObject().toString();
    }

    private static void hotSpots(Json json, String name, List<Report.HotSpot> spots, boolean counts) {
        json.name(name).beginArray();
        for (Report.HotSpot spot : spots) {
            json.beginObject().field("method", spot.method()).field("ownTimeNs", spot.ownNs())
                    .field("totalTimeNs", spot.totalNs());
            if (counts) {
                json.field("invocations", spot.invocations());
            }
            json.endObject();
        }
        json.endArray();
    }
}
