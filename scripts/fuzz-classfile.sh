#!/bin/sh
# Fuzzes the class-file model with libFuzzer under AddressSanitizer and
# UndefinedBehaviorSanitizer.
#
#   scripts/fuzz-classfile.sh [seconds]      (default 60)
#
# Configures a clang build in build-fuzz, builds kjp_classfile_fuzzer, makes a seed corpus
# of real JDK classes (build-fuzz/classfile-seeds, kept between runs) and fuzzes for the
# given time. Inputs that found new paths collect in build-fuzz/classfile-corpus, so a
# later run goes on from there. A crash, a sanitizer report or a hang ends the run with a
# non-zero status and leaves the input as build-fuzz/crash-* (or leak-*, timeout-*).
set -eu
seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-fuzz"
jdk=${KJP_FUZZ_JDK:-/usr/lib/jvm/java-17-openjdk-amd64}
cxx=${KJP_FUZZ_CXX:-clang++-14}
cc=${KJP_FUZZ_CC:-clang-14}
command -v "$cxx" >/dev/null 2>&1 || cxx=clang++
command -v "$cc" >/dev/null 2>&1 || cc=clang

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc" \
  -DKJP_BUILD_FUZZ=ON -DKJP_BUILD_TESTS=OFF -DKJP_BUILD_BENCH=OFF -DKJP_BUILD_JAVA=OFF >/dev/null
cmake --build "$build" -j2 --target kjp_classfile_fuzzer

seeds="$build/classfile-seeds"
if [ ! -d "$seeds" ] || [ -z "$(ls -A "$seeds" 2>/dev/null)" ]; then
  "$jdk/bin/java" "$root/tests/classfile/DumpJrtClasses.java" --seeds "$seeds" 400 6000
  cp "$root"/tests/data/classfile/classes/*/kjptest/*.class "$seeds"/ 2>/dev/null || true
fi
corpus="$build/classfile-corpus"
mkdir -p "$corpus"

cd "$build"
# Slow inputs count as hangs after 10 s; a minute-long run does some 100 000 inputs.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  "$build/tests/fuzz/kjp_classfile_fuzzer" \
  -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 -print_final_stats=1 \
  -dict="$root/tests/fuzz/classfile.dict" "$corpus" "$seeds"
