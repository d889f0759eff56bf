#!/bin/bash
# Heap capture against the JVM's own heap dump: a program holding about six million objects
# (bench/java/com/kestrix/bench/BigHeap.java) runs under the agent, and in turns the JVM writes
# an HPROF dump of all objects (HotSpotDiagnosticMXBean.dumpHeap, live=false, timed inside the
# JVM) and the agent captures a snapshot with heap (kjp connect capture --heap, timed around the
# command, connection included), then one without heap, timed the same way. Prints each round,
# then the medians of time and file size and their ratios, snapshot over HPROF: the whole
# command, and the heap part alone, which is the capture with heap less the one without (the
# client's start-up, the connection and the tables).
#
# The first round captures a heap whose objects carry no tags yet; every later one finds them all
# tagged by the one before, as a JVM does after its first capture.
#
# usage: bench/heap-capture.sh [ROUNDS (3)] [GROUPS of ~6,000 objects (1000)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), KJP_TOOLS_JAR (default
#              build/tools/kjp-tools.jar), JAVA_HOME (default JDK 17), KJP_JVM_OPTIONS (say
#              -XX:+UseSerialGC), KJP_AGENT_OPTIONS (more agent options, e.g. alloc)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
export KJP_TOOLS_JAR=$(realpath "${KJP_TOOLS_JAR:-$root/build/tools/kjp-tools.jar}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
rounds=${1:-3}
groups=${2:-1000}

work=$(mktemp -d /tmp/kjp-heap-capture.XXXXXX)
pid=
cleanup() {
    if [ -n "$pid" ]; then
        kill "$pid" 2> /dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
"$java_home/bin/javac" -d "$work/classes" "$root/bench/java/com/kestrix/bench/BigHeap.java"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("", 0)); print(s.getsockname()[1])')
mkfifo "$work/in"
"$java_home/bin/java" -Xmx4g ${KJP_JVM_OPTIONS:-} \
    "-agentpath:$agent=port=$port,dir=$work/snapshots,sessionname=BigHeap${KJP_AGENT_OPTIONS:+,$KJP_AGENT_OPTIONS}" \
    -cp "$work/classes" com.kestrix.bench.BigHeap "$groups" < "$work/in" > "$work/out" 2> "$work/err" &
pid=$!
exec 3> "$work/in"
for ((i = 0; i < 600; i++)); do
    grep -q '^ready' "$work/out" && break
    kill -0 "$pid" 2> /dev/null || { cat "$work/out" "$work/err" >&2; exit 1; }
    sleep 0.5
done

now_ms() { date +%s%3N; }
: > "$work/results"
for ((r = 1; r <= rounds; r++)); do
    echo "hprof $work/dump-$r.hprof" >&3
    while ! grep -q "^hprof " "$work/out" || [ "$(grep -c '^hprof ' "$work/out")" -lt "$r" ]; do
        sleep 0.1
    done
    hprof_ms=$(grep '^hprof ' "$work/out" | tail -1 | cut -d' ' -f2)
    hprof_bytes=$(stat -c %s "$work/dump-$r.hprof")
    rm -f "$work/dump-$r.hprof"

    start=$(now_ms)
    snapshot=$("$root/tools/kjp" connect "localhost:$port" capture --heap < /dev/null | tail -1)
    capture_ms=$(( $(now_ms) - start ))
    capture_bytes=$(stat -c %s "$snapshot")
    rm -f "$snapshot"

    start=$(now_ms)
    snapshot=$("$root/tools/kjp" connect "localhost:$port" capture < /dev/null | tail -1)
    plain_ms=$(( $(now_ms) - start ))
    rm -f "$snapshot"
    heap_ms=$((capture_ms - plain_ms))
    echo "$hprof_ms $hprof_bytes $capture_ms $capture_bytes $heap_ms" >> "$work/results"
    echo "round $r: HPROF $hprof_ms ms, $hprof_bytes bytes; snapshot with heap $capture_ms ms, $capture_bytes bytes;" \
        "without heap $plain_ms ms" >&2
done
echo "exit" >&3

echo "heap capture against HPROF, $rounds rounds, $groups groups (about $((groups * 6)) thousand objects), $("$java_home/bin/java" -version 2>&1 | head -1) ${KJP_JVM_OPTIONS:-}"
printf '%-14s %14s %14s %8s\n' "median" "HPROF" "snapshot" "ratio"
for pair in "time (ms):1:3" "heap part (ms):1:5" "size (bytes):2:4"; do
    IFS=: read -r label a b <<< "$pair"
    x=$(median "$work/results" "$a")
    y=$(median "$work/results" "$b")
    printf '%-14s %14s %14s %8.2f\n' "$label" "$x" "$y" "$(awk -v a="$y" -v b="$x" 'BEGIN { print a / b }')"
done
