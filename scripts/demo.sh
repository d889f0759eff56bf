#!/usr/bin/env bash
# Builds the agent and runs the bundled demo application under it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"${KJP_JOBS:-2}" --target kjpagent

mkdir -p build/demo
javac --release 8 -Xlint:-options -d build/demo demo/src/com/kestrix/demo/Demo.java

echo "=== java -agentpath:build/lib/libkjpagent.so -cp build/demo com.kestrix.demo.Demo"
java -agentpath:"$PWD/build/lib/libkjpagent.so" -cp build/demo com.kestrix.demo.Demo "${1:-3}"
