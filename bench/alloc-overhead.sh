#!/bin/bash
# What allocation recording costs an allocation-heavy program: JDK 17's javac compiling the 354
# sources of java.base/java/util (from the openjdk-17-source package that
# scripts/install-deps.sh installs). Four configurations, run in turns RUNS times each: no agent,
# the agent with no mode, the agent with allocadaptive, the agent with alloc (the agent writes no
# exit snapshot: dir= points at a directory that is removed). Prints each run, then the medians
# of wall and process CPU time (as /usr/bin/time measures them) and the ratios alloc and
# allocadaptive against no mode, and no mode against no agent.
#
# usage: bench/alloc-overhead.sh [RUNS (3)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 17)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
runs=${1:-3}

work=$(mktemp -d /tmp/kjp-alloc-overhead.XXXXXX)
trap 'rm -rf "$work"' EXIT
java_util_sources "$work"
count=$(wc -l < "$work/files.txt")

# One compilation: appends "wall_ms cpu_ms" to the configuration's file.
run_once() {
    local name=$1
    shift
    rm -rf "$work/out"
    /usr/bin/time -f "%e %U %S" -o "$work/time" "$java_home/bin/javac" "$@" \
        --patch-module "java.base=$work/src/java.base" -nowarn -d "$work/out" "@$work/files.txt" \
        > "$work/stdout" 2> "$work/stderr" || { cat "$work/stdout" "$work/stderr" >&2; exit 1; }
    read -r elapsed user sys < <(tail -1 "$work/time")
    awk -v e="$elapsed" -v u="$user" -v s="$sys" 'BEGIN { printf "%d %d\n", e * 1000, (u + s) * 1000 }' >> "$work/$name"
}

configs=(none nomode adaptive alloc)
declare -A flags=(
    [none]=""
    [nomode]="-J-agentpath:$agent=quiet,dir=$work/snapshots"
    [adaptive]="-J-agentpath:$agent=allocadaptive,quiet,dir=$work/snapshots"
    [alloc]="-J-agentpath:$agent=alloc,quiet,dir=$work/snapshots"
)
for c in "${configs[@]}"; do : > "$work/$c"; done
for ((i = 1; i <= runs; i++)); do
    line="run $i:"
    for c in "${configs[@]}"; do
        # shellcheck disable=SC2086
        run_once "$c" ${flags[$c]}
        rm -rf "$work/snapshots"
        line="$line $c $(tail -1 "$work/$c")"
    done
    echo "$line  (ms: wall, process CPU)" >&2
done

echo "allocation recording overhead: javac of $count sources, $runs runs each, $("$java_home/bin/java" -version 2>&1 | head -1)"
printf '%-10s %10s %10s %10s %10s %14s %14s %14s\n' "median ms" "no agent" "no mode" "adaptive" "alloc" \
    "adaptive/nomode" "alloc/nomode" "nomode/none"
for col in 1 2; do
    label=$([ $col = 1 ] && echo wall || echo "CPU")
    n=$(median "$work/none" $col); m=$(median "$work/nomode" $col)
    a=$(median "$work/adaptive" $col); l=$(median "$work/alloc" $col)
    printf '%-10s %10s %10s %10s %10s %14.3f %14.3f %14.3f\n' "$label" "$n" "$m" "$a" "$l" \
        "$(awk -v x="$a" -v y="$m" 'BEGIN { print x / y }')" "$(awk -v x="$l" -v y="$m" 'BEGIN { print x / y }')" \
        "$(awk -v x="$m" -v y="$n" 'BEGIN { print x / y }')"
done
