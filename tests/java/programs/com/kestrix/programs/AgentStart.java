package com.kestrix.programs;

/**
 * The agent opens its socket on a thread of its own once the JVM has started; programs that talk
 * about the agent's start (its messages on the error stream, its port) wait for that first.
 */
final class AgentStart {
    private AgentStart() {
    }

    /** Waits up to a minute until the agent listens; at once when there is no agent. */
    static void awaitListening() throws InterruptedException {
        java.lang.reflect.Field listening;
        try {
            Class<?> core = Class.forName("com.kestrix.runtime.Core", false, ClassLoader.getSystemClassLoader());
            listening = core.getDeclaredField("ourListening");
            listening.setAccessible(true);
        } catch (ReflectiveOperationException | RuntimeException e) {
            return;
        }
        try {
            for (int i = 0; i < 6000 && !listening.getBoolean(null); i++) {
                Thread.sleep(10);
            }
        } catch (IllegalAccessException e) {
            // setAccessible succeeded, so this doesn't happen
        }
    }
}
