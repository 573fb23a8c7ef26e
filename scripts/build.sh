#!/usr/bin/env bash
# Configures and builds into build/ (or build-sanitize/ with --sanitize).
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=build
options=()
if [[ ${1:-} == --sanitize ]]; then
  build_dir=build-sanitize
  options+=(-DORVOVTE_SANITIZE=ON -DORVOVTE_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
fi

cmake -S . -B "$build_dir" "${options[@]}" >/dev/null
cmake --build "$build_dir" -j "$(nproc)"
