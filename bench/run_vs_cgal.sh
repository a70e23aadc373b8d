#!/usr/bin/env bash
# Builds bench_triangulation in Release and compares libvelm3d with CGAL's
# Delaunay_triangulation_3 on 1M uniform random points and, with --grid, on
# a 100^3 integer grid as well. TetGen is left out here even when built in;
# bench/run_peers.sh runs all three peers on all sets.
#
#   bench/run_vs_cgal.sh [--grid] [--repeat R] [--points N] [--no-install]
#
# Needs root for apt-get unless --no-install is given and the packages are
# there already. Builds in build/bench under the project root.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/bench"
repeat=3
points=1000000
withGrid=0
install=1

while [ $# -gt 0 ]; do
  case "$1" in
    --grid) withGrid=1 ;;
    --repeat) repeat="$2"; shift ;;
    --points) points="$2"; shift ;;
    --no-install) install=0 ;;
    *) echo "usage: $0 [--grid] [--repeat R] [--points N] [--no-install]" >&2; exit 2 ;;
  esac
  shift
done

if [ "$install" = 1 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  # CGAL for the comparison; Google Benchmark because the predicate
  # benchmark in the same directory is configured along with it.
  apt-get install -y -q cmake ninja-build g++ libcgal-dev libgmp-dev libmpfr-dev \
    libboost-dev libbenchmark-dev
fi

generator=()
if command -v ninja >/dev/null 2>&1; then generator=(-G Ninja); fi
cmake -S "$root" -B "$build" "${generator[@]}" \
  -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_FLAGS_RELEASE="-O3 -DNDEBUG" \
  -DVELM3D_BUILD_BENCH=ON -DVELM3D_BUILD_TESTS=OFF -DVELM3D_BUILD_EXAMPLES=OFF
cmake --build "$build" --target bench_triangulation

bin="$build/bench/bench_triangulation"
echo
echo "== $points uniform random points, median of $repeat =="
"$bin" --points "$points" --seed 42 --repeat "$repeat" --no-tetgen

if [ "$withGrid" = 1 ]; then
  echo
  echo "== 100^3 integer grid, with validity check =="
  "$bin" --grid 100 --check --no-tetgen
fi
