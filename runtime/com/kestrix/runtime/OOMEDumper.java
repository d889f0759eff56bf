package com.kestrix.runtime;

import java.io.File;
import java.lang.management.ManagementFactory;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;

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
            if (bean() == null && !getServer().isRegistered(new ObjectName(OBJECT_NAME))) {
                ourBeanExists = false;
            }
        } catch (OutOfMemoryError e) {
            return false;  // not now; the bean may well be there once the heap has room
        } catch (Throwable e) {
            ourBeanExists = false;
        }
        return ourBeanExists;
    }

    private static MBeanServer getServer() {
        return ManagementFactory.getPlatformMBeanServer();
    }

    private static final String BEAN_INTERFACE = "com.sun.management.HotSpotDiagnosticMXBean";
    private static Object ourBean;
    private static boolean ourBeanLookedUp;

    /**
     * The bean itself, where the JVM hands it out without the platform MBean server (Java 7 and
     * later); null otherwise. Starting that server registers every platform bean and costs a JVM
     * a good part of its start-up, which the agent has no reason to add when all it wants is one
     * VM option.
     */
    private static synchronized Object bean() {
        if (!ourBeanLookedUp) {
            try {
                Method getter = ManagementFactory.class.getMethod("getPlatformMXBean", Class.class);
                ourBean = getter.invoke(null, Class.forName(BEAN_INTERFACE));
            } catch (OutOfMemoryError e) {
                // An application that is out of heap says nothing about the bean: look again later.
                throw e;
            } catch (InvocationTargetException e) {
                if (e.getCause() instanceof OutOfMemoryError) {
                    throw (OutOfMemoryError) e.getCause();
                }
                ourBean = null;
            } catch (Throwable e) {
                ourBean = null;
            }
            ourBeanLookedUp = true;
        }
        return ourBean;
    }

    /** Calls the bean's method, on the bean where there is one, else through the MBean server. */
    private static Object call(String method, Object[] arguments, Class<?>[] types) throws Exception {
        Object bean = bean();
        if (bean != null) {
            try {
                return Class.forName(BEAN_INTERFACE).getMethod(method, types).invoke(bean, arguments);
            } catch (InvocationTargetException e) {
                Throwable cause = e.getCause();
                throw cause instanceof Exception ? (Exception) cause : e;
            }
        }
        String[] signature = new String[types.length];
        for (int i = 0; i < types.length; i++) {
            signature[i] = types[i].getName();
        }
        return getServer().invoke(new ObjectName(OBJECT_NAME), method, arguments, signature);
    }

    static String getVMOption(String name) {
        if (!ourBeanExists) {
            return null;
        }
        try {
            Object option = call("getVMOption", new Object[] {name}, new Class<?>[] {String.class});
            if (option instanceof CompositeData) {
                return (String) ((CompositeData) option).get("value");
            }
            return (String) option.getClass().getMethod("getValue").invoke(option);
        } catch (OutOfMemoryError e) {
            return null;
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
            call("setVMOption", new Object[] {name, value}, new Class<?>[] {String.class, String.class});
            return true;
        } catch (OutOfMemoryError e) {
            throw e;  // the caller tries again later
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

    /**
     * Makes the JVM write a heap dump at an OutOfMemoryError; the agent registers the file. Throws
     * the OutOfMemoryError that an application out of heap gives the call, so that the caller can
     * try again.
     */
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
        call("dumpHeap", new Object[] {path, Boolean.FALSE}, new Class<?>[] {String.class, boolean.class});
    }
}
