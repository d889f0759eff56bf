package com.kestrix.runtime;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import org.junit.jupiter.api.Test;

class UnquoterTest {
    @Test
    void decodesHexPairsAsUtf8() {
        assertEquals("AB", Unquoter.unquote("KJPQUOTED4142"));
        assertEquals("", Unquoter.unquote("KJPQUOTED"));
        assertEquals("a,b \u00e9", Unquoter.unquote("KJPQUOTED612c6220C3A9"));
    }

    @Test
    void leavesOtherValuesAsTheyAre() {
        assertNull(Unquoter.unquote(null));
        assertEquals("plain", Unquoter.unquote("plain"));
        assertEquals("KJPQUOTED414", Unquoter.unquote("KJPQUOTED414"), "odd length");
        assertEquals("KJPQUOTED4G", Unquoter.unquote("KJPQUOTED4G"), "not a hex digit");
        assertEquals("KJPQUOTED\uff14\uff11", Unquoter.unquote("KJPQUOTED\uff14\uff11"), "full-width digits");
        assertEquals("xKJPQUOTED41", Unquoter.unquote("xKJPQUOTED41"));
    }
}
