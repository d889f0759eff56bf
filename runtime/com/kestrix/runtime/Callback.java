package com.kestrix.runtime;

/**
 * The one class every probe calls. Instrumented code in any class calls these static methods;
 * the agent switches a measurement on or off by redefining this class only, replacing the
 * empty bodies below with calls to the natives. It is put on the boot class path, so that
 * boot classes can reach it too.
 */
public final class Callback {
    // Read by the probe bodies on JVMs where the class is never redefined.
    private static boolean ourKJPMethodEntryExit;
    private static boolean ourKJPAlloc;

    private Callback() {
    }

    /** Allocation probe: returns the allocator index to keep, -1 while nothing is recorded. */
    public static int kjpInit(Object object, int allocatorIndex) {
        return -1;
    }

    /** Method entry probe, with the method index split into two shorts, its low half first. */
    public static void kjpMethodEntry(short low, short high) {
    }

    /** Method exit probe, with the method index split into two shorts, its low half first. */
    public static void kjpMethodExit(short low, short high) {
    }

    /** Park probe in LockSupport: the thread is about to park on the blocker. */
    public static void kjpParkEntry(Object blocker) {
    }

    /** Park probe in LockSupport: the thread is back from parking on the blocker. */
    public static void kjpParkExit(Object blocker) {
    }

    private static native int kjpInit0(Object object, int allocatorIndex);

    private static native void kjpParkEntry0(Object blocker);

    private static native void kjpParkExit0(Object blocker);

    private static native void kjpMethodEntry0(short low, short high);

    private static native void kjpMethodExit0(short low, short high);

    /**
     * A call that the call log could not take (full, the agent asked to see it, or the thread
     * has no log yet, in its place 'slot' of the log table): recorded natively.
     */
    static native void kjpCallLogEvent0(int slot, int event);

    public static native void kjpSQLEntry1(Object statement, short methodIndex);

    public static native void kjpSQLEntry2(Object statement, short methodIndex);

    public static native void kjpSQLEntry3(Object statement, short methodIndex);

    public static native void kjpSQLExit1(Object statement, Object result, short methodIndex);

    public static native void kjpSQLExit2(Object statement, short methodIndex);

    public static native void kjpSQLExit3(Object statement, short methodIndex);

    public static native void kjpServletEntry(Object request, short methodIndex);

    public static native void kjpServletExit(Object request, short methodIndex);

    public static native boolean kjpIsJ2EEClass(Object object);
}
