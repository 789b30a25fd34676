#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what is missing, builds Larimo three ways and runs every test:
#   build-asan/  the tests under AddressSanitizer and UndefinedBehaviorSanitizer (CTest)
#   build/       the release build with the staged app folder and the benchmarks
#   build-fuzz/  the libFuzzer targets (clang), each run briefly
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/install-deps.sh

fuzz_seconds=${LARIMO_FUZZ_SECONDS:-15}

echo "== Release build and app folder (build/)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DLARIMO_BUILD_TESTS=OFF -DLARIMO_BUILD_BENCH=ON >/dev/null
cmake --build build

echo "== Benchmarks (results in build/bench-results/)"
mkdir -p build/bench-results
for bench in build/bench/bench_*; do
  [[ -x "$bench" ]] || continue
  name=$(basename "$bench")
  "$bench" --benchmark_min_time=0.2 \
    --benchmark_out="build/bench-results/$name.json" --benchmark_out_format=json
done

echo "== Fuzz targets, ${fuzz_seconds}s each (build-fuzz/)"
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DLARIMO_BUILD_FUZZ=ON -DLARIMO_BUILD_TESTS=OFF -DLARIMO_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz
for fuzzer in build-fuzz/fuzz/fuzz_*; do
  [[ -x "$fuzzer" ]] || continue
  name=$(basename "$fuzzer")
  corpus="build-fuzz/corpus/$name"
  mkdir -p "$corpus"
  seeds=()
  [[ -d "fuzz/corpus/$name" ]] && seeds=("$root/fuzz/corpus/$name")
  log="build-fuzz/$name.log"
  if ! "$fuzzer" -max_total_time="$fuzz_seconds" -print_final_stats=1 -artifact_prefix=build-fuzz/ "$corpus" "${seeds[@]}" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "fuzz target $name found a fault (crash input in build-fuzz/)" >&2
    exit 1
  fi
  echo "$name: $(grep -m1 'stat::number_of_executed_units' "$log" | awk '{print $2}') runs, no fault"
done

echo "== Tests under ASan and UBSan (build-asan/)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLARIMO_SANITIZE=ON \
  -DLARIMO_BUILD_BENCH=OFF >/dev/null
cmake --build build-asan
ctest --test-dir build-asan --output-on-failure -j "$(nproc)" ${LARIMO_CTEST_ARGS:-}
