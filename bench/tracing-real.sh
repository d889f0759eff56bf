#!/bin/bash
# What tracing costs programs nobody here wrote, with exact counts from the probes and times from
# the signal-driven sampler: JDK 17's javac compiling the sources of java.base/java/util, and the
# H2 database (Debian's libh2-java) running a fixed SQL script in memory (a table of 20,000 rows
# filled by single INSERTs, then updates, grouped queries and a join). Configurations, run in
# turns RUNS times each:
#   none         no agent;
#   nomode       the agent with nothing measured (what holding the exception events costs);
#   traced       tracing,asyncsampling,tracingtimes=sampled (target: at most 3 times none);
#   traced-noexc the same with disableexceptions, for the share of the exception events.
# Prints each run and the medians of process CPU time (user + system, as /usr/bin/time measures
# it) and their ratios against no agent. No snapshot is kept.
#
# usage: bench/tracing-real.sh [RUNS (3)] [WORKLOADS ("javac h2")]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), JAVA_HOME (default JDK 17)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
java_home=${JAVA_HOME:-/usr/lib/jvm/java-17-openjdk-amd64}
runs=${1:-3}
workloads=${2:-"javac h2"}
h2=/usr/share/java/h2.jar

work=$(mktemp -d /tmp/kjp-tracing-real.XXXXXX)
trap 'rm -rf "$work"' EXIT

case " $workloads " in *" javac "*) java_util_sources "$work" ;; esac
case " $workloads " in
    *" h2 "*)
        [ -f "$h2" ] || { echo "no H2 at $h2: run scripts/install-deps.sh" >&2; exit 1; }
        awk 'BEGIN {
            print "CREATE TABLE item (id INT PRIMARY KEY, grp INT, name VARCHAR(40), price DECIMAL(10,2));"
            print "CREATE TABLE grp (id INT PRIMARY KEY, label VARCHAR(40));"
            for (g = 0; g < 100; g++) printf "INSERT INTO grp VALUES (%d, '\''group %d'\'');\n", g, g
            for (i = 0; i < 20000; i++)
                printf "INSERT INTO item VALUES (%d, %d, '\''item %d'\'', %d.%02d);\n", i, (i * 7) % 100, i, i % 500, i % 100
            for (k = 0; k < 200; k++) {
                printf "UPDATE item SET price = price * 1.01 WHERE grp = %d;\n", k % 100
                printf "SELECT grp, COUNT(*), SUM(price), MAX(name) FROM item WHERE id > %d GROUP BY grp ORDER BY 3 DESC;\n", k * 50
                printf "SELECT g.label, COUNT(*) FROM item i JOIN grp g ON i.grp = g.id WHERE i.price > %d GROUP BY g.label;\n", k
            }
        }' > "$work/script.sql"
        ;;
esac

# One run of a workload: appends "cpu_ms" to $work/<workload>.<config>.
run_once() {
    local workload=$1 config=$2 agent_option=""
    case $config in
        none) ;;
        nomode) agent_option="-agentpath:$agent=quiet,dir=$work/snapshots" ;;
        traced) agent_option="-agentpath:$agent=tracing,asyncsampling,tracingtimes=sampled,quiet,dir=$work/snapshots" ;;
        traced-noexc) agent_option="-agentpath:$agent=tracing,asyncsampling,tracingtimes=sampled,disableexceptions,quiet,dir=$work/snapshots" ;;
    esac
    local command
    if [ "$workload" = javac ]; then
        rm -rf "$work/out"
        command=("$java_home/bin/javac" ${agent_option:+"-J$agent_option"} --patch-module
            "java.base=$work/src/java.base" -nowarn -d "$work/out" "@$work/files.txt")
    else
        command=("$java_home/bin/java" ${agent_option:+"$agent_option"} -cp "$h2" org.h2.tools.RunScript
            -url "jdbc:h2:mem:bench" -script "$work/script.sql")
    fi
    /usr/bin/time -f "%U %S" -o "$work/time" "${command[@]}" > "$work/stdout" 2> "$work/stderr" || {
        cat "$work/stdout" "$work/stderr" >&2
        exit 1
    }
    rm -rf "$work/snapshots"
    awk '{ printf "%d\n", ($1 + $2) * 1000 }' "$work/time" >> "$work/$workload.$config"
}

configs=(none nomode traced traced-noexc)
echo "tracing real programs, $runs runs each, $("$java_home/bin/java" -version 2>&1 | head -1), load average $(cut -d' ' -f1 /proc/loadavg)"
for workload in $workloads; do
    for c in "${configs[@]}"; do : > "$work/$workload.$c"; done
    for ((i = 1; i <= runs; i++)); do
        line="$workload run $i (CPU ms):"
        for c in "${configs[@]}"; do
            run_once "$workload" "$c"
            line="$line $c $(tail -1 "$work/$workload.$c")"
        done
        echo "$line" >&2
    done
done
printf '%-8s %10s %10s %10s %13s %14s %14s %20s\n' workload none nomode traced traced-noexc nomode/none \
    traced/none traced-noexc/none
for workload in $workloads; do
    n=$(median "$work/$workload.none"); m=$(median "$work/$workload.nomode")
    t=$(median "$work/$workload.traced"); x=$(median "$work/$workload.traced-noexc")
    printf '%-8s %10s %10s %10s %13s %14.2f %14.2f %20.2f\n' "$workload" "$n" "$m" "$t" "$x" \
        "$(awk -v a="$m" -v b="$n" 'BEGIN { print a / b }')" "$(awk -v a="$t" -v b="$n" 'BEGIN { print a / b }')" \
        "$(awk -v a="$x" -v b="$n" 'BEGIN { print a / b }')"
done
