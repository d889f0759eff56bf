#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing.
# Safe to run repeatedly: it does nothing when everything is present.
set -euo pipefail

PACKAGES=(
  cmake ninja-build g++ make
  clang libclang-rt-14-dev        # fuzzing with libFuzzer
  libgtest-dev googletest         # C++ unit tests
  libbenchmark-dev                # micro-benchmarks
  openjdk-17-jdk-headless         # JNI/JVMTI headers, javac, the reference JVM
  junit5                          # Java tests
  libasm-java                     # verifier for instrumented classes
  openjdk-17-source               # a large real-world source tree for end-to-end checks
  chromium                        # headless check of the kjp flame graph page
  libh2-java                      # an embedded SQL database for the JDBC tests
  postgresql libpostgresql-jdbc-java  # a real database server and its driver for the JDBC tests
  libjetty9-java                  # javax.servlet container for the servlet tests and benchmark
  libtomcat10-embed-java          # jakarta.servlet container for the servlet tests
  wrk                             # HTTP load generator of the servlet benchmark
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
