#!/usr/bin/env bash
# Builds everything and runs every test: the unit tests and the Java integration tests in
# the release build, the unit tests again under AddressSanitizer and UndefinedBehaviorSanitizer,
# and a short fuzzing run of the class-file reader.
set -uo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh || { echo "cannot install the build dependencies"; exit 1; }

failed=()
step() {
  local name="$1"
  shift
  echo "=== $name"
  if ! "$@"; then
    failed+=("$name")
  fi
}

JOBS="${KJP_JOBS:-2}"

step "configure (release)" cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
step "build (release)" cmake --build build -j"$JOBS"
step "tests (release)" ctest --test-dir build --output-on-failure -j"$JOBS"

step "configure (sanitizers)" cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Sanitize
step "build (sanitizers)" cmake --build build-asan -j"$JOBS" --target kjp_unit_tests
step "unit tests (sanitizers)" ctest --test-dir build-asan --output-on-failure -j"$JOBS" -L unit

if [ -f scripts/fuzz-classfile.sh ]; then
  step "fuzzing (class files)" bash scripts/fuzz-classfile.sh "${KJP_FUZZ_SECONDS:-60}"
fi

if [ ${#failed[@]} -ne 0 ]; then
  echo "FAILED steps: ${failed[*]}"
  exit 1
fi
echo "All test steps passed."
