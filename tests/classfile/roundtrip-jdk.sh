#!/bin/sh
# Dumps the classes of one JDK's modules and round-trips them through the class-file model.
# usage: roundtrip-jdk.sh <kjp_classfile_roundtrip> <jdk home> <corpus file>
set -e
tool="$1"
jdk="$2"
corpus="$3"
here=$(dirname "$0")
"$jdk/bin/java" "$here/DumpJrtClasses.java" "$corpus"
"$tool" --codec --as50 "$corpus"
