#!/bin/sh
# Dumps the classes of one JDK's modules, instruments them with tracing, allocation and J2EE
# probes and verifies the results outside the JVM, on that same JDK.
# usage: instrument-jdk.sh <kjp_instrument_corpus> <jdk home> <work file prefix> <asm class path>
set -e
tool="$1"
jdk="$2"
prefix="$3"
asm="$4"
here=$(dirname "$0")
"$jdk/bin/java" "$here/DumpJrtClasses.java" "$prefix.instrument-input.corpus"
"$tool" "$prefix.instrument-input.corpus" "$prefix.instrumented.corpus"
"$jdk/bin/java" --add-modules ALL-SYSTEM -cp "$asm" "$here/VerifyInstrumented.java" "$prefix.instrumented.corpus"
rm -f "$prefix.instrument-input.corpus" "$prefix.instrumented.corpus"
