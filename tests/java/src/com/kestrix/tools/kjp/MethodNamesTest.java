package com.kestrix.tools.kjp;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/** Names that two runs of a program agree on, and the agent's threads left out of the views. */
class MethodNamesTest {
    @AfterEach
    void defaults() {
        MethodNames.setRawNames(false);
    }

    @Test
    void lambdaAndHiddenClassesLoseTheirNumbersAndAddressesUnlessRawNamesAreAsked() {
        String[][] cases = {
            {"com.sun.tools.javac.comp.ArgumentAttr$$Lambda$300.0x00007fcc541d3598", "com.sun.tools.javac.comp.ArgumentAttr$$Lambda"},
            {"app.Main$$Lambda.0x0000000070044d68", "app.Main$$Lambda"},
            {"app.Main$$Lambda$12/0x0000000800c0b000", "app.Main$$Lambda"},
            {"java.lang.invoke.LambdaForm$MH.0x0000000800c10400", "java.lang.invoke.LambdaForm$MH"},
            // Nothing to take away: a plain class, a nested one, a name that only looks similar.
            {"app.Main", "app.Main"},
            {"app.Main$Inner", "app.Main$Inner"},
            {"app.Version.0x1g", "app.Version.0x1g"},
        };
        for (String[] c : cases) {
            assertEquals(c[1], MethodNames.normalizeClassName(c[0]), c[0]);
        }
        assertEquals("app.Main$$Lambda.run()", MethodNames.format("app.Main$$Lambda$7.0x00007f00", "run", "()V", ", "));
        MethodNames.setRawNames(true);
        assertEquals(cases[0][0], MethodNames.normalizeClassName(cases[0][0]));
    }

    @Test
    void agentThreadsAreKnownByName() {
        assertTrue(Profile.isAgentThread("KJPAgent-CPUSampler"));
        assertTrue(Profile.isAgentThread("KJPAgent-RequestListener"));
        assertFalse(Profile.isAgentThread("main"));
        assertFalse(Profile.isAgentThread("KJPAgentish"));
    }
}
