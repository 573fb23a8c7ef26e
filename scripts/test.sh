#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
# With --sanitize: the same suite under AddressSanitizer and UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
scripts/build.sh "$@"

build_dir=build
selection=()
if [[ ${1:-} == --sanitize ]]; then
  build_dir=build-sanitize
  # The unit tests beside the code; the end-to-end suites run in the plain
  # build, where their timing means something.
  selection=(-LE '^(system_tests|launcher_tests|browser)$')
fi
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)" "${selection[@]}"
