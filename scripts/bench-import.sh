#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Times the import of a 10-minute 48 kHz stereo 24-bit WAV into the library format (44.1 kHz
# mono 16 bit) with our converter and with sox on the same file, and prints the ratio.
#   scripts/bench-import.sh [build folder]   (default: build, a Release build with benchmarks)
# LARIMO_BENCH_SECONDS shortens the file for a quick look.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
seconds=${LARIMO_BENCH_SECONDS:-600}
bench="$build/bench/bench_wave"
if [[ ! -x "$bench" ]]; then
  echo "bench-import: $bench is missing; build it with: cmake --build $build --target bench_wave" >&2
  exit 1
fi
command -v sox >/dev/null || { echo "bench-import: sox is missing (scripts/install-deps.sh)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
input="$work/in.wav"

echo "== Making $seconds s of 48000 Hz stereo 24-bit audio"
sox -n -r 48000 -c 2 -b 24 "$input" synth "$seconds" sine 1000 sine 1500 vol 0.4

echo "== Larimo: read, convert, write"
LARIMO_BENCH_WAV="$input" "$bench" --benchmark_filter='^ImportToLibraryFormat/' \
  --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  --benchmark_out="$work/larimo.json" --benchmark_out_format=json >/dev/null
larimo_ms=$(python3 -c '
import json, sys
runs = json.load(open(sys.argv[1]))["benchmarks"]
print(next(r["real_time"] for r in runs if r.get("aggregate_name") == "median"))
' "$work/larimo.json")
mkdir -p "$build/bench-results"
cp "$work/larimo.json" "$build/bench-results/bench_import_larimo.json"

echo "== sox: the same file, default (high) quality"
sox_runs=()
for _ in 1 2 3; do
  start=$(date +%s%N)
  sox "$input" -r 44100 -c 1 -b 16 "$work/sox.wav"
  end=$(date +%s%N)
  sox_runs+=("$(( (end - start) / 1000000 ))")
done
sox_ms=$(printf '%s\n' "${sox_runs[@]}" | sort -n | sed -n 2p)

python3 - "$larimo_ms" "$sox_ms" "$seconds" <<'EOF'
import sys
larimo, sox, seconds = float(sys.argv[1]), float(sys.argv[2]), float(sys.argv[3])
print(f"larimo: {larimo:9.1f} ms  ({seconds * 1000 / larimo:6.1f} x real time)")
print(f"sox:    {sox:9.1f} ms  ({seconds * 1000 / sox:6.1f} x real time)")
print(f"ratio sox / larimo: {sox / larimo:.2f} (above 1: larimo is faster)")
EOF
