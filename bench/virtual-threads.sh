#!/bin/bash
# What the agent costs a program whose virtual threads switch carriers all the time: four
# virtual threads that only yield (an unmount and a mount each), per yield in wall time, with
# the agent loaded and idle (it follows every mount and unmount) against no agent.
#
# usage: bench/virtual-threads.sh [RUNS (5)] [MILLIONS of yields per thread (1)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 25)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/temurin-25-jdk-amd64}
runs=${1:-5}
millions=${2:-1}

work=$(mktemp -d /tmp/kjp-virtual-threads.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$java_home/bin/javac" -d "$work/classes" "$root/bench/java/com/kestrix/bench/VirtualYields.java"

yield_ns() {
    "$java_home/bin/java" "$@" -cp "$work/classes" com.kestrix.bench.VirtualYields "$((millions * 1000000))" |
        awk '/^yield / { print $2 }'
}


: > "$work/without"; : > "$work/with"
for ((i = 1; i <= runs; i++)); do
    a=$(yield_ns); b=$(yield_ns "-agentpath:$agent=quiet")
    echo "$a" >> "$work/without"; echo "$b" >> "$work/with"
    echo "run $i: $a ns/yield without the agent, $b ns/yield with it"
done
without=$(median < "$work/without")
with=$(median < "$work/with")
echo "virtual thread yield, $runs runs, median: $without ns without the agent, $with ns with it" \
    "(x$(echo "$with $without" | awk '{ printf "%.2f", $1 / $2 }'), +$(echo "$with $without" | awk '{ printf "%.0f", $1 - $2 }') ns)"
