#!/usr/bin/env bash
# Builds the library and its tests in build/test and runs the whole suite,
# then installs the Python package into build/venv and runs its tests.
# Installs the test dependencies (GoogleTest, GMP; Debian's Python with
# NumPy, SciPy, pybind11, pytest, tqdm) first where they are missing and the
# script may do so (root on a Debian machine).
set -euo pipefail
cd "$(dirname "$0")/.."

need=()
[ -f /usr/include/gmpxx.h ] || need+=(libgmp-dev)
[ -d /usr/include/gtest ] || need+=(libgtest-dev)
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
# The Python package is built and tested with Debian's interpreter, whatever
# python3 comes first on PATH.
py=/usr/bin/python3
for mod in numpy:python3-numpy scipy:python3-scipy pybind11:python3-pybind11 \
  pytest:python3-pytest tqdm:python3-tqdm setuptools:python3-setuptools ensurepip:python3-venv; do
  "$py" -c "import ${mod%%:*}" 2>/dev/null || need+=("${mod#*:}")
done
"$py" -c 'import sysconfig, os, sys; sys.exit(not os.path.exists(sysconfig.get_paths()["include"] + "/Python.h"))' \
  2>/dev/null || need+=(python3-dev)
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

# The Python package, installed with the README's line into a venv under build/.
"$py" -m venv --system-site-packages build/venv
PIP_DISABLE_PIP_VERSION_CHECK=1 build/venv/bin/pip install -q --no-build-isolation .
(cd tests/python && ../../build/venv/bin/python -m pytest -q -p no:cacheprovider)
