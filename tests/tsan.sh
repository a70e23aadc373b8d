#!/usr/bin/env bash
# Builds the library and the tests with ThreadSanitizer in build/tsan and runs
# the tests that use threads: Concurrent.* (the process-wide state from
# several threads) and every test whose name holds Thread; then the Python
# package's tests that run threads, with the extension built with the
# sanitizer. The first report stops the test with a failure, so any race or
# lock-order inversion fails the run.
# Usage: tests/tsan.sh [extra ctest arguments]
# VELM3D_WERROR=ON in the environment turns compiler warnings into errors.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install_deps.sh test python

san="-fsanitize=thread -fno-omit-frame-pointer"
# g++ 12 reports false "may be used uninitialized" warnings in <functional>
# (GoogleTest's regex matchers) once the sanitizers instrument it.
warn="-Wno-maybe-uninitialized"
# The library links with --no-undefined; the sanitizer runtime must be on
# the shared library's link line too, or its symbols are undefined there.
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELM3D_BUILD_TESTS=ON \
  -DVELM3D_WERROR="${VELM3D_WERROR:-OFF}" \
  -DCMAKE_CXX_FLAGS="$san $warn" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" \
  -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=thread"
cmake --build build/tsan -j"$(nproc)"

export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
ctest --test-dir build/tsan --output-on-failure -j"$(nproc)" --no-tests=error -R 'Concurrent|Thread' "$@"

# The extension with ThreadSanitizer (setup.py's VELM3D_SANITIZE), built
# beside the package's Python files in build/tsan/python/lib; Python is not
# instrumented, so the sanitizer's runtime is preloaded. The tests: two
# triangulations at once in two Python threads (each on two workers), an
# insertion that lets other Python threads run, and the calls with workers.
# The sanitizer writes its report to the standard error it started with, so
# pytest captures only Python's own output (--capture=sys).
rm -rf build/tsan/python
VELM3D_SANITIZE=thread /usr/bin/python3 setup.py -q build --build-base build/tsan/python \
  --build-lib build/tsan/python/lib egg_info --egg-base build/tsan/python/lib
lib=$PWD/build/tsan/python/lib
(cd tests/python && LD_PRELOAD="$(g++ -print-file-name=libtsan.so)" PYTHONPATH="$lib" /usr/bin/python3 -m pytest -q \
  -p no:cacheprovider --capture=sys -k "two_triangulations or releases_the_gil or threads_and_pickling")
