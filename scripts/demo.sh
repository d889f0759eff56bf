#!/usr/bin/env bash
# Builds the agent and the kjp tool, profiles the bundled demo application with sampling and
# prints the report of the snapshot the agent writes when the demo ends.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"${KJP_JOBS:-2}" --target kjpagent kjptools

mkdir -p build/demo
javac --release 8 -Xlint:-options -d build/demo demo/src/com/kestrix/demo/Demo.java

snapshots="build/demo/snapshots"
rm -rf "$snapshots"
options="sampling,onexit=snapshot,dir=$PWD/$snapshots"
echo "=== java -agentpath:build/lib/libkjpagent.so=$options -cp build/demo com.kestrix.demo.Demo"
java -agentpath:"$PWD/build/lib/libkjpagent.so=$options" -cp build/demo com.kestrix.demo.Demo "${1:-3}"

snapshot="$(ls -t "$snapshots"/*.snapshot | head -n 1)"
echo
echo "=== tools/kjp report $snapshot"
tools/kjp report "$snapshot"
