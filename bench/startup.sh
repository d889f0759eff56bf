#!/bin/bash
# What the agent costs a JVM that has barely started: `java -version` and a hello-world, with
# and without the agent (no mode), medians of RUNS runs each, on JDK 17 and on JDK 25 where it
# is installed; and the CPU time of javac compiling JDK 17's java.util sources, with the agent
# against without, median of JAVAC_RUNS runs. Targets: at most 150 ms added to the start-up,
# at most 1.05 times the javac CPU time.
#
# usage: bench/startup.sh [RUNS (10)] [JAVAC_RUNS (10)]
# environment: KJP_AGENT (default build/lib/libkjpagent.so), KJP_AGENT_OPTIONS (default quiet)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/lib.sh"
agent=$(realpath "${KJP_AGENT:-$root/build/lib/libkjpagent.so}")
options=${KJP_AGENT_OPTIONS:-quiet}
runs=${1:-10}
javac_runs=${2:-10}
sources_zip=/usr/lib/jvm/openjdk-17/src.zip

work=$(mktemp -d /tmp/kjp-startup.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/hello"
cat > "$work/hello/Hello.java" << 'EOF'
public class Hello {
    public static void main(String[] args) {
        System.out.println("Hello");
    }
}
EOF
/usr/lib/jvm/java-17-openjdk-amd64/bin/javac --release 8 -Xlint:-options -d "$work/hello" "$work/hello/Hello.java"


# Prints "wall_ms cpu_ms" of one run of the command.
measure() {
    /usr/bin/time -f "%e %U %S" -o "$work/time" "$@" > /dev/null 2> "$work/stderr" || {
        cat "$work/stderr" >&2
        exit 1
    }
    awk '{ printf "%d %d\n", $1 * 1000, ($2 + $3) * 1000 }' "$work/time"
}

# Median wall and CPU of RUNS runs, alternating without and with the agent.
compare() {
    local label=$1 java=$2
    shift 2
    : > "$work/without"
    : > "$work/with"
    for ((i = 0; i < runs; i++)); do
        measure "$java" "$@" >> "$work/without"
        measure "$java" "-agentpath:$agent=$options" "$@" >> "$work/with"
    done
    local wall_without wall_with cpu_without cpu_with
    wall_without=$(cut -d' ' -f1 "$work/without" | median)
    wall_with=$(cut -d' ' -f1 "$work/with" | median)
    cpu_without=$(cut -d' ' -f2 "$work/without" | median)
    cpu_with=$(cut -d' ' -f2 "$work/with" | median)
    printf '%-34s %9s %9s %+8d %9s %9s\n' "$label" "$wall_without" "$wall_with" \
        $((wall_with - wall_without)) "$cpu_without" "$cpu_with"
}

echo "agent start-up cost, agent options '$options', medians of $runs runs (ms)"
printf '%-34s %9s %9s %8s %9s %9s\n' "" "wall" "wall" "added" "CPU" "CPU"
printf '%-34s %9s %9s %8s %9s %9s\n' "" "without" "with" "" "without" "with"
for jdk in /usr/lib/jvm/java-17-openjdk-amd64 /usr/lib/jvm/temurin-25-jdk-amd64; do
    [ -x "$jdk/bin/java" ] || continue
    name=$(basename "$jdk")
    compare "$name java -version" "$jdk/bin/java" -version
    compare "$name hello" "$jdk/bin/java" -cp "$work/hello" Hello
done

if [ -f "$sources_zip" ] && [ "$javac_runs" -gt 0 ]; then
    mkdir -p "$work/src"
    (cd "$work/src" && unzip -q "$sources_zip" 'java.base/java/util/*')
    find "$work/src/java.base/java/util" -maxdepth 1 -name '*.java' > "$work/sources"
    jdk=/usr/lib/jvm/java-17-openjdk-amd64
    # javac runs in-process: the agent option is given to its JVM with -J. The agent runs as
    # given and again without exception events, whose capability alone makes HotSpot
    # deoptimise every compiled frame an exception passes through (javac throws and catches
    # often); the two ratios tell that cost from the rest. A bare agent that holds only that
    # capability (bench/exception-capability.c) shows HotSpot's share of it.
    cc -O2 -shared -fPIC -I"$jdk/include" -I"$jdk/include/linux" -o "$work/libexceptioncapability.so" \
        "$root/bench/exception-capability.c"
    javac_once() {
        rm -rf "$work/out" && mkdir "$work/out"
        measure "$jdk/bin/javac" "$@" --patch-module "java.base=$work/src/java.base" -d "$work/out" -nowarn \
            -XDignore.symbol.file "@$work/sources" | cut -d' ' -f2
    }
    : > "$work/javac_without"
    : > "$work/javac_with"
    : > "$work/javac_noexc"
    : > "$work/javac_capability"
    for ((i = 0; i < javac_runs; i++)); do
        javac_once >> "$work/javac_without"
        javac_once "-J-agentpath:$agent=$options" >> "$work/javac_with"
        javac_once "-J-agentpath:$agent=$options,disableexceptions" >> "$work/javac_noexc"
        javac_once "-J-agentpath:$work/libexceptioncapability.so" >> "$work/javac_capability"
    done
    without=$(median < "$work/javac_without")
    with=$(median < "$work/javac_with")
    noexc=$(median < "$work/javac_noexc")
    capability=$(median < "$work/javac_capability")
    ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a / b }'; }
    printf 'javac java.util (%d files), CPU ms, medians of %d runs: without %d, with %d (ratio %s), with disableexceptions %d (ratio %s), bare agent holding the exception capability %d (ratio %s); target 1.05\n' \
        "$(wc -l < "$work/sources")" "$javac_runs" "$without" "$with" "$(ratio "$with" "$without")" \
        "$noexc" "$(ratio "$noexc" "$without")" "$capability" "$(ratio "$capability" "$without")"
fi
