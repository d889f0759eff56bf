#!/bin/bash
# What the agent costs a program that throws a lot: 1,000,000 exceptions, each thrown 20 frames
# below the method that catches it (bench/java/com/kestrix/bench/DeepThrows.java). Exception
# telemetry needs no mode, so the agent with no mode is measured against no agent, and the agent
# with disableexceptions beside them. Runs the three in turns RUNS times and prints the medians
# of the work's wall time (after a warm-up, as the program measures it), the time per exception,
# and the ratios against no agent.
#
# usage: bench/exception-overhead.sh [RUNS (3)] [EXCEPTIONS (1000000)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 17)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
runs=${1:-3}
count=${2:-1000000}

work=$(mktemp -d /tmp/kjp-exception-overhead.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$java_home/bin/javac" --release 8 -Xlint:-options -d "$work/classes" "$root/bench/java/com/kestrix/bench/DeepThrows.java"

# One run: appends "work_wall_ms ns_per_exception" to the configuration's file.
run_once() {
    local name=$1
    shift
    "$java_home/bin/java" "$@" -cp "$work/classes" com.kestrix.bench.DeepThrows "$count" \
        > "$work/stdout" 2> "$work/stderr" || { cat "$work/stdout" "$work/stderr" >&2; exit 1; }
    grep '^work ' "$work/stdout" | awk '{ printf "%d %d\n", $3, $5 }' >> "$work/$name"
}


configs=(none nomode disabled)
declare -A flags=(
    [none]=""
    [nomode]="-agentpath:$agent=quiet,dir=$work/snapshots"
    [disabled]="-agentpath:$agent=disableexceptions,quiet,dir=$work/snapshots"
)
declare -A labels=([none]="no agent" [nomode]="agent, no mode" [disabled]="agent, disableexceptions")
for c in "${configs[@]}"; do : > "$work/$c"; done
for ((i = 1; i <= runs; i++)); do
    line="run $i:"
    for c in "${configs[@]}"; do
        # shellcheck disable=SC2086
        run_once "$c" ${flags[$c]}
        rm -rf "$work/snapshots"
        line="$line $c $(tail -1 "$work/$c")"
    done
    echo "$line  (ms of work, ns per exception)" >&2
done

echo "exception overhead: $count exceptions caught 20 frames up, $runs runs each, $("$java_home/bin/java" -version 2>&1 | head -1)"
printf '%-26s %12s %14s %8s\n' "median" "work (ms)" "ns/exception" "ratio"
base=$(median "$work/none" 1)
for c in "${configs[@]}"; do
    wall=$(median "$work/$c" 1)
    printf '%-26s %12s %14s %8.2f\n' "${labels[$c]}" "$wall" "$(median "$work/$c" 2)" \
        "$(awk -v a="$wall" -v b="$base" 'BEGIN { print a / b }')"
done
