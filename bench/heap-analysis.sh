#!/bin/bash
# Heap analysis: dominators and retained sizes.
#  1. Synthetic heaps of ten million objects and thirty million references (build/bench/
#     kjp_heap_bench): a random tree with back references, and a chain; CPU time of the back
#     references and of dominators plus retained sizes, and each one's peak resident memory.
#  2. A real snapshot: a program holding about six million objects (bench/java/com/kestrix/bench/
#     BigHeap.java) runs under the agent and is captured with its heap; then, ROUNDS times each,
#     kjp heap (reads the whole file and counts the classes: the cost of reading alone),
#     kjp heap --retained (reads the references too and computes), and kjp heap --retained from
#     the index that --save wrote. Wall time and peak resident memory of each kjp process;
#     medians, and the ratios against reading alone.
#
# usage: bench/heap-analysis.sh [ROUNDS (3)] [GROUPS of ~6,000 objects (1000)]
# environment: KJP_BUILD (default build), JAVA_HOME (default JDK 17), KJP_JAVA_OPTS for kjp
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
build=$(realpath "${KJP_BUILD:-$root/build}")
agent="$build/lib/libkjpagent.so"
export KJP_TOOLS_JAR="$build/tools/kjp-tools.jar"
export KJP_AGENT_LIBRARY="$agent"
export KJP_JAVA_OPTS="${KJP_JAVA_OPTS:--Xmx6g}"
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
export JAVA_HOME="$java_home"
rounds=${1:-3}
groups=${2:-1000}

echo "== synthetic heaps (load average $(cut -d' ' -f1 /proc/loadavg))"
"$build/bench/kjp_heap_bench"

work=$(mktemp -d /tmp/kjp-heap-analysis.XXXXXX)
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
"$java_home/bin/java" -Xmx4g "-agentpath:$agent=port=$port,dir=$work/snapshots,sessionname=BigHeap,quiet" \
    -cp "$work/classes" com.kestrix.bench.BigHeap "$groups" < "$work/in" > "$work/out" 2> "$work/err" &
pid=$!
exec 3> "$work/in"
for ((i = 0; i < 600; i++)); do
    grep -q '^ready' "$work/out" && break
    kill -0 "$pid" 2> /dev/null || { cat "$work/out" "$work/err" >&2; exit 1; }
    sleep 0.5
done
snapshot=$("$root/tools/kjp" connect "localhost:$port" capture --heap < /dev/null | tail -1)
echo "exit" >&3
wait "$pid" || true
pid=

# Runs kjp with the arguments; appends "milliseconds peak-kilobytes" to the named results file.
timed() {
    local results=$1
    shift
    /usr/bin/time -f "%e %M" -o "$work/time" "$root/tools/kjp" "$@" > "$work/kjp.out"
    awk '{ printf "%d %d\n", $1 * 1000, $2 }' "$work/time" >> "$work/$results"
}
for ((r = 1; r <= rounds; r++)); do
    rm -f "$snapshot.index"
    timed read heap "$snapshot"
    timed retained heap --retained "$snapshot"
    timed save heap --retained --save "$snapshot"
    timed index heap --retained "$snapshot"
    echo "round $r (load average $(cut -d' ' -f1 /proc/loadavg)): read $(tail -1 "$work/read" | cut -d' ' -f1) ms," \
        "--retained $(tail -1 "$work/retained" | cut -d' ' -f1) ms, --save $(tail -1 "$work/save" | cut -d' ' -f1) ms," \
        "from the index $(tail -1 "$work/index" | cut -d' ' -f1) ms" >&2
done
objects=$(grep -m1 '^Heap' "$work/kjp.out" | awk '{ print $2 }')
echo "== real snapshot: $(basename "$snapshot"), $(stat -c %s "$snapshot") bytes, $objects objects," \
    "index $(stat -c %s "$snapshot.index") bytes; medians of $rounds rounds"
read_ms=$(median "$work/read" 1)
for what in read retained save index; do
    ms=$(median "$work/$what" 1)
    kb=$(median "$work/$what" 2)
    printf "%-9s %6d ms  %5.2fx reading alone  peak RSS %d MB\n" "$what" "$ms" \
        "$(echo "$ms / $read_ms" | bc -l)" $((kb / 1024))
done
