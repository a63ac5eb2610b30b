#!/usr/bin/env bash
# The main job: builds the tools in Release and runs the demo, the agent host and the
# publishers as separate processes over shared tables on a fresh root. Arguments go to the
# demo (slicedemo --help lists them; --in-process runs everything in one process).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DCHIP_TESTS=OFF -DCHIP_BENCH=ON \
  >/dev/null
cmake --build build/release -j"${JOBS:-2}" --target slicedemo slicehost slicepub
# The host's binary trace goes to build/traces/ChipSlice-mbbslice.qt (tools/flashlogdecode reads it).
mkdir -p build/traces
export FLASHLOGDIR="${FLASHLOGDIR:-$PWD/build/traces}"
exec build/release/tools/slicedemo/slicedemo "$@"
