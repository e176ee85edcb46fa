#!/usr/bin/env bash
# Times the STL readers on generated files in /tmp: the scan, the block load
# with the pointer sort (in-memory route) and the key read with the key sort
# (streamed route), for a 10,000,000-facet binary file and a 1,000,000-facet
# ASCII file. Median of 3 runs. The files are deleted at the end.
#
#   bench/stl.sh [build-dir]        (default: build-stl, a Release build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-stl}
cmake --build "$build" -j2 --target stl_bench >/dev/null
bench=$build/bench/stl_bench

work=$(mktemp -d /tmp/ft_stl_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT

"$bench" gen-binary "$work/binary.stl" 10000000
"$bench" gen-ascii "$work/ascii.stl" 1000000

printf '%-7s %-5s %11s %9s %9s %12s %9s %10s\n' \
  file op facets MB seconds facets/s MB/s peakRSS_MB
for file in binary ascii; do
  for op in scan load keys; do
    for run in 1 2 3; do
      "$bench" "$op" "$work/$file.stl"
    done | sort -n | sed -n 2p | awk -v file="$file" -v op="$op" '{
      mb = $3 / 1e6
      printf "%-7s %-5s %11d %9.1f %9.3f %12.0f %9.1f %10.1f\n", file, op, $2, mb, $1, $2 / $1, mb / $1, $4 / 1024
    }'
  done
done
