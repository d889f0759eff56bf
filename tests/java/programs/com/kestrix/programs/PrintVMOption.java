package com.kestrix.programs;

import com.sun.management.HotSpotDiagnosticMXBean;
import java.lang.management.ManagementFactory;

/** Prints "NAME=VALUE" for each -XX flag named on the command line, as the running JVM has it. */
public final class PrintVMOption {
    private PrintVMOption() {
    }

    public static void main(String[] args) {
        HotSpotDiagnosticMXBean bean = ManagementFactory.getPlatformMXBean(HotSpotDiagnosticMXBean.class);
        for (String name : args) {
            System.out.println(name + "=" + bean.getVMOption(name).getValue());
        }
    }
}
