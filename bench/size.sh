#!/usr/bin/env bash
# Size benchmark: generates wavy height fields of the given facet counts into
# /tmp (never into the repository), reduces each through a block method and
# prints one table: file size, wall and processor time, input facets per
# second, peak resident memory and bytes of it per facet. Each file is deleted
# after its run, so the disk must hold one input and one output at a time
# (about 100 bytes per facet).
#
#   bench/size.sh [-qm|-ql] [-t<tolerance>] COUNT...
#
# Defaults: -qm and -t1e-5. The field is smooth on a unit grid, so at 1e-5 the
# engine tries every vertex and keeps nearly all of them: the run measures the
# route (scan, sort, fetch, assembly, a refused trial per vertex, writing) at
# its full size. 10,000,000 facets and more take the streamed route; 90,000,000
# make a binary file above 4 GiB. Environment: FACETTRIM and DRIVERS_BENCH name
# the programs (default build/FacetTrim and build/bench/drivers_bench),
# SIZE_DIR the scratch folder (default a new folder under /tmp).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
trim=${FACETTRIM:-$repo/build/FacetTrim}
gen=${DRIVERS_BENCH:-$repo/build/bench/drivers_bench}
method=-qm
tolerance=-t1e-5
counts=()
for arg in "$@"; do
  case $arg in
    -qm|-ql) method=$arg ;;
    -t*) tolerance=$arg ;;
    -h|--help) sed -n '2,18p' "$0"; exit 0 ;;
    -*) echo "size.sh: unknown option $arg" >&2; exit 2 ;;
    *) counts+=("$arg") ;;
  esac
done
[ ${#counts[@]} -gt 0 ] || { echo "usage: bench/size.sh [-qm|-ql] [-t<tolerance>] COUNT..." >&2; exit 2; }
[ -x "$trim" ] && [ -x "$gen" ] || { echo "size.sh: build first (FacetTrim, drivers_bench)" >&2; exit 2; }
[ -x /usr/bin/time ] || { echo "size.sh: /usr/bin/time is needed for peak memory" >&2; exit 2; }

work=${SIZE_DIR:-$(mktemp -d /tmp/facettrim-size.XXXXXX)}
mkdir -p "$work"
trap 'rm -f "$work/field.stl" "$work/out.stl" "$work/out.log"' EXIT

printf '| facets | file bytes | method | wall s | cpu s | facets/s (wall) | peak RSS MB | RSS bytes/facet | kept %% |\n'
printf '|---|---|---|---|---|---|---|---|---|\n'
for count in "${counts[@]}"; do
  "$gen" gen "$work/field.stl" "$count"
  facets=$(od -An -t u4 -j 80 -N 4 "$work/field.stl" | tr -d ' ')
  bytes=$(stat -c %s "$work/field.stl")
  /usr/bin/time -f '%e %U %S %M' -o "$work/time.txt" \
    "$trim" "$work/field.stl" "$method" "$tolerance" -o"$work/out.stl" >/dev/null
  read -r wall user sys peak < "$work/time.txt"
  kept=$(od -An -t u4 -j 80 -N 4 "$work/out.stl" | tr -d ' ')
  awk -v n="$facets" -v b="$bytes" -v m="$method" -v w="$wall" -v u="$user" -v s="$sys" \
      -v p="$peak" -v k="$kept" 'BEGIN {
    printf "| %d | %.0f | %s | %.1f | %.1f | %.0f | %.0f | %.0f | %.2f |\n",
           n, b, m, w, u + s, n / w, p / 1024, p * 1024 / n, 100 * k / n }'
  rm -f "$work/field.stl" "$work/out.stl" "$work/out.log"
done
