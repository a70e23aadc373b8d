#!/usr/bin/env bash
# Speed and memory of libvelm3d against its peers, CGAL's
# Delaunay_triangulation_3 (Epick, range insertion) and TetGen's Delaunay
# tetrahedralisation, on the same point sets in the same run:
#   - uniform random points in the unit cube, a scaling series from 10k to
#     10M (its 100k, 1M, 4M and 10M sets are the uniform sets of the table);
#   - a 100^3 integer grid, with the validity check of libvelm3d and CGAL;
#   - 100k uniform random points on the unit sphere;
#   - 1M points of which 10% are exact duplicates;
#   - 1M points of a scan-like scene (ground, roofs and walls, rounded to
#     1 cm), with the validity check of libvelm3d and CGAL.
# All of these run at one thread. The thread table then runs 1M and 4M
# uniform points, the 1M scan-like set and the 100^3 grid again at each
# further thread count (2 by default): libvelm3d with --threads, CGAL as its
# Parallel_tag triangulation on TBB, TetGen not at all (it has one thread).
# Each figure is the median of R runs; the implementations take turns. An
# implementation whose peak memory on a set would not fit in the memory
# available at that moment is left out of that set, and the table says so
# (10M points take about 7 GiB for libvelm3d, 6 for CGAL, 9 for TetGen).
#
#   bench/run_peers.sh [--quick] [--repeat R] [--max N] [--threads T,...]
#                      [--threads-only] [--no-install] [--report-only]
#
# --quick        small sets and one run each: a smoke test of the whole chain,
#                written to build/bench/quick-results instead
# --max N        leave out the uniform sets above N points
# --threads T,.. the thread counts of the thread table (default 1,2)
# --threads-only only the thread table's sets, at each thread count, written
#                to threads.csv, threads.md and threads.run beside the
#                recorded peers.* (which it leaves alone)
# --report-only  writes the table and the plot again from the recorded CSV
#
# Writes bench/results/peers.csv (one line per implementation, set and
# thread count), bench/results/peers.md (the tables, whose heading names the CPU),
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
threadList=1,2
threadsOnly=0

while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --repeat) repeat="$2"; shift ;;
    --max) maxPoints="$2"; shift ;;
    --threads) threadList="$2"; shift ;;
    --threads-only) threadsOnly=1 ;;
    --ten-million) echo "(--ten-million: 10M points are part of the series now)" ;;
    --no-install) install=0 ;;
    --report-only) reportOnly=1; install=0 ;;
    *) echo "usage: $0 [--quick] [--repeat R] [--max N] [--threads T,...] [--threads-only]" \
         "[--no-install] [--report-only]" >&2
       exit 2 ;;
  esac
  shift
done

IFS=, read -r -a threadCounts <<< "$threadList"
for t in "${threadCounts[@]}"; do
  if ! [[ "$t" =~ ^[1-9][0-9]*$ ]]; then echo "$0: --threads takes counts like 1,2" >&2; exit 2; fi
done
# The recorded series (peers.*) or the thread table alone (threads.*).
base=peers
if [ "$threadsOnly" = 1 ]; then base=threads; fi

if [ "$install" = 1 ]; then
  bash "$root/scripts/install_deps.sh" bench
  # CGAL's parallel triangulation runs on TBB.
  if [ "$(dpkg-query -W -f='${Status}' libtbb-dev 2>/dev/null || true)" != "install ok installed" ]; then
    if [ "$(id -u)" != 0 ]; then
      echo "missing package: libtbb-dev (CGAL runs at one thread only without it)" >&2
    else
      echo "installing: libtbb-dev"
      apt-get update -qq
      DEBIAN_FRONTEND=noninteractive apt-get install -y -qq libtbb-dev >/dev/null
    fi
  fi
fi

# A smoke run leaves the recorded results alone.
if [ "$quick" = 1 ]; then results="$build/quick-results"; fi
mkdir -p "$results" "$build"
# The new files are made here and moved over the recorded ones at the end.
scratch="$(mktemp -d "$build/peers-new.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
csv="$scratch/$base.csv"
notes="$scratch/$base.notes"
: > "$notes"

if [ "$reportOnly" = 1 ]; then
  cp "$results/$base.csv" "$csv"
  cp "$results/$base.run" "$scratch/$base.run"
  [ -f "$results/$base.notes" ] && cp "$results/$base.notes" "$notes"
  # shellcheck source=/dev/null
  . "$scratch/$base.run"
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
  cmake --build "$build" --target bench_triangulation -j "$(nproc)"
  bin="$build/bench/bench_triangulation"

  if [ "$quick" = 1 ]; then
    repeat=1
    series=(10000 30000 100000)
    grid=20
    sphere=10000
    dups=100000
    scan=100000
    threadUniform=(100000)
  else
    series=()
    for n in 10000 30000 100000 300000 1000000 2000000 4000000 10000000; do
      if [ "$n" -le "$maxPoints" ]; then series+=("$n"); fi
    done
    grid=100
    sphere=100000
    dups=1000000
    scan=1000000
    threadUniform=()
    for n in 1000000 4000000; do
      if [ "$n" -le "$maxPoints" ]; then threadUniform+=("$n"); fi
    done
  fi

  loadAtStart="$(cut -d' ' -f1-3 /proc/loadavg)"
  started="$(date -u '+%Y-%m-%d %H:%M UTC')"
  # The CPU as the benchmark names it (model name, family and model).
  cpu="$("$bin" --points 4 --no-cgal --no-tetgen --no-fork |
    sed -n 's/^cpu: *//; s/, [0-9]* logical CPUs online$//p')"
  # What the table's heading says about this run, kept for --report-only.
  printf 'invocation=%q\nstarted=%q\nloadAtStart=%q\nrepeat=%q\ncpu=%q\n' \
    "$invocation" "$started" "$loadAtStart" "$repeat" "$cpu" > "$scratch/$base.run"

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

  threadSets() {
    local t="$1"
    for n in "${threadUniform[@]}"; do run "$n" --points "$n" --threads "$t"; done
    run "$scan" --scan "$scan" --check --threads "$t"
    run $((grid * grid * grid)) --grid "$grid" --check --threads "$t"
  }
  if [ "$threadsOnly" = 1 ]; then
    for t in "${threadCounts[@]}"; do threadSets "$t"; done
  else
    for n in "${series[@]}"; do run "$n" --points "$n"; done
    run $((grid * grid * grid)) --grid "$grid" --check
    run "$sphere" --sphere "$sphere"
    run "$dups" --dups "$dups"
    run "$scan" --scan "$scan" --check
    for t in "${threadCounts[@]}"; do
      if [ "$t" != 1 ]; then threadSets "$t"; fi
    done
  fi
fi

# The tables. Columns are found by their names in the CSV's header line, so
# that a CSV of an older layout (without user and system time, or without
# the thread count, which was then one) still reads.
cpu="${cpu:-a CPU that was not recorded}"
# The CSV's rows with their thread count in a known place, and whether any
# ran above one thread.
# shellcheck disable=SC2016 # awk text, expanded by awk
threadsOf='function threadsOf() { return ("threads" in col && $col["threads"] != "") ? $col["threads"] : 1 }'
bThreadTable="$(awk -F, "$threadsOf"'
  NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
  threadsOf() > 1 { found = 1 }
  END { print found ? 1 : 0 }' "$csv")"
{
  if [ "$base" = threads ]; then
    echo "# libvelm3d and CGAL: construction time and memory by thread count on $cpu"
  else
    echo "# libvelm3d, CGAL and TetGen: construction time and memory on $cpu"
  fi
  echo
  echo "Produced by \`$invocation\` on $started:"
  echo "$cpu, $(nproc) cores, load average at start $loadAtStart; median of $repeat run(s),"
  echo "implementations taking turns on the same points, each run in its own process."
  echo
  echo "Time is the time of the bulk construction call alone: \`Velm_3D::insert(vector)\`,"
  echo "CGAL's range \`insert\`, TetGen's \`tetrahedralize\` with \"QNF\" (which includes copying"
  echo "its tetrahedra out): wall time, and the user and system time of the process that ran"
  echo "it. Peak MiB is the peak resident set of the run (VmHWM, input included); bytes/point"
  echo "is the growth of the peak during construction over the input size, that is what the"
  echo "triangulation costs. Above one thread libvelm3d runs with \`setNumThreads(T)\` and"
  echo "CGAL is its \`Delaunay_triangulation_3\` with \`Parallel_tag\` (TBB capped at T threads,"
  echo "a lock grid of 50^3 cells over the points' bounding box, timed around its range"
  echo "constructor); TetGen has one thread only. CGAL's lock retries make its figure above one"
  echo "thread swing widely when other work shares the cores."
  echo "The ratio to CGAL compares with CGAL at the same thread count."
  if [ -s "$notes" ]; then
    echo
    cat "$notes"
  fi
  echo
  echo "| set | N | implementation | threads | wall s | user s | sys s | ratio to CGAL | peak MiB | bytes/point | tetrahedra | check |"
  echo "|---|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---|"
  awk -F, "$threadsOf"'
    NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
    function field(name, format) {
      if (!(name in col) || $col[name] == "") return "-"
      return format == "" ? $col[name] : sprintf(format, $col[name])
    }
    {
      printf "| %s | %d | %s | %d | %s | %s | %s | %s | %s | %s | %s | %s |\n",
        $col["set"], $col["n"], $col["implementation"], threadsOf(), field("median_s", "%.3f"),
        field("user_s", "%.3f"), field("sys_s", "%.3f"), field("ratio_to_cgal", "%.2f"),
        field("peak_rss_mib", "%.1f"), field("bytes_per_point", "%d"), field("cells", "%d"),
        field("check", "")
    }' "$csv"
  if [ "$bThreadTable" = 1 ]; then
    echo
    echo "By thread count: wall seconds, the speed-up over the same implementation at one"
    echo "thread, and peak MiB, for the sets that ran at more than one thread count:"
    echo
    awk -F, "$threadsOf"'
      NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
      {
        t = threadsOf() + 0
        key = $col["set"] SUBSEP $col["n"] SUBSEP $col["implementation"]
        if (!(key in seen)) { seen[key] = 1; order[++count] = key }
        if (!(t in isCount)) { isCount[t] = 1; counts[++numCounts] = t }
        wall[key, t] = $col["median_s"]
        peak[key, t] = $col["peak_rss_mib"]
        if (t > 1) multi[$col["set"] SUBSEP $col["n"]] = 1
      }
      END {
        for (i = 2; i <= numCounts; ++i)
          for (j = i; j > 1 && counts[j - 1] > counts[j]; --j) {
            swap = counts[j]; counts[j] = counts[j - 1]; counts[j - 1] = swap
          }
        head = "| set | N | implementation |"; rule = "|---|---:|---|"
        for (i = 1; i <= numCounts; ++i) { head = head " wall s, " counts[i] " |"; rule = rule "---:|" }
        for (i = 1; i <= numCounts; ++i)
          if (counts[i] > 1) { head = head " speed-up, " counts[i] " |"; rule = rule "---:|" }
        for (i = 1; i <= numCounts; ++i) { head = head " peak MiB, " counts[i] " |"; rule = rule "---:|" }
        print head; print rule
        for (k = 1; k <= count; ++k) {
          key = order[k]
          split(key, part, SUBSEP)
          if (!((part[1] SUBSEP part[2]) in multi)) continue
          line = "| " part[1] " | " part[2] " | " part[3] " |"
          for (i = 1; i <= numCounts; ++i)
            line = line " " ((key, counts[i]) in wall ? sprintf("%.3f", wall[key, counts[i]]) : "-") " |"
          for (i = 1; i <= numCounts; ++i) {
            if (counts[i] == 1) continue
            t = counts[i]
            bBoth = (key, 1) in wall && (key, t) in wall && wall[key, t] > 0
            line = line " " (bBoth ? sprintf("%.2f", wall[key, 1] / wall[key, t]) : "-") " |"
          }
          for (i = 1; i <= numCounts; ++i)
            line = line " " ((key, counts[i]) in peak ? sprintf("%.1f", peak[key, counts[i]]) : "-") " |"
          print line
        }
      }' "$csv"
  fi
  if [ "$base" = peers ]; then
    echo
    echo "Time per point over the uniform series at one thread, in microseconds of wall time"
    echo "(the plot's data):"
    echo
    echo "| N | libvelm3d | CGAL | TetGen |"
    echo "|---:|---:|---:|---:|"
    awk -F, "$threadsOf"'
      NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
      $col["set"] == "uniform" && threadsOf() == 1 {
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
  fi
} > "$scratch/$base.md"

outputs=("$base.csv" "$base.md" "$base.run")
if [ "$base" = peers ]; then
  # The plot: time per point over the uniform series at one thread, one line
  # per implementation.
  for impl in libvelm3d CGAL TetGen; do
    awk -F, -v impl="$impl" "$threadsOf"'
      NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
      $col["set"] == "uniform" && $col["implementation"] == impl && threadsOf() == 1 {
        print $col["n"], $col["median_s"] * 1e6 / $col["n"]
      }' \
      "$csv" > "$scratch/series_$impl.dat"
  done
  gnuplot -e "dataDir='$scratch'; outFile='$scratch/time_per_point.png'" "$root/bench/plot_peers.gp"
  outputs+=(time_per_point.png)
fi

# The series is complete: it replaces the recorded results.
for f in "${outputs[@]}"; do mv -f "$scratch/$f" "$results/$f"; done
rm -f "$results/$base.notes"
if [ -s "$notes" ]; then mv -f "$notes" "$results/$base.notes"; fi
echo
cat "$results/$base.md"
if [ "$base" = peers ]; then echo "plot: $results/time_per_point.png"; fi
