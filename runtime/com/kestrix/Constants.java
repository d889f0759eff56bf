package com.kestrix;

import java.io.File;
import java.util.Date;
import java.util.TimeZone;
import java.util.Locale;

import com.kestrix.util.Strings;

/** Numbers, names and places shared by the agent's runtime, the tools and the UI. */
public final class Constants {
    public static final String PRODUCT_NAME = "Kestrix Java Profiler";
    public static final String PRODUCT_VERSION = "8.0.1";
    public static final String PRODUCT_NAME_AND_VERSION = PRODUCT_NAME + " " + PRODUCT_VERSION;

    public static final int AGENT_PROTOCOL_VERSION = 20081129;
    public static final int UI_PROTOCOL_VERSION = 20071015;

    // Snapshot flags: the 64-bit word in a snapshot's header and in its row of the session.
    public static final long SNAPSHOT_WITH_HEAP = 1;
    public static final long SNAPSHOT_CLR_2_0 = 4;
    public static final long SNAPSHOT_WITH_COUNTS = 8;
    public static final long SNAPSHOT_HPROF = 16;
    public static final long SNAPSHOT_CAUSE_SHUTDOWN = 32;
    public static final long SNAPSHOT_CAUSE_PERIODIC = 64;
    public static final long SNAPSHOT_CAUSE_LOW_MEMORY = 128;
    public static final long SNAPSHOT_CAUSE_OOME = 256;
    public static final long SNAPSHOT_OIDS_ARE_INDICES = 512;
    public static final long SNAPSHOT_CLR_1_1 = 1024;

    /** Ports tried in order when no port is given; after them any free port will do. */
    public static final int[] DEFAULT_PORTS = {10001, 10002, 10003, 10004, 10005, 10006, 10007, 10008, 10009, 10010};

    public static final String USER_HOME = System.getProperty("user.home");
    public static final File SNAPSHOTS_DIR = new File(USER_HOME, "Snapshots");
    public static final File SYSTEM_HOME = new File(USER_HOME, ".kjp");
    public static final File CONFIG_DIR = new File(SYSTEM_HOME, "config");
    public static final File FILTERS_FOR_AGENT_FILE = new File(CONFIG_DIR, ".filters");
    public static final File WALLTIMESPEC_FOR_AGENT_FILE = new File(CONFIG_DIR, ".walltime");
    public static final File IGNORE_LIST_FOR_AGENT_FILE = new File(CONFIG_DIR, ".ignore");
    /** The licence file; the check that reads it is not part of the agent. */
    public static final File LICENSE_FILE = new File(SYSTEM_HOME, "license.txt");

    public static final String SNAPSHOT_FILE_EXTENSION = ".snapshot";
    public static final String HPROF_SNAPSHOT_FILE_EXTENSION = ".hprof";
    public static final String SNAPSHOT_INDEX_POSTFIX = ".index";

    public static final String JAVA_VERSION = System.getProperty("java.version", "");
    public static final boolean JAVA_VERSION_6_OR_NEWER = isJava6OrNewer(JAVA_VERSION);
    public static final boolean JAVA_VERSION_7 = JAVA_VERSION.startsWith("1.7");

    private static final String OS_NAME = System.getProperty("os.name", "").toLowerCase(Locale.US);
    public static final boolean OS_WINDOWS = OS_NAME.startsWith("windows");
    public static final boolean OS_LINUX = OS_NAME.startsWith("linux");
    public static final boolean OS_SOLARIS = OS_NAME.startsWith("sunos");
    public static final boolean OS_MAC = OS_NAME.startsWith("mac os x");
    public static final boolean OS_FREEBSD = OS_NAME.startsWith("freebsd");

    public static final int BUILD_NUMBER = 4064;
    public static final String BUILD_TIME_STAMP_TEXT = "200902201432";

    /**
     * The build time. Asked for, not kept: the local time zone it needs loads the JDK's zone
     * database, which cost a JVM under the agent 70 ms of its start-up on JDK 25.
     */
    public static Date buildTimeStamp() {
        return parseBuildTimeStamp(BUILD_TIME_STAMP_TEXT);
    }

    // Kinds of process in the shared-memory marker.
    public static final int MARKER_TYPE_BIT_JAVA = 1;
    public static final int MARKER_TYPE_BIT_CLR = 2;
    public static final int MARKER_TYPE_BIT_IIS = 4;
    public static final int MARKER_TYPE_BIT_VS_PLUGIN = 8;

    public static final boolean DOT_NET = "true".equals(System.getProperty("kestrix.dot.net"));
    public static final boolean EAP = "true".equals(System.getProperty("kestrix.eap"));
    public static final boolean PARANOIC_CHECKS = "true".equals(System.getProperty("kestrix.paranoic.checks"));

    private Constants() {
    }

    /**
     * Whether a java.version value is 1.6 or later. Old JVMs say "1.6.0_45", current ones "9",
     * "17.0.15" or "25.0.3": compared number by number, all of these are above "1.6".
     */
    public static boolean isJava6OrNewer(String javaVersion) {
        return javaVersion != null && Strings.compareVersions(javaVersion, "1.6") >= 0;
    }

    /**
     * The text as the pattern "yyyyMMddkkmm" reads it in the local time zone. Counted out by
     * hand: a date format would bring in the JVM's locale machinery at every start-up, which
     * costs a JVM under the agent tens of milliseconds for a date that is hardly ever read.
     */
    static Date parseBuildTimeStamp(String text) {
        if (text == null || text.length() != 12) {
            return new Date(0);
        }
        for (int i = 0; i < 12; i++) {
            if (text.charAt(i) < '0' || text.charAt(i) > '9') {
                return new Date(0);
            }
        }
        int year = Integer.parseInt(text.substring(0, 4));
        int month = Integer.parseInt(text.substring(4, 6));
        int day = Integer.parseInt(text.substring(6, 8));
        int hour = Integer.parseInt(text.substring(8, 10)) % 24;  // kk counts 1 to 24
        int minute = Integer.parseInt(text.substring(10, 12));
        // Days from 1970-01-01 to the date in the proleptic Gregorian calendar.
        int y = month <= 2 ? year - 1 : year;
        int era = (y >= 0 ? y : y - 399) / 400;
        int yearOfEra = y - era * 400;
        int dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
        int dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
        long days = era * 146097L + dayOfEra - 719468;
        long utc = ((days * 24 + hour) * 60 + minute) * 60000L;
        TimeZone zone = TimeZone.getDefault();
        return new Date(utc - zone.getOffset(utc - zone.getRawOffset()));
    }
}
