#!/bin/bash
# What the two CPU samplers make of shares known in advance, and what they cost.
# tests/java/programs/com/kestrix/programs/KnownShares.java, which the sampler tests run too, runs
# four variants (a counted loop without calls, a loop of tiny calls kept out of line, CRC32 and
# square roots, System.arraycopy), each in a thread of its own that alternates the variant's
# method with a reference loop and times both with its own thread CPU clock. This script runs it
# without the agent and under each configuration below, alternating, RUNS times, and prints for
# every configuration and variant the median share of the variant's method in its thread (total
# time) against the truth, in percentage points, and the median work-phase process CPU time
# against the runs without agent.
#
# usage: bench/async-sampling.sh [RUNS (3)] [MS of CPU per variant (3000)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), KJP_TOOLS_JAR (default
#              build/tools/kjp-tools.jar), JAVA_HOME (default JDK 17),
#              KJP_CONFIGS (default "sampling asyncsampling sampling,samplingperiod=1
#              asyncsampling,samplingperiod=1")
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
export KJP_TOOLS_JAR=$(realpath "${KJP_TOOLS_JAR:-$root/build/tools/kjp-tools.jar}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
export JAVA_HOME=$java_home
configs=${KJP_CONFIGS:-"sampling asyncsampling sampling,samplingperiod=1 asyncsampling,samplingperiod=1"}
runs=${1:-3}
millis=${2:-3000}

work=$(mktemp -d /tmp/kjp-async-sampling.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$java_home/bin/javac" --release 11 -d "$work/classes" "$root/tests/java/programs/com/kestrix/programs/KnownShares.java"

# tiny() must stay a call for the "calls" variant to mean anything.
jvm_options=(-XX:CompileCommand=quiet "-XX:CompileCommand=dontinline,com/kestrix/programs/KnownShares.tiny")

# One run; "none" runs without the agent. Appends "work_cpu_ms" to $work/<tag>.cpu and, with
# the agent, "variant truth_percent measured_percent" lines to $work/<tag>.shares.
run_once() {
    local tag=$1 options=$2
    local dir="$work/snapshots"
    rm -rf "$dir" && mkdir -p "$dir"
    local agent_args=()
    if [ "$options" != none ]; then
        agent_args=("-agentpath:$agent=$options,quiet,dir=$dir")
    fi
    "$java_home/bin/java" "${jvm_options[@]}" "${agent_args[@]}" -cp "$work/classes" \
        com.kestrix.programs.KnownShares "$millis" > "$work/stdout" 2> "$work/stderr" || {
        cat "$work/stdout" "$work/stderr" >&2
        exit 1
    }
    awk '/^work / { print $3 }' "$work/stdout" >> "$work/$tag.cpu"
    [ "$options" = none ] && return
    "$root/tools/kjp" collapsed "$dir"/*.snapshot > "$work/folded"
    # Each folded line ends in its value; names may hold blanks ("<unknown Java>").
    awk -v truthfile="$work/stdout" '
        BEGIN { while ((getline line < truthfile) > 0) { split(line, f, " ");
                if (f[1] == "truth") { truth[f[2]] = 100 * f[3] / (f[3] + f[4]) } } }
        { n = split($0, w, " "); v = w[n]; path = substr($0, 1, length($0) - length(v) - 1);
          split(path, frames, ";"); t = frames[1]; if (!(t in truth)) next;
          total[t] += v; if (index(path, "KnownShares.measured(")) mine[t] += v }
        END { for (t in truth) if (total[t] > 0) printf "%s %.2f %.2f\n", t, truth[t], 100 * mine[t] / total[t] }
    ' "$work/folded" >> "$work/$tag.shares"
}


: > "$work/none.cpu"
i=0
for options in $configs; do
    : > "$work/c$i.cpu"
    : > "$work/c$i.shares"
    i=$((i + 1))
done
for ((r = 1; r <= runs; r++)); do
    run_once none none
    i=0
    for options in $configs; do
        run_once "c$i" "$options"
        i=$((i + 1))
    done
    echo "round $r of $runs done" >&2
done

base=$(median < "$work/none.cpu")
echo "known shares, $runs runs of $millis ms CPU per variant, $("$java_home/bin/java" -version 2>&1 | head -1)"
echo "work-phase process CPU without agent: $base ms (median)"
printf '%-34s %-10s %8s %9s %8s %9s\n' "configuration" "variant" "truth %" "sampled %" "off pp" "max |pp|"
i=0
for options in $configs; do
    for variant in counted calls intrinsic arraycopy; do
        grep "^$variant " "$work/c$i.shares" > "$work/v" || true
        [ -s "$work/v" ] || continue
        truth=$(cut -d' ' -f2 "$work/v" | median)
        sampled=$(cut -d' ' -f3 "$work/v" | median)
        worst=$(awk '{ d = $3 - $2; if (d < 0) d = -d; if (d > m) m = d } END { printf "%.2f", m }' "$work/v")
        printf '%-34s %-10s %8.2f %9.2f %+8.2f %9s\n' "$options" "$variant" "$truth" "$sampled" \
            "$(awk -v a="$sampled" -v b="$truth" 'BEGIN { print a - b }')" "$worst"
    done
    cpu=$(median < "$work/c$i.cpu")
    printf '%-34s overhead: work CPU %s ms against %s ms, x%.3f\n' "$options" "$cpu" "$base" \
        "$(awk -v a="$cpu" -v b="$base" 'BEGIN { print a / b }')"
    i=$((i + 1))
done
