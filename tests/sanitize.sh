#!/usr/bin/env bash
# Builds the library, the demo and the whole test suite with AddressSanitizer
# and UndefinedBehaviorSanitizer in build/sanitize and runs the suite there.
# Any finding fails the run: ASan stops at the first error, UBSan is made
# fatal with -fno-sanitize-recover, and LeakSanitizer checks at every exit.
# Usage: tests/sanitize.sh [extra ctest arguments]
# VELM3D_WERROR=ON in the environment turns compiler warnings into errors.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install_deps.sh test

san="-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined"
# g++ 12 reports false "may be used uninitialized" warnings in <functional>
# (GoogleTest's regex matchers) once the sanitizers instrument it.
warn="-Wno-maybe-uninitialized"
# The library links with --no-undefined; the sanitizer runtimes must be on
# the shared library's link line too, or their symbols are undefined there.
cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELM3D_BUILD_TESTS=ON \
  -DVELM3D_WERROR="${VELM3D_WERROR:-OFF}" \
  -DCMAKE_CXX_FLAGS="$san $warn" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
  -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined"
cmake --build build/sanitize -j"$(nproc)"

# The exact sphere test keeps about 210 KB of scratch on the stack, and ASan
# surrounds every local array with red zones: give the tests room.
ulimit -s 65536 2>/dev/null || ulimit -s unlimited 2>/dev/null || true

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build/sanitize --output-on-failure -j"$(nproc)" "$@"
