#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build/fuzz and runs each one for
# a set time, starting from the committed seed corpus.
# Usage: fuzz/run.sh [seconds per target, default 60] [target ...]
# Targets: readxyz readstl triangulation (default: all three, one after the
# other). A finding stops that target, leaves the input in
# build/fuzz/artifacts/ and makes the script exit non-zero after the rest ran.
# The corpus grown by a run stays in build/fuzz/corpus/<target>; only the
# seeds in fuzz/corpus are committed. Installs clang and libFuzzer where they
# are missing (root on a Debian machine); VELM3D_WERROR=ON in the
# environment turns compiler warnings into errors.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(readxyz readstl triangulation)

bash scripts/install_deps.sh fuzz

out=build/fuzz
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
[ -f "$out/CMakeCache.txt" ] && generator=()
CXX=clang++ cmake -S fuzz -B "$out" "${generator[@]}" -DCMAKE_BUILD_TYPE=Release \
  -DVELM3D_WERROR="${VELM3D_WERROR:-OFF}" >/dev/null
cmake --build "$out" -j"$(nproc)"

# The exact sphere test keeps about 210 KB of scratch on the stack, more
# under ASan's red zones.
ulimit -s 65536 2>/dev/null || true
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

status=0
for t in "${targets[@]}"; do
  case $t in
    triangulation) maxLen=292 ;; # four header bytes and 96 points
    *) maxLen=4096 ;;
  esac
  mkdir -p "$out/corpus/$t" "$out/artifacts"
  log=$out/$t.log
  echo "fuzz_$t: ${seconds} s"
  if "$out/fuzz_$t" "$out/corpus/$t" "fuzz/corpus/$t" -max_total_time="$seconds" -max_len="$maxLen" \
      -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$out/artifacts/$t-" >"$log" 2>&1; then
    grep -E '^Done [0-9]+ runs' "$log" || true
    grep -E 'stat::(number_of_executed_units|new_units_added|peak_rss_mb)' "$log" || true
  else
    echo "fuzz_$t: FINDING (log $log)" >&2
    grep -E 'ERROR|FUZZ CHECK FAILED|runtime error|Test unit written' "$log" >&2 || tail -20 "$log" >&2
    status=1
  fi
done
exit $status
