#!/bin/bash
# Overhead of CPU sampling at the default 20 ms period on a CPU-bound program of two threads.
# Runs the program RUNS times without and RUNS times with -agentpath:...=sampling, alternating,
# and prints the medians and their ratios for the work phase (wall and process CPU time, as the
# program measures them) and for the whole process (as /usr/bin/time measures it, JVM start-up
# and the agent's start-up included).
#
# usage: bench/cpu-overhead.sh [RUNS (5)] [MILLIONS of rounds per thread (8000, about 10 s)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 17),
#              KJP_AGENT_OPTIONS (default "sampling")
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
options=${KJP_AGENT_OPTIONS:-sampling}
runs=${1:-5}
millions=${2:-8000}

work=$(mktemp -d /tmp/kjp-cpu-overhead.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$java_home/bin/javac" --release 8 -Xlint:-options -d "$work/classes" \
    "$root/bench/java/com/kestrix/bench/TwoThreadBurn.java"

# One run: appends "work_wall work_cpu process_wall process_cpu" (ms) to the given file.
run_once() {
    local out=$1
    shift
    /usr/bin/time -f "%e %U %S" -o "$work/time" "$java_home/bin/java" "$@" -cp "$work/classes" \
        com.kestrix.bench.TwoThreadBurn "$millions" > "$work/stdout" 2> "$work/stderr" || {
        cat "$work/stdout" "$work/stderr" >&2
        exit 1
    }
    local line
    line=$(grep '^work ' "$work/stdout")
    read -r elapsed user sys < <(tail -1 "$work/time")
    echo "$line" | awk -v e="$elapsed" -v u="$user" -v s="$sys" \
        '{ printf "%d %d %d %d\n", $3, $5, e * 1000, (u + s) * 1000 }' >> "$out"
}


: > "$work/without"
: > "$work/with"
for ((i = 1; i <= runs; i++)); do
    run_once "$work/without"
    run_once "$work/with" "-agentpath:$agent=$options,quiet"
    echo "run $i: without $(tail -1 "$work/without"), with $(tail -1 "$work/with")  (ms: work wall, work cpu, process wall, process cpu)" >&2
done

echo "sampling overhead, $runs runs each, $millions million rounds per thread, agent options '$options', $("$java_home/bin/java" -version 2>&1 | head -1)"
printf '%-22s %12s %12s %8s\n' "median (ms)" "without" "with" "ratio"
col=1
for label in "work wall" "work CPU" "process wall" "process CPU"; do
    without=$(median "$work/without" $col)
    with=$(median "$work/with" $col)
    printf '%-22s %12s %12s %8.3f\n' "$label" "$without" "$with" "$(awk -v a="$with" -v b="$without" 'BEGIN { print a / b }')"
    col=$((col + 1))
done
