#!/usr/bin/env bash
# Installs what is missing, checks that no module includes another's detail/ headers, builds
# everything and runs every test: the unit tests under AddressSanitizer and
# UndefinedBehaviorSanitizer and the fault injection against a live host, then a Release build
# of the benchmarks and tools so that they keep compiling.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs="${JOBS:-2}"
scripts/check-structure.sh

cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCHIP_SANITIZE=ON
cmake --build build/asan -j"$jobs"
ctest --test-dir build/asan -j"$jobs" --output-on-failure --timeout 600
# Damage to a live host's segments under churn, a few rounds of each kind.
FLASHLOG_DISABLE=1 timeout 300 build/asan/SliceSystem/SliceFaultInjection --rounds 2

cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DCHIP_TESTS=OFF -DCHIP_BENCH=ON
cmake --build build/release -j"$jobs"
