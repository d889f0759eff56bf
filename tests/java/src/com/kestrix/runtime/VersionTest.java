package com.kestrix.runtime;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;

import com.kestrix.Constants;
import com.kestrix.util.Strings;

class VersionTest {
    @Test
    void currentAndOldJavaVersionsAgainstJava6() {
        for (String version : new String[] {"9", "17.0.15", "25.0.3", "1.6", "1.6.0_45", "1.7.0", "1.8.0_392",
            "11-ea", "21"}) {
            assertTrue(Constants.isJava6OrNewer(version), version);
        }
        for (String version : new String[] {"1.5.0_22", "1.4.2", "1.5", ""}) {
            assertFalse(Constants.isJava6OrNewer(version), version);
        }
        assertTrue(Constants.JAVA_VERSION_6_OR_NEWER, "the JVM running this test");
    }

    @Test
    void versionsCompareNumberByNumber() {
        assertTrue(Strings.compareVersions("1.5.0_04", "1.5.0_05") < 0);
        assertTrue(Strings.compareVersions("1.5.0_10", "1.5.0_05") > 0);
        assertTrue(Strings.compareVersions("R27.10.0", "R27.2.0") > 0);
        assertTrue(Strings.compareVersions("R26.4.0", "R27.2.0") < 0);
        assertTrue(Strings.compareVersions("", "R27.2.0") < 0);
        assertEquals(0, Strings.compareVersions("1.05", "1.5"));
        assertTrue(Strings.compareVersions("100000000000000000000", "99999999999999999999") > 0, "no overflow");
    }

    @Test
    void jrockitAndIbmVersionTexts() {
        assertEquals("R27.6.0-50_o-100423-1.6.0_20-20100423-1632-linux-x86_64",
                Core.getJRockitVMVersion("R27.6.0-50_o-100423-1.6.0_20-20100423-1632-linux-x86_64"));
        assertEquals("R28.0", Core.getJRockitVMVersion("JRockit RX R28.0"));
        assertEquals("", Core.getJRockitVMVersion("17.0.15+6-Debian"));

        assertTrue(Core.isSupportedIBMVM("J2RE 1.5.0 IBM J9 2.3 Linux amd64 j9vmxa6423-20070426 (JIT enabled) "
                + "J9VM - 20070420_12448_LHdSMr"));
        assertFalse(Core.isSupportedIBMVM("J2RE 1.5.0 IBM J9 2.3 J9VM - 20051215_ab"));
        assertFalse(Core.isSupportedIBMVM("J2RE 1.4.2 IBM J9 J9VM - 20070420_ab"));
        assertFalse(Core.isSupportedIBMVM("J2RE 1.6.0 IBM J9 J9VM - 2007"));
    }
}
