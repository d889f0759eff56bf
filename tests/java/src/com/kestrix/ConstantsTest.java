package com.kestrix;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.text.SimpleDateFormat;
import java.util.Date;
import java.util.Locale;
import java.util.TimeZone;
import org.junit.jupiter.api.Test;

/**
 * The build stamp, counted out by hand, reads as the date pattern would read it, in summer and
 * winter time; the hours that a change of clocks skips or repeats are left out, as no build
 * stamps them.
 */
class ConstantsTest {
    @Test
    void buildStampReadsAsTheDatePatternInEveryZone() throws Exception {
        TimeZone saved = TimeZone.getDefault();
        try {
            for (String zone : new String[] {"UTC", "Europe/Berlin", "America/New_York", "Asia/Kolkata",
                    "Australia/Lord_Howe"}) {
                TimeZone.setDefault(TimeZone.getTimeZone(zone));
                for (String stamp : new String[] {Constants.BUILD_TIME_STAMP_TEXT, "200001010000", "202402291259",
                        "202607011200", "199912312359", "202407152400", "190001010101"}) {
                    Date expected = new SimpleDateFormat("yyyyMMddkkmm", Locale.US).parse(stamp);
                    assertEquals(expected, Constants.parseBuildTimeStamp(stamp), stamp + " in " + zone);
                }
            }
        } finally {
            TimeZone.setDefault(saved);
        }
        assertEquals(new Date(0), Constants.parseBuildTimeStamp("2009-02-20"));
    }
}
