#!/bin/bash
# Cost of CPU tracing per call, against its floor, and the throughput of two traced threads
# against one.
#
# - floor: two reads of the thread CPU clock (bench/clock-floor.c, the same system call as the
#   probes), made by the calling thread between blocks of its traced calls, in the same JVM;
# - unfiltered call: a tiny method of the application called N times, with -agentpath:...=tracing
#   and without the agent; (CPU time with - CPU time without) / N, in the calling thread's CPU time;
# - bare probes: the tiny method with two JNI natives of the floor library that read the clock
#   and keep nothing, without the agent: what timing a call from Java costs before any bookkeeping;
# - filtered call inside a filtered call: the same with a loop and a tiny method of a package
#   listed as a method filter;
# - throughput: traced calls per second of wall time with 1 and with 2 calling threads.
# Every figure is the median of RUNS runs; "over the floor" is the median of each run's
# difference to its own floor.
#
# usage: bench/tracing-cost.sh [RUNS (5)] [MILLIONS of unfiltered calls (5)] [MILLIONS of filtered calls (50)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 17)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
runs=${1:-5}
app_millions=${2:-5}
filtered_millions=${3:-50}

work=$(mktemp -d /tmp/kjp-tracing-cost.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$java_home/bin/javac" --release 8 -Xlint:-options -d "$work/classes" \
    "$root/bench/java/com/kestrix/bench/TracedCalls.java" "$root/bench/java/com/kestrix/bench/ClockFloor.java" \
    "$root/bench/java/com/kestrix/bench/lib/Lib.java"
cc -O2 -shared -fPIC -I"$java_home/include" -I"$java_home/include/linux" -o "$work/libclockfloor.so" \
    "$root/bench/clock-floor.c"
printf 'com.sun.*\njava.*\njavax.*\njdk.*\nsun.*\ncom.kestrix.bench.lib.*\n' > "$work/filters"
tracing="-agentpath:$agent=tracing,quiet,filters=$work/filters"

# Prints "cpu_ns wall_ns calls floor_ns" of one run of TracedCalls.
calls() {
    local args=("$@")
    "$java_home/bin/java" "${args[@]}" > "$work/stdout" 2> "$work/stderr" || {
        cat "$work/stdout" "$work/stderr" >&2
        exit 1
    }
    awk '/^calls / { print $6, $8, $2, $14 }' "$work/stdout"
}


main=(-Dkjp.bench.floor="$work/libclockfloor.so" -cp "$work/classes" com.kestrix.bench.TracedCalls)
: > "$work/floor"; : > "$work/app"; : > "$work/over"; : > "$work/bare"; : > "$work/filtered"; : > "$work/t1"; : > "$work/t2"
for ((i = 1; i <= runs; i++)); do
    read -r c0 _ n _ < <(calls "${main[@]}" app "$app_millions")
    read -r c1 w1 _ f1 < <(calls "$tracing" "${main[@]}" app "$app_millions")
    echo "$f1 $n" | awk '{ printf "%.1f\n", $1 / $2 }' >> "$work/floor"
    echo "$c0 $c1 $n" | awk '{ printf "%.1f\n", ($2 - $1) / $3 }' >> "$work/app"
    echo "$c0 $c1 $f1 $n" | awk '{ printf "%.1f\n", ($2 - $1 - $3) / $4 }' >> "$work/over"
    read -r b0 _ _ fb < <(calls "${main[@]}" bare "$app_millions")
    echo "$c0 $b0 $fb $n" | awk '{ printf "%.1f\n", ($2 - $1 - $3) / $4 }' >> "$work/bare"
    read -r f0 _ m _ < <(calls "${main[@]}" filtered "$filtered_millions")
    read -r f1 _ _ _ < <(calls "$tracing" "${main[@]}" filtered "$filtered_millions")
    echo "$f0 $f1 $m" | awk '{ printf "%.1f\n", ($2 - $1) / $3 }' >> "$work/filtered"
    echo "$w1 $n" | awk '{ printf "%.0f\n", $2 / ($1 / 1e9) }' >> "$work/t1"
    read -r _ w2 n2 _ < <(calls "$tracing" "${main[@]}" app "$app_millions" 2)
    echo "$w2 $n2" | awk '{ printf "%.0f\n", $2 / ($1 / 1e9) }' >> "$work/t2"
    echo "run $i: floor $(tail -1 "$work/floor") ns, unfiltered $(tail -1 "$work/app") ns/call" \
         "(floor + $(tail -1 "$work/over") ns, bare probes floor + $(tail -1 "$work/bare") ns), filtered in filtered $(tail -1 "$work/filtered") ns/call," \
         "1 thread $(tail -1 "$work/t1") calls/s, 2 threads $(tail -1 "$work/t2") calls/s" >&2
done

floor=$(median < "$work/floor")
app=$(median < "$work/app")
over=$(median < "$work/over")
bare=$(median < "$work/bare")
filtered=$(median < "$work/filtered")
t1=$(median < "$work/t1")
t2=$(median < "$work/t2")
echo "tracing cost, $runs runs, $app_millions M unfiltered and $filtered_millions M filtered calls, $("$java_home/bin/java" -version 2>&1 | head -1)"
echo "floor (two thread CPU clock reads)       $floor ns"
echo "unfiltered traced call                    $app ns  (floor + $over ns)"
echo "bare probes, no bookkeeping               floor + $bare ns"
echo "filtered call inside a filtered call      $filtered ns"
echo "throughput, 1 thread                      $t1 calls/s"
echo "throughput, 2 threads                     $t2 calls/s  (x$(awk -v a="$t2" -v b="$t1" 'BEGIN { printf "%.2f", a / b }') of 1 thread)"
