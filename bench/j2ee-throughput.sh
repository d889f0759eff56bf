#!/bin/bash
# What J2EE recording costs a servlet container: requests per second of Jetty 9 serving /q, a
# servlet that runs one prepared H2 query per request (tests/java/programs-j2ee), driven by wrk
# (2 threads, 8 connections) for SECONDS after a warm-up of WARMUP seconds, without the agent,
# with the agent sampling and with the agent tracing, J2EE on, and the same two with noj2ee, which
# tells the J2EE probes' part from the CPU profiling's. Runs the five in turns RUNS times and
# prints the medians and the ratios against no agent.
#
# usage: bench/j2ee-throughput.sh [RUNS (3)] [SECONDS (10)] [WARMUP (5)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 17)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
runs=${1:-3}
seconds=${2:-10}
warmup=${3:-5}
command -v wrk > /dev/null || { echo "wrk is missing: run scripts/install-deps.sh" >&2; exit 1; }

work=$(mktemp -d /tmp/kjp-j2ee-throughput.XXXXXX)
server=
cleanup() {
    if [ -n "$server" ]; then kill "$server" 2> /dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT
# The jars the tests compile against; the versioned names are the same jars again.
classpath=$(ls /usr/share/java/servlet-api.jar /usr/share/java/jetty9-*.jar /usr/share/java/h2.jar \
    | grep -v -- '-[0-9][^/]*\.jar$' | paste -sd:)
"$java_home/bin/javac" --release 11 -encoding UTF-8 -cp "$classpath" -d "$work/classes" \
    $(find "$root/tests/java/programs-j2ee" -name '*.java' ! -name 'TomcatServer.java')

# One run: starts the server, warms it up, appends the measured requests per second to the
# configuration's file and stops the server through its standard input.
run_once() {
    local name=$1
    shift
    rm -f "$work/in" && mkfifo "$work/in"
    "$java_home/bin/java" "$@" -cp "$work/classes:$classpath" com.kestrix.programs.j2ee.JettyServer \
        < "$work/in" > "$work/stdout" 2> "$work/stderr" &
    server=$!
    exec 3> "$work/in"
    local port=
    for _ in $(seq 600); do
        port=$(awk '/^port / { print $2 }' "$work/stdout")
        [ -n "$port" ] && break
        kill -0 "$server" 2> /dev/null || { cat "$work/stderr" >&2; exit 1; }
        sleep 0.1
    done
    [ -n "$port" ] || { echo "the server did not start" >&2; cat "$work/stderr" >&2; exit 1; }
    wrk -t2 -c8 -d"${warmup}s" "http://127.0.0.1:$port/q" > /dev/null
    wrk -t2 -c8 -d"${seconds}s" "http://127.0.0.1:$port/q" > "$work/wrk"
    grep -q 'Non-2xx' "$work/wrk" && { cat "$work/wrk" >&2; exit 1; }
    awk '/^Requests\/sec:/ { print $2 }' "$work/wrk" >> "$work/$name"
    exec 3>&-
    wait "$server"
    server=
}

median() {
    sort -n "$1" | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

configs=(none sampling sampling-noj2ee tracing tracing-noj2ee)
declare -A flags=(
    [none]=""
    [sampling]="-agentpath:$agent=sampling,quiet,dir=$work/snapshots"
    [sampling-noj2ee]="-agentpath:$agent=sampling,noj2ee,quiet,dir=$work/snapshots"
    [tracing]="-agentpath:$agent=tracing,quiet,dir=$work/snapshots"
    [tracing-noj2ee]="-agentpath:$agent=tracing,noj2ee,quiet,dir=$work/snapshots"
)
declare -A labels=([none]="no agent" [sampling]="agent, sampling + J2EE" [sampling-noj2ee]="agent, sampling, noj2ee"
    [tracing]="agent, tracing + J2EE" [tracing-noj2ee]="agent, tracing, noj2ee")
for c in "${configs[@]}"; do : > "$work/$c"; done
for ((i = 1; i <= runs; i++)); do
    line="run $i:"
    for c in "${configs[@]}"; do
        # shellcheck disable=SC2086
        run_once "$c" ${flags[$c]}
        line="$line $c $(tail -1 "$work/$c")"
    done
    echo "$line  (requests/s)" >&2
done

echo "j2ee throughput: Jetty 9 + H2, one query a request, wrk -t2 -c8 ${seconds}s after ${warmup}s, $runs runs each," \
    "$("$java_home/bin/java" -version 2>&1 | head -1)"
printf '%-26s %12s %8s\n' "median" "requests/s" "ratio"
base=$(median "$work/none")
for c in "${configs[@]}"; do
    rate=$(median "$work/$c")
    printf '%-26s %12.0f %8.2f\n' "${labels[$c]}" "$rate" "$(awk -v a="$rate" -v b="$base" 'BEGIN { print a / b }')"
done
