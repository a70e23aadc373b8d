#!/usr/bin/env bash
# Installs the Debian packages that the project's scripts need, by group:
#   test    cmake, g++, GoogleTest and GMP: the C++ library and its test suite
#   python  Debian's Python with its headers, venv, setuptools, pybind11,
#           NumPy, SciPy, pytest and tqdm: the Python package and its tests
#   clang   clang, the second compiler
#   fuzz    clang with libFuzzer's runtime
#   ci      valgrind and pkg-config: the memcheck runs and the pkg-config
#           consumer of the continuous integration
#   bench   Google Benchmark, the peers CGAL (with TBB for its parallel mode)
#           and TetGen, ninja and gnuplot
#   all     every group
#
#   scripts/install_deps.sh group...
#
# Only packages that are missing are installed, after an apt-get update, so a
# machine that has them all is left alone (and nothing needs root). Missing
# packages without root or apt-get: the list is printed and the exit status
# is 1. On a system without dpkg nothing can be checked; the list is printed
# as a reminder and the script succeeds.
set -euo pipefail

if [ $# -eq 0 ]; then
  echo "usage: $0 test|python|clang|fuzz|ci|bench|all ..." >&2
  exit 2
fi

groups=()
for group in "$@"; do
  if [ "$group" = all ]; then groups+=(test python clang fuzz ci bench); else groups+=("$group"); fi
done

tetgenDev() {
  local name
  name="$(apt-cache search --names-only '^libtet[0-9.]*-dev$' 2>/dev/null |
    awk '{print $1}' | sort -V | tail -1)"
  echo "${name:-libtet1.5-dev}"
}

packages=()
for group in "${groups[@]}"; do
  case "$group" in
    test) packages+=(cmake g++ make libgtest-dev libgmp-dev) ;;
    python) packages+=(python3 python3-dev python3-venv python3-setuptools python3-pybind11
                       python3-numpy python3-scipy python3-pytest python3-tqdm) ;;
    clang) packages+=(clang) ;;
    fuzz) packages+=(clang libclang-rt-dev) ;;
    ci) packages+=(valgrind pkg-config) ;;
    bench) packages+=(cmake g++ ninja-build libbenchmark-dev libcgal-dev libtbb-dev libgmp-dev libmpfr-dev
                      libboost-dev "$(tetgenDev)" gnuplot-nox) ;;
    *) echo "$0: unknown group '$group'" >&2; exit 2 ;;
  esac
done
mapfile -t packages < <(printf '%s\n' "${packages[@]}" | sort -u)

if ! command -v dpkg-query >/dev/null; then
  echo "not a Debian system: make sure these are installed: ${packages[*]}" >&2
  exit 0
fi

missing=()
for p in "${packages[@]}"; do
  status="$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)"
  [ "$status" = "install ok installed" ] || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null; then
  echo "missing packages: ${missing[*]} (install them, then run again)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
echo "installing: ${missing[*]}"
apt-get update -qq
apt-get install -y -qq "${missing[@]}" >/dev/null
