#!/usr/bin/env bash
# Builds the library and its tests in build/test and runs the whole suite.
# Installs the test dependencies (GoogleTest, GMP) first where they are
# missing and the script may do so (root on a Debian machine).
set -euo pipefail
cd "$(dirname "$0")/.."

need=()
[ -f /usr/include/gmpxx.h ] || need+=(libgmp-dev)
[ -d /usr/include/gtest ] || need+=(libgtest-dev)
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
if [ ${#need[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    apt-get update -qq && apt-get install -y -qq "${need[@]}"
  else
    echo "missing packages: ${need[*]} (install them, then run again)" >&2
    exit 1
  fi
fi

cmake -S . -B build/test -DCMAKE_BUILD_TYPE=Release -DVELM3D_BUILD_TESTS=ON
cmake --build build/test -j"$(nproc)"
ctest --test-dir build/test --output-on-failure -j"$(nproc)"
