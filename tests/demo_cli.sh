#!/usr/bin/env bash
# velm3d-demo's command line: the output files of a small run agree with its
# report, and every bad argument or input gives exit status 2 with exactly
# one line on stderr. Usage: demo_cli.sh path/to/velm3d-demo
set -u
demo=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail=0
check() { echo "FAIL: $*" >&2; fail=1; }
field() { awk -v k="$1" '$1 == k { print $2 }' <<<"$2"; }

out=$("$demo" --points 500 --seed 7 --vtk "$dir/m.vtk" --geomview "$dir/m.list") || check "small run: exit $?"
tets=$(field tetrahedra "$out")
# The file's POINTS, CELLS and tetra cell types against the report.
[ "$(awk '$1 == "POINTS" || $1 == "CELLS" { print $2 }' "$dir/m.vtk") $(grep -c '^10$' "$dir/m.vtk")" = \
  "$(field vertices "$out")"$'\n'"$tets $tets" ] && [ "${tets:-0}" -gt 0 ] || check "vtk differs from: $out"
grep -q '^LIST' "$dir/m.list" && grep -q 'validity *OK' <<<"$out" || check "geomview frame or validity: $out"

# Duplicates collapse: five points, four vertices, one tetrahedron.
echo "0 0 0  1 0 0  0 1 0  0 0 1  0 0 0" >"$dir/dup.xyz"
out=$("$demo" --xyz "$dir/dup.xyz") || check "xyz run: exit $?"
[ "$(field vertices "$out") $(field tetrahedra "$out")" = "4 1" ] || check "xyz run: $out"
[ "$(field vertices "$("$demo" --grid 4 --no-check)")" = 64 ] || check "grid run: vertices"
# Any finite magnitude is input: huge, tiny and subnormal coordinates in one set.
printf '0 0 0\n1e300 0 0\n0 1e-300 0\n0 0 4.9e-324\n1 1 1\n-1e250 3 1e-200\n' >"$dir/wide.xyz"
"$demo" --xyz "$dir/wide.xyz" | grep -q 'validity *OK' || check "wide run: validity"
"$demo" --help | grep -q '^usage: velm3d-demo' || check "--help"

bad() {
  "$demo" "$@" >"$dir/out" 2>"$dir/err"
  local rc=$? lines
  lines=$(wc -l <"$dir/err")
  { [ $rc = 2 ] && [ "$lines" = 1 ] && grep -q '^velm3d-demo: ' "$dir/err" && [ ! -s "$dir/out" ]; } ||
    check "$* -> exit $rc, $lines line(s): $(cat "$dir/err")"
}
for f in 'nan:1 2 3\n4 5 nan\n' 'four:1 2 3 4\n' 'overflow:1 2 3\n4 1e999 6\n' 'empty:'; do
  printf "${f#*:}" >"$dir/${f%%:*}.xyz"
done
# Each argument list below is split at blanks (the temporary paths have none).
for args in --points "--points abc" "--points 0" "--grid 1000" "--seed 0" --frobnicate \
  "--grid 3 --points 10" "--grid 3 --seed 2" "--xyz $dir/missing.xyz" "--xyz $dir" "--xyz $dir/nan.xyz" \
  "--xyz $dir/four.xyz" "--xyz $dir/overflow.xyz" "--xyz $dir/empty.xyz" "--xyz $dir/dup.xyz --vtk $dir/dup.xyz" \
  "--points 10 --vtk $dir/no/such/dir/m.vtk" "--points 10 --geomview $dir/no/such/dir/m.list"; do
  bad $args
done
exit $fail
