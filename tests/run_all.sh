#!/usr/bin/env bash
# Builds the library and its tests in build/test and runs the whole suite,
# then installs the Python package into build/venv and runs its tests.
# Installs what is missing of the test dependencies first (GoogleTest, GMP;
# Debian's Python with NumPy, SciPy, pybind11, pytest, tqdm) where the
# script may do so (root on a Debian machine). VELM3D_WERROR=ON in the
# environment turns compiler warnings into errors.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install_deps.sh test python
# The Python package is built and tested with the first interpreter that has
# NumPy and pybind11: Debian's, then the python3 first on PATH.
py=
for candidate in /usr/bin/python3 "$(command -v python3 || true)"; do
  if [ -x "$candidate" ] && "$candidate" -c "import numpy, pybind11" 2>/dev/null; then
    py=$candidate
    break
  fi
done
if [ -z "$py" ]; then
  echo "$0: no python3 with NumPy and pybind11 (tried /usr/bin/python3 and python3 on PATH);" \
    "bash scripts/install_deps.sh python installs them" >&2
  exit 1
fi

cmake -S . -B build/test -DCMAKE_BUILD_TYPE=Release -DVELM3D_BUILD_TESTS=ON \
  -DVELM3D_WERROR="${VELM3D_WERROR:-OFF}"
cmake --build build/test -j"$(nproc)"
ctest --test-dir build/test --output-on-failure -j"$(nproc)"

# The Python package, installed with the README's line into a venv under build/.
"$py" -m venv --system-site-packages build/venv
PIP_DISABLE_PIP_VERSION_CHECK=1 build/venv/bin/pip install -q --no-build-isolation .
(cd tests/python && ../../build/venv/bin/python -m pytest -q -p no:cacheprovider)
