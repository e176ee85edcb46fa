#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a given number of seconds each,
# starting from its seed corpus. New inputs go to a scratch folder, so the
# committed corpus only changes by hand.
#   fuzz/run.sh BUILD_DIR SECONDS
set -euo pipefail
build=${1:?build directory}
seconds=${2:-60}
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

for target in "$build"/fuzz/*_fuzz; do
  [ -x "$target" ] || continue
  name=$(basename "$target" _fuzz)   # stl_read_fuzz -> stl_read
  seeds="$here/corpus/${name%%_*}"   # corpus/stl
  mkdir -p "$scratch/$name"
  echo "-- $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -max_len=8192 -print_final_stats=1 \
    "$scratch/$name" "$seeds" 2>&1 | tail -n 12
done
