package com.kestrix.runtime;

import java.io.File;
import java.lang.management.ManagementFactory;

import javax.management.MBeanServer;
import javax.management.ObjectName;
import javax.management.openmbean.CompositeData;

import com.kestrix.Constants;

/**
 * The link to the JVM's own heap dumper, through its diagnostic bean: heap dumps at an
 * OutOfMemoryError, and HPROF snapshots on request. Any JVM that has the bean will do.
 */
final class OOMEDumper {
    static final String OBJECT_NAME = "com.sun.management:type=HotSpotDiagnostic";
    static final String OPTION_HEAP_DUMP_ON_OOM = "HeapDumpOnOutOfMemoryError";
    private static final String OPTION_HEAP_DUMP_PATH = "HeapDumpPath";

    // Once a call has failed the bean is taken as missing, and later calls cost nothing.
    private static volatile boolean ourBeanExists = Constants.JAVA_VERSION_6_OR_NEWER;

    private OOMEDumper() {
    }

    /** Whether the bean is there to be asked; the first call looks it up. */
    static boolean isAvailable() {
        if (!ourBeanExists) {
            return false;
        }
        try {
            if (!getServer().isRegistered(new ObjectName(OBJECT_NAME))) {
                ourBeanExists = false;
            }
        } catch (Throwable e) {
            ourBeanExists = false;
        }
        return ourBeanExists;
    }

    private static MBeanServer getServer() {
        return ManagementFactory.getPlatformMBeanServer();
    }

    static String getVMOption(String name) {
        if (!ourBeanExists) {
            return null;
        }
        try {
            Object option = getServer().invoke(new ObjectName(OBJECT_NAME), "getVMOption", new Object[] {name},
                    new String[] {String.class.getName()});
            return (String) ((CompositeData) option).get("value");
        } catch (Throwable e) {
            ourBeanExists = false;
            return null;
        }
    }

    static boolean setVMOption(String name, String value) {
        if (!ourBeanExists) {
            return false;
        }
        try {
            getServer().invoke(new ObjectName(OBJECT_NAME), "setVMOption", new Object[] {name, value},
                    new String[] {String.class.getName(), String.class.getName()});
            return true;
        } catch (Throwable e) {
            ourBeanExists = false;
            return false;
        }
    }

    /** 1 when the JVM dumps its heap at an OutOfMemoryError, 0 when not, -1 when it can't say. */
    static int getStatus() {
        if (!ourBeanExists) {
            return -1;
        }
        String value = getVMOption(OPTION_HEAP_DUMP_ON_OOM);
        if ("true".equals(value)) {
            return 1;
        }
        if ("false".equals(value)) {
            return 0;
        }
        ourBeanExists = false;
        return -1;
    }

    /** Makes the JVM write a heap dump at an OutOfMemoryError; the agent registers the file. */
    static void enable() {
        if (ourBeanExists) {
            setVMOption(OPTION_HEAP_DUMP_ON_OOM, "true");
        }
    }

    static String getHeapDumpDir() {
        if (!ourBeanExists) {
            return null;
        }
        return getVMOption(OPTION_HEAP_DUMP_PATH);
    }

    /** Dumps the whole heap, unreachable objects included, to the path. */
    static void dumpHeap(String path) throws Exception {
        File file = new File(path);
        // The JVM refuses to overwrite a file.
        if (file.exists()) {
            file.delete();
        }
        getServer().invoke(new ObjectName(OBJECT_NAME), "dumpHeap", new Object[] {path, Boolean.FALSE},
                new String[] {String.class.getName(), boolean.class.getName()});
    }
}
