#!/usr/bin/env bash
# Output digests: runs the sample models of tests/data, a generated height
# field and, when named, further models (the dragon) through every method at
# fixed tolerances, and prints one line per run: the sha256 of the output file
# (of the solid file for -s runs, "failed" for a run that ends in 255), the
# model, the method and the tolerance. Two builds are compared by diffing
# their lists:
#
#   bench/digests.sh > before.txt; (change, build) bench/digests.sh > after.txt
#   diff before.txt after.txt
#
#   bench/digests.sh [MODEL:TOLERANCE...]
#
# Environment: FACETTRIM and DRIVERS_BENCH name the programs (default
# build/FacetTrim and build/bench/drivers_bench), FIELD_FACETS the height
# field's size (default 100000, 0 for none). Scratch files go to a new folder
# under /tmp and are deleted at the end.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
trim=${FACETTRIM:-$repo/build/FacetTrim}
gen=${DRIVERS_BENCH:-$repo/build/bench/drivers_bench}
field=${FIELD_FACETS:-100000}
case ${1:-} in -h|--help) sed -n '2,17p' "$0"; exit 0 ;; esac
[ -x "$trim" ] && [ -x "$gen" ] || { echo "digests.sh: build first (FacetTrim, drivers_bench)" >&2; exit 2; }

work=$(mktemp -d /tmp/facettrim-digests.XXXXXX)
trap 'rm -rf "$work"' EXIT

# One run: digest of the file it writes, or "failed".
run() {
  local model=$1 label=$2 method=$3 tolerance=$4 extra=${5:-}
  rm -f "$work/out.stl" "$work/solid.stl"
  local digest=failed
  if "$trim" "$model" "$method" "-t$tolerance" -o"$work/out.stl" $extra > /dev/null 2>&1; then
    local file=$work/out.stl
    [ -z "$extra" ] || file=$work/solid.stl
    digest=$(sha256sum < "$file" | cut -c1-64)
  fi
  printf '%s  %s %s -t%s%s\n' "$digest" "$label" "$method" "$tolerance" "${extra:+ -s}"
}

for model in "$repo"/tests/data/*.stl; do
  name=$(basename "$model")
  for tolerance in 0.01 0.1 1; do
    for method in -ql -qm -qh; do
      run "$model" "$name" "$method" "$tolerance"
    done
  done
  run "$model" "$name" -qm 0.1 "-s$work/solid.stl"
done

if [ "$field" -gt 0 ]; then
  "$gen" gen "$work/field.stl" "$field"
  for tolerance in 0 1e-5; do
    for method in -ql -qm -qh; do
      run "$work/field.stl" "field-$field" "$method" "$tolerance"
    done
  done
  rm -f "$work/field.stl"
fi

for spec in "$@"; do
  model=${spec%:*}
  tolerance=${spec##*:}
  for method in -ql -qm -qh; do
    run "$model" "$(basename "$model")" "$method" "$tolerance"
  done
done
