#!/usr/bin/env bash
# Speed and memory of libvelm3d against its peers, CGAL's
# Delaunay_triangulation_3 (Epick, range insertion) and TetGen's Delaunay
# tetrahedralisation, on the same point sets in the same run:
#   - uniform random points in the unit cube, a scaling series from 10k to 4M
#     (its 100k, 1M and 4M sets are the uniform sets of the table);
#   - a 100^3 integer grid, with the validity check of libvelm3d and CGAL;
#   - 100k uniform random points on the unit sphere;
#   - 1M points of which 10% are exact duplicates.
# Each figure is the median of R runs; the implementations take turns.
#
#   bench/run_peers.sh [--quick] [--repeat R] [--max N] [--ten-million]
#                      [--no-install] [--report-only]
#
# --quick       small sets and one run each: a smoke test of the whole chain,
#               written to build/bench/quick-results instead
# --max N       leave out the uniform sets above N points
# --ten-million adds 10M uniform points, libvelm3d alone, one run
# --report-only writes the table and the plot again from the last CSV
#
# Writes bench/results/peers.csv (one line per implementation and set),
# bench/results/peers.md (the table) and bench/results/time_per_point.png
# (time per point against N over the scaling series). Needs root for apt-get
# unless --no-install is given and the packages are there already. Builds in
# build/bench under the project root.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/bench"
results="$root/bench/results"
invocation="bash bench/run_peers.sh${*:+ $*}"
repeat=3
quick=0
maxPoints=4000000
tenMillion=0
install=1
reportOnly=0

while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --repeat) repeat="$2"; shift ;;
    --max) maxPoints="$2"; shift ;;
    --ten-million) tenMillion=1 ;;
    --no-install) install=0 ;;
    --report-only) reportOnly=1; install=0 ;;
    *) echo "usage: $0 [--quick] [--repeat R] [--max N] [--ten-million] [--no-install]" \
         "[--report-only]" >&2
       exit 2 ;;
  esac
  shift
done

if [ "$install" = 1 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  # CGAL and TetGen are the peers; Google Benchmark because the predicate
  # benchmark in the same directory is configured along with it; gnuplot
  # draws the plot.
  tetgenDev="$(apt-cache search --names-only '^libtet[0-9.]*-dev$' | awk '{print $1}' | sort -V | tail -1)"
  apt-get install -y -q cmake ninja-build g++ libcgal-dev libgmp-dev libmpfr-dev \
    libboost-dev libbenchmark-dev "${tetgenDev:-libtet1.5-dev}" gnuplot-nox
fi

# A smoke run leaves the recorded results alone.
if [ "$quick" = 1 ]; then results="$build/quick-results"; fi
mkdir -p "$results"
csv="$results/peers.csv"
if [ "$reportOnly" = 1 ]; then
  # shellcheck source=/dev/null
  . "$results/peers.run"
else
  generator=()
  if command -v ninja >/dev/null 2>&1; then generator=(-G Ninja); fi
  cmake -S "$root" -B "$build" "${generator[@]}" \
    -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE="-O3 -DNDEBUG" \
    -DVELM3D_BUILD_BENCH=ON -DVELM3D_BUILD_TESTS=OFF -DVELM3D_BUILD_EXAMPLES=OFF
  cmake --build "$build" --target bench_triangulation
  bin="$build/bench/bench_triangulation"

  if [ "$quick" = 1 ]; then
    repeat=1
    series=(10000 30000 100000)
    grid=20
    sphere=10000
    dups=100000
  else
    series=()
    for n in 10000 30000 100000 300000 1000000 2000000 4000000; do
      if [ "$n" -le "$maxPoints" ]; then series+=("$n"); fi
    done
    grid=100
    sphere=100000
    dups=1000000
  fi

  rm -f "$csv"
  loadAtStart="$(cut -d' ' -f1-3 /proc/loadavg)"
  started="$(date -u '+%Y-%m-%d %H:%M UTC')"
  # What the table's heading says about this run, kept for --report-only.
  printf 'invocation=%q\nstarted=%q\nloadAtStart=%q\nrepeat=%q\n' \
    "$invocation" "$started" "$loadAtStart" "$repeat" > "$results/peers.run"

  run() {
    echo
    echo "== $* =="
    # A failed run (or a failed check) is reported in the table by its absence
    # or its check column; the series goes on.
    "$bin" --repeat "$repeat" --csv "$csv" "$@" || echo "(exit status $?)"
  }

  for n in "${series[@]}"; do run --points "$n"; done
  run --grid "$grid" --check
  run --sphere "$sphere"
  run --dups "$dups"
  if [ "$tenMillion" = 1 ]; then
    "$bin" --points 10000000 --repeat 1 --no-cgal --no-tetgen --csv "$csv" --label "uniform (libvelm3d alone)" \
      || echo "(exit status $?)"
  fi
fi

# The table.
cpu="$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
{
  echo "# libvelm3d, CGAL and TetGen: construction time and memory"
  echo
  echo "Produced by \`$invocation\` on $started:"
  echo "$(nproc) cores ($cpu), load average at start $loadAtStart; median of $repeat run(s),"
  echo "one thread, implementations taking turns on the same points, each run in its own process."
  echo
  echo "Time is the wall time of the bulk construction call alone: \`Velm_3D::insert(vector)\`,"
  echo "CGAL's range \`insert\`, TetGen's \`tetrahedralize\` with \"QNF\" (which includes copying"
  echo "its tetrahedra out). Peak MiB is the peak resident set of the run (VmHWM, input"
  echo "included); bytes/point is the growth of the peak during construction over the input"
  echo "size, that is what the triangulation costs."
  echo
  echo "| set | N | implementation | median s | ratio to CGAL | peak MiB | bytes/point | tetrahedra | check |"
  echo "|---|---:|---|---:|---:|---:|---:|---:|---|"
  awk -F, 'NR > 1 {
      printf "| %s | %d | %s | %.3f | %s | %.1f | %d | %d | %s |\n",
        $1, $2, $3, $4, ($6 == "" ? "-" : sprintf("%.2f", $6)), $7, $9, $10, ($12 == "" ? "-" : $12)
    }' "$csv"
  echo
  echo "Time per point over the uniform series, in microseconds (the plot's data):"
  echo
  echo "| N | libvelm3d | CGAL | TetGen |"
  echo "|---:|---:|---:|---:|"
  awk -F, 'NR > 1 && $1 == "uniform" {
      if (!($2 in seen)) { seen[$2] = 1; order[++count] = $2 }
      us[$2, $3] = sprintf("%.2f", $4 * 1e6 / $2)
    }
    END {
      for (i = 1; i <= count; ++i) {
        n = order[i]
        printf "| %d | %s | %s | %s |\n", n, ((n, "libvelm3d") in us ? us[n, "libvelm3d"] : "-"),
          ((n, "CGAL") in us ? us[n, "CGAL"] : "-"), ((n, "TetGen") in us ? us[n, "TetGen"] : "-")
      }
    }' "$csv"
} > "$results/peers.md"
echo
cat "$results/peers.md"

# The plot: time per point over the uniform series, one line per
# implementation.
mkdir -p "$build"
for impl in libvelm3d CGAL TetGen; do
  awk -F, -v impl="$impl" 'NR > 1 && $1 == "uniform" && $3 == impl { print $2, $4 * 1e6 / $2 }' \
    "$csv" > "$build/series_$impl.dat"
done
gnuplot -e "dataDir='$build'; outFile='$results/time_per_point.png'" "$root/bench/plot_peers.gp"
echo "plot: $results/time_per_point.png"
