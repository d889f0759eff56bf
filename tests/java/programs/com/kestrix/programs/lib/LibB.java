package com.kestrix.programs.lib;

import com.kestrix.programs.CpuScenarios;

/** The innermost level of the filter tests' library; it calls back into the application. */
public final class LibB {
    private LibB() {
    }

    static void deep() {
        CpuScenarios.callback();
    }
}
