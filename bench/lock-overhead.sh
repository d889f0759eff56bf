#!/bin/bash
# What monitor profiling costs a contended program: four threads taking one lock in turns,
# 1,000,000 acquisitions in all (bench/java/com/kestrix/bench/ContendedLock.java), once on a
# synchronized block and once on a ReentrantLock, whose waits are parks. For each variant, runs
# the agent with no mode and the agent with monitors in turns RUNS times (the exit snapshot of
# monitors goes to a directory that is removed), and prints the medians of the work's wall and
# process CPU time, as the program measures them after a warm-up, with the ratio monitors
# against no mode, and how many blocks and parks the last monitors run recorded.
#
# usage: bench/lock-overhead.sh [RUNS (7)] [ACQUISITIONS in all (1000000)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 17),
#              KJP_TOOLS_JAR (default build/tools/kjp-tools.jar, for the counts)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
tools_jar=$(realpath "${KJP_TOOLS_JAR:-$(dirname "$agent")/../tools/kjp-tools.jar}")
runs=${1:-7}
acquisitions=${2:-1000000}

work=$(mktemp -d /tmp/kjp-lock-overhead.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$java_home/bin/javac" --release 8 -Xlint:-options -d "$work/classes" \
    "$root/bench/java/com/kestrix/bench/ContendedLock.java"

# One run: appends "work_wall work_cpu" (ms) to the given file.
run_once() {
    local out=$1 variant=$2
    shift 2
    "$java_home/bin/java" "$@" -cp "$work/classes" com.kestrix.bench.ContendedLock "$variant" "$acquisitions" \
        > "$work/stdout" 2> "$work/stderr" || { cat "$work/stdout" "$work/stderr" >&2; exit 1; }
    grep '^work ' "$work/stdout" | awk '{ printf "%d %d\n", $3, $5 }' >> "$out"
}


echo "monitor profiling overhead, 4 threads, $acquisitions acquisitions in all, $runs runs each, $("$java_home/bin/java" -version 2>&1 | head -1)"
for variant in sync lock; do
    : > "$work/nomode"
    : > "$work/monitors"
    for ((i = 1; i <= runs; i++)); do
        run_once "$work/nomode" "$variant" "-agentpath:$agent=quiet,dir=$work/snapshots"
        rm -rf "$work/snapshots"
        run_once "$work/monitors" "$variant" "-agentpath:$agent=monitors,quiet,dir=$work/snapshots"
        if ((i < runs)); then rm -rf "$work/snapshots"; fi
        echo "$variant run $i: no mode $(tail -1 "$work/nomode"), monitors $(tail -1 "$work/monitors")  (ms: work wall, work cpu)" >&2
    done
    name=$([ "$variant" = sync ] && echo "synchronized" || echo "ReentrantLock")
    printf '%-28s %10s %10s %8s\n' "$name, median (ms)" "no mode" "monitors" "ratio"
    col=1
    for label in "work wall" "work CPU"; do
        without=$(median "$work/nomode" $col)
        with=$(median "$work/monitors" $col)
        printf '%-28s %10s %10s %8.3f\n' "  $label" "$without" "$with" "$(awk -v a="$with" -v b="$without" 'BEGIN { print a / b }')"
        col=$((col + 1))
    done
    if [ -f "$tools_jar" ]; then
        snapshot=$(ls "$work"/snapshots/*.snapshot)
        echo "  recorded in the last run: $("$java_home/bin/java" -cp "$tools_jar" com.kestrix.tools.kjp.Kjp locks "$snapshot" | sed -n 's/^Recorded  //p')"
    fi
    rm -rf "$work/snapshots"
done
