#!/usr/bin/env bash
# Speed and memory of libvelm3d against its peers, CGAL's
# Delaunay_triangulation_3 (Epick, range insertion) and TetGen's Delaunay
# tetrahedralisation, on the same point sets in the same run:
#   - uniform random points in the unit cube, a scaling series from 10k to
#     10M (its 100k, 1M, 4M and 10M sets are the uniform sets of the table);
#   - a 100^3 integer grid, with the validity check of libvelm3d and CGAL;
#   - 100k uniform random points on the unit sphere;
#   - 1M points of which 10% are exact duplicates.
# Each figure is the median of R runs; the implementations take turns. An
# implementation whose peak memory on a set would not fit in the memory
# available at that moment is left out of that set, and the table says so
# (10M points take about 7 GiB for libvelm3d, 6 for CGAL, 9 for TetGen).
#
#   bench/run_peers.sh [--quick] [--repeat R] [--max N] [--no-install]
#                      [--report-only]
#
# --quick       small sets and one run each: a smoke test of the whole chain,
#               written to build/bench/quick-results instead
# --max N       leave out the uniform sets above N points
# --report-only writes the table and the plot again from the recorded CSV
#
# Writes bench/results/peers.csv (one line per implementation and set),
# bench/results/peers.md (the table, whose heading names the CPU),
# bench/results/time_per_point.png (time per point against N over the
# scaling series) and bench/results/peers.run (how the series was made). A
# series is written to a scratch directory first and replaces the recorded
# results only once it is complete. Installs what it needs unless
# --no-install is given (scripts/install_deps.sh bench). Builds in
# build/bench under the project root.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/bench"
results="$root/bench/results"
invocation="bash bench/run_peers.sh${*:+ $*}"
repeat=3
quick=0
maxPoints=10000000
install=1
reportOnly=0

while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --repeat) repeat="$2"; shift ;;
    --max) maxPoints="$2"; shift ;;
    --ten-million) echo "(--ten-million: 10M points are part of the series now)" ;;
    --no-install) install=0 ;;
    --report-only) reportOnly=1; install=0 ;;
    *) echo "usage: $0 [--quick] [--repeat R] [--max N] [--no-install] [--report-only]" >&2
       exit 2 ;;
  esac
  shift
done

if [ "$install" = 1 ]; then bash "$root/scripts/install_deps.sh" bench; fi

# A smoke run leaves the recorded results alone.
if [ "$quick" = 1 ]; then results="$build/quick-results"; fi
mkdir -p "$results" "$build"
# The new files are made here and moved over the recorded ones at the end.
scratch="$(mktemp -d "$build/peers-new.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
csv="$scratch/peers.csv"
notes="$scratch/peers.notes"
: > "$notes"

if [ "$reportOnly" = 1 ]; then
  cp "$results/peers.csv" "$csv"
  cp "$results/peers.run" "$scratch/peers.run"
  [ -f "$results/peers.notes" ] && cp "$results/peers.notes" "$notes"
  # shellcheck source=/dev/null
  . "$scratch/peers.run"
else
  generator=()
  # Ninja for a new build directory; an existing one keeps its generator.
  if command -v ninja >/dev/null 2>&1 && [ ! -f "$build/CMakeCache.txt" ]; then
    generator=(-G Ninja)
  fi
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
    for n in 10000 30000 100000 300000 1000000 2000000 4000000 10000000; do
      if [ "$n" -le "$maxPoints" ]; then series+=("$n"); fi
    done
    grid=100
    sphere=100000
    dups=1000000
  fi

  loadAtStart="$(cut -d' ' -f1-3 /proc/loadavg)"
  started="$(date -u '+%Y-%m-%d %H:%M UTC')"
  # The CPU as the benchmark names it (model name, family and model).
  cpu="$("$bin" --points 4 --no-cgal --no-tetgen --no-fork |
    sed -n 's/^cpu: *//; s/, [0-9]* logical CPUs online$//p')"
  # What the table's heading says about this run, kept for --report-only.
  printf 'invocation=%q\nstarted=%q\nloadAtStart=%q\nrepeat=%q\ncpu=%q\n' \
    "$invocation" "$started" "$loadAtStart" "$repeat" "$cpu" > "$scratch/peers.run"

  # Peak bytes per point of each implementation on uniform points, with the
  # input and some room: an implementation is left out of a set whose
  # estimate exceeds the memory available when the set starts.
  declare -A bytesPerPoint=([velm]=800 [cgal]=700 [tetgen]=1000)
  declare -A implName=([velm]=libvelm3d [cgal]=CGAL [tetgen]=TetGen)
  run() {
    local n="$1"
    shift
    local leaveOut=() availableKB
    availableKB="$(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo)"
    for impl in velm cgal tetgen; do
      if [ $(( n * bytesPerPoint[$impl] / 1024 )) -gt "$availableKB" ]; then
        leaveOut+=("--no-$impl")
        echo "- ${implName[$impl]} left out of the set of $n points ($*): about" \
          "$(( (n * bytesPerPoint[$impl] + (1 << 30) - 1) >> 30 )) GiB needed," \
          "$(( availableKB >> 20 )) GiB available." | tee -a "$notes"
      fi
    done
    echo
    echo "== $* =="
    # A failed run (or a failed check) is reported in the table by its absence
    # or its check column; the series goes on.
    "$bin" --repeat "$repeat" --csv "$csv" "$@" "${leaveOut[@]}" || echo "(exit status $?)"
  }

  for n in "${series[@]}"; do run "$n" --points "$n"; done
  run $((grid * grid * grid)) --grid "$grid" --check
  run "$sphere" --sphere "$sphere"
  run "$dups" --dups "$dups"
fi

# The table. Columns are found by their names in the CSV's header line, so
# that a CSV of an older layout (without user and system time) still reads.
cpu="${cpu:-a CPU that was not recorded}"
{
  echo "# libvelm3d, CGAL and TetGen: construction time and memory on $cpu"
  echo
  echo "Produced by \`$invocation\` on $started:"
  echo "$cpu, $(nproc) cores, load average at start $loadAtStart; median of $repeat run(s),"
  echo "one thread, implementations taking turns on the same points, each run in its own process."
  echo
  echo "Time is the time of the bulk construction call alone: \`Velm_3D::insert(vector)\`,"
  echo "CGAL's range \`insert\`, TetGen's \`tetrahedralize\` with \"QNF\" (which includes copying"
  echo "its tetrahedra out): wall time, and the user and system time of the process that ran"
  echo "it. Peak MiB is the peak resident set of the run (VmHWM, input included); bytes/point"
  echo "is the growth of the peak during construction over the input size, that is what the"
  echo "triangulation costs."
  if [ -s "$notes" ]; then
    echo
    cat "$notes"
  fi
  echo
  echo "| set | N | implementation | wall s | user s | sys s | ratio to CGAL | peak MiB | bytes/point | tetrahedra | check |"
  echo "|---|---:|---|---:|---:|---:|---:|---:|---:|---:|---|"
  awk -F, 'NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
    function field(name, format) {
      if (!(name in col) || $col[name] == "") return "-"
      return format == "" ? $col[name] : sprintf(format, $col[name])
    }
    {
      printf "| %s | %d | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n",
        $col["set"], $col["n"], $col["implementation"], field("median_s", "%.3f"),
        field("user_s", "%.3f"), field("sys_s", "%.3f"), field("ratio_to_cgal", "%.2f"),
        field("peak_rss_mib", "%.1f"), field("bytes_per_point", "%d"), field("cells", "%d"),
        field("check", "")
    }' "$csv"
  echo
  echo "Time per point over the uniform series, in microseconds of wall time (the plot's data):"
  echo
  echo "| N | libvelm3d | CGAL | TetGen |"
  echo "|---:|---:|---:|---:|"
  awk -F, 'NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
    $col["set"] == "uniform" {
      n = $col["n"]
      if (!(n in seen)) { seen[n] = 1; order[++count] = n }
      us[n, $col["implementation"]] = sprintf("%.2f", $col["median_s"] * 1e6 / n)
    }
    END {
      for (i = 1; i <= count; ++i) {
        n = order[i]
        printf "| %d | %s | %s | %s |\n", n, ((n, "libvelm3d") in us ? us[n, "libvelm3d"] : "-"),
          ((n, "CGAL") in us ? us[n, "CGAL"] : "-"), ((n, "TetGen") in us ? us[n, "TetGen"] : "-")
      }
    }' "$csv"
} > "$scratch/peers.md"

# The plot: time per point over the uniform series, one line per
# implementation.
for impl in libvelm3d CGAL TetGen; do
  awk -F, -v impl="$impl" 'NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
    $col["set"] == "uniform" && $col["implementation"] == impl {
      print $col["n"], $col["median_s"] * 1e6 / $col["n"]
    }' \
    "$csv" > "$scratch/series_$impl.dat"
done
gnuplot -e "dataDir='$scratch'; outFile='$scratch/time_per_point.png'" "$root/bench/plot_peers.gp"

# The series is complete: it replaces the recorded results.
for f in peers.csv peers.md peers.run time_per_point.png; do mv -f "$scratch/$f" "$results/$f"; done
rm -f "$results/peers.notes"
if [ -s "$notes" ]; then mv -f "$notes" "$results/peers.notes"; fi
echo
cat "$results/peers.md"
echo "plot: $results/time_per_point.png"
