package com.kestrix.runtime;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;

import com.kestrix.api.ProfilingModes;

/** What Core refuses before it reaches a native; no agent is loaded here. */
class CoreChecksTest {
    @Test
    void capabilitiesFromTheStartFlags() {
        assertEquals(2176, Core.computeCapabilities(false, false, false));
        assertEquals(2176 + 64 + 256 + 4096, Core.computeCapabilities(true, true, true));
        assertEquals(2176 + 256, Core.computeCapabilities(false, true, false));
    }

    @Test
    void disabledOrInvalidStartsFailBeforeTheNative() {
        Core.ourQuiet = true;
        Core.ourCapabilities = Core.computeCapabilities(false, false, false);
        assertEquals("Tracing was explicitly disabled for this application on its startup",
                assertThrows(AgentException.class,
                        () -> Core.startCPUProfilingImpl(ProfilingModes.CPU_TRACING, null, null)).getMessage());
        assertEquals("J2EE profiling was explicitly disabled for this application on its startup",
                assertThrows(AgentException.class,
                        () -> Core.startCPUProfilingImpl(ProfilingModes.CPU_SAMPLING | ProfilingModes.CPU_J2EE, null,
                                null)).getMessage());
        assertEquals("Object allocation recording was explicitly disabled for this application on its startup",
                assertThrows(AgentException.class, () -> Core.startAllocationRecordingImpl(true, 10, false, 0))
                        .getMessage());

        Core.ourCapabilities = Core.computeCapabilities(true, true, true);
        assertEquals("Incorrect value passed for 'recordEach':0", assertThrows(AgentException.class,
                () -> Core.startAllocationRecordingImpl(true, 0, false, 0)).getMessage());
        assertEquals("Incorrect value passed for 'sizeLimit':-1", assertThrows(AgentException.class,
                () -> Core.startAllocationRecordingImpl(false, 0, true, -1)).getMessage());
    }

    @Test
    void statusCodesOfTheNatives() {
        assertNull(Core.lookupMessage(Core.ERRORCODE_OK));
        assertEquals("Already started", Core.lookupMessage(Core.ERRORCODE_ALREADY_STARTED));
        assertEquals("unknown error code 7", Core.lookupMessage(7));
    }

    @Test
    void propertyNamesSurviveAnApplicationsOddEntries() {
        java.util.Properties properties = System.getProperties();
        Object oddKey = Integer.valueOf(42);
        properties.put(oddKey, "value");
        properties.put("kjp.test.odd.value", Integer.valueOf(7));
        properties.put("", "empty name");
        try {
            assertThrows(ClassCastException.class, () -> properties.propertyNames(),
                    "the call the session's properties must not rely on");
            java.util.List<String> names = Core.systemPropertyNames();
            assertTrue(names.contains("java.version"));
            assertFalse(names.contains(""));
            assertFalse(names.contains("kjp.test.odd.value"), "a value that isn't text is no property");
        } finally {
            properties.remove(oddKey);
            properties.remove("kjp.test.odd.value");
            properties.remove("");
        }
    }

    @Test
    void heapDumperStatusComesFromTheJvmsBean() {
        // The JVM running the tests has the diagnostic bean and was started without a dump at OOME.
        Core.ourIsOOMEDumperEnabledInCommandLine = true;
        assertEquals(0, Core.getOOMEDumperStatus());
        OOMEDumper.enable();
        assertEquals(1, Core.getOOMEDumperStatus());
        OOMEDumper.setVMOption(OOMEDumper.OPTION_HEAP_DUMP_ON_OOM, "false");
    }
}
