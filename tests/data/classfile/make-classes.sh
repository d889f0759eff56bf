#!/bin/sh
# Rebuilds the class files the unit tests read, from the sources beside this script.
# Run it after changing a source; the class files are committed so that the tests need
# no Java compiler.
set -e
here=$(cd "$(dirname "$0")" && pwd)
jdk17=${JDK17:-/usr/lib/jvm/java-17-openjdk-amd64}
jdk25=${JDK25:-/usr/lib/jvm/temurin-25-jdk-amd64}
out="$here/classes"
rm -rf "$out" && mkdir -p "$out/v7" "$out/v17" "$out/v25" "$out/mod"
"$jdk17/bin/javac" -nowarn --release 7 -g -encoding UTF-8 -d "$out/v7" "$here"/src/v7/*.java 2>/dev/null
"$jdk17/bin/javac" --release 17 -g -encoding UTF-8 -d "$out/v17" "$here"/src/v17/*.java
"$jdk17/bin/javac" --release 17 -d "$out/mod" "$here"/src/mod/module-info.java "$here"/src/mod/kjptest/mod/Api.java
if [ -x "$jdk25/bin/javac" ]; then
  "$jdk25/bin/javac" -g -encoding UTF-8 -d "$out/v25" "$here"/src/v17/*.java
fi
