#!/usr/bin/env bash
# Builds the benchmarks in Release and runs each of them; every one prints its figures.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DCHIP_TESTS=OFF -DCHIP_BENCH=ON
cmake --build build/release -j"${JOBS:-2}"
for b in build/release/bench/*/*Bench; do
  [ -x "$b" ] || continue
  echo "== $b"
  "$b" "$@"
done
