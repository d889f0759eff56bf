#!/bin/bash
# Does the agent hold up over time? A JVM under the agent with sampling and allocation
# recording starts and ends 200 threads a second (its heap committed and touched from the start,
# so that resident memory shows the rest of the process); a client connects anew every second for a
# table update; the agent captures a snapshot every 10 s; telemetry runs. Once a minute it
# prints the JVM's resident memory, its open file descriptors, the size of the agent's database
# and of the snapshots. It fails when an update or a capture failed, or when, after the first
# SETTLE minutes, resident memory grew by more than TOLERANCE percent beyond what the database's
# own growth explains, or the descriptors grew by more than a few.
#
# usage: bench/soak.sh [MINUTES (30)] [SETTLE_MINUTES (5)] [TOLERANCE_PERCENT (10)]
# environment: KJP_BUILD (default build), JAVA_HOME (default JDK 17)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath "${KJP_BUILD:-$root/build}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
minutes=${1:-30}
settle=${2:-5}
tolerance=${3:-10}
agent="$build/lib/libkjpagent.so"
tools="$build/tools/kjp-tools.jar"

work=$(mktemp -d /tmp/kjp-soak.XXXXXX)
jvm=""
client=""
cleanup() {
    [ -n "$client" ] && kill "$client" 2> /dev/null || true
    [ -n "$jvm" ] && kill "$jvm" 2> /dev/null || true
    wait 2> /dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

"$java_home/bin/javac" --release 8 -Xlint:-options -d "$work/classes" "$root/bench/java/com/kestrix/bench/Soak.java"
"$java_home/bin/javac" --release 17 -cp "$tools" -d "$work/classes" "$root/bench/java/com/kestrix/bench/UpdateClient.java"

kjp() { "$java_home/bin/java" -cp "$tools" com.kestrix.tools.kjp.Kjp connect "localhost:$port" "$@"; }

seconds=$((minutes * 60))
mkdir -p "$work/snapshots"
"$java_home/bin/java" "-agentpath:$agent=sampling,alloceach=100,dir=$work/snapshots" -Xms256m -Xmx256m -XX:+AlwaysPreTouch \
    -cp "$work/classes" com.kestrix.bench.Soak $((seconds + 60)) > "$work/jvm.out" 2> "$work/jvm.err" &
jvm=$!
for _ in $(seq 600); do
    grep -q 'listening on port' "$work/jvm.err" 2> /dev/null && break
    sleep 0.1
done
port=$(sed -n 's/.*listening on port \([0-9]*\)\.\.\..*/\1/p' "$work/jvm.err" | head -1)
[ -n "$port" ] || { echo "the agent did not start" >&2; cat "$work/jvm.err" >&2; exit 1; }
kjp periodic 10 1000000 > /dev/null
"$java_home/bin/java" -cp "$work/classes:$tools" com.kestrix.bench.UpdateClient "$port" "$seconds" > "$work/client.out" 2>&1 &
client=$!

# The database's total in KB, from the agent's own statistics; the last figure when the agent
# is busy with a capture and the request fails (which is counted, not fatal: the listener serves
# one client at a time, and a heap capture can hold it for seconds).
stats_failures=0
last_db=0
database_kb() {
    local kb
    if kb=$(kjp stats 2> /dev/null | awk '/^Total size:/ { printf "%d\n", $3 * 1024 }') && [ -n "$kb" ]; then
        last_db=$kb
    else
        stats_failures=$((stats_failures + 1))
    fi
}

echo "soak: $minutes min, JVM $jvm on port $port, $("$java_home/bin/java" -version 2>&1 | head -1)"
printf '%6s %10s %6s %12s %10s %14s\n' "minute" "RSS KB" "fds" "database KB" "snapshots" "last size"
settle_rss=0
settle_fds=0
settle_db=0
for ((minute = 1; minute <= minutes; minute++)); do
    sleep 60
    kill -0 "$jvm" 2> /dev/null || { echo "the JVM has ended" >&2; cat "$work/jvm.err" >&2; exit 1; }
    rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$jvm/status")
    fds=$(ls "/proc/$jvm/fd" | wc -l)
    database_kb
    db=$last_db
    count=$(ls "$work/snapshots" | wc -l)
    last=$(ls -t "$work/snapshots" | head -1 || true)
    size=$([ -n "$last" ] && stat -c %s "$work/snapshots/$last" 2> /dev/null || echo 0)
    printf '%6d %10d %6d %12d %10d %14d\n' "$minute" "$rss" "$fds" "$db" "$count" "$size"
    # Old snapshots go, so that a long run doesn't fill the disk; their number is kept.
    ls -t "$work/snapshots" | tail -n +4 | while read -r old; do
        : > "$work/snapshots/$old" || true
    done
    if [ "$minute" -eq "$settle" ]; then
        settle_rss=$rss
        settle_fds=$fds
        settle_db=$db
    fi
done

wait "$client" && client_status=0 || client_status=$?
client=""
tail -1 "$work/client.out"
failed=0
if [ "$client_status" -ne 0 ]; then
    echo "FAIL: table updates failed" >&2
    grep 'failed' "$work/client.out" | head -5 >&2
    failed=1
fi
if grep -q 'Cannot capture' "$work/jvm.err"; then
    echo "FAIL: a capture failed:" >&2
    grep 'Cannot capture' "$work/jvm.err" | head -3 >&2
    failed=1
fi
expected_captures=$((seconds / 10 - 2))
if [ "$count" -lt "$expected_captures" ]; then
    echo "FAIL: $count snapshots in $minutes min, expected at least $expected_captures" >&2
    failed=1
fi
allowed_rss=$((settle_rss + settle_rss * tolerance / 100 + (db > settle_db ? db - settle_db : 0)))
if [ "$rss" -gt "$allowed_rss" ]; then
    echo "FAIL: resident memory grew from $settle_rss KB (minute $settle) to $rss KB, more than $allowed_rss KB" >&2
    failed=1
fi
if [ "$fds" -gt $((settle_fds + 8)) ]; then
    echo "FAIL: open descriptors grew from $settle_fds to $fds" >&2
    failed=1
fi
[ "$stats_failures" -gt 0 ] && echo "($stats_failures statistics requests met a busy agent)"
[ "$failed" -eq 0 ] && echo "soak passed: RSS $settle_rss -> $rss KB, descriptors $settle_fds -> $fds, database $settle_db -> $db KB"
exit "$failed"
