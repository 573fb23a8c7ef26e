#!/usr/bin/env bash
# Builds the libFuzzer targets in build-fuzz (clang, ASan, UBSan) and runs
# each for a while. A finding leaves its input in build-fuzz/findings/ and
# fails the run.
#   scripts/fuzz.sh              every target for 300 s
#   scripts/fuzz.sh --ci         every target for 20 s (what CI runs)
#   scripts/fuzz.sh -t 3600 probe_fuzzer   one target for an hour
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=300
seed=()
# CI runs from a fixed seed, so a run that finds something finds it again.
[[ ${1:-} == --ci ]] && { seconds=20; seed=(-seed=1); shift; }
[[ ${1:-} == -t ]] && { seconds=$2; shift 2; }
build_dir=${ORVOVTE_FUZZ_BUILD:-build-fuzz}

CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DORVOVTE_FUZZ=ON \
  -DORVOVTE_BUILD_TESTS=OFF -DORVOVTE_BUILD_BENCH=OFF >/dev/null
cmake --build "$build_dir" -j "$(nproc)" --target fuzzers >/dev/null

targets=("$@")
if [[ ${#targets[@]} -eq 0 ]]; then
  for program in "$build_dir"/fuzz/*_fuzzer; do targets+=("$(basename "$program")"); done
fi

# Corpora grow across local runs; an empty one is seeded. The probe's seeds
# are the media the tests generated (.test-media), cut short so that a run
# mutates headers rather than payload; no binary seed is committed.
corpus_root=$build_dir/corpus
findings=$build_dir/findings
mkdir -p "$findings"
unseeded() { mkdir -p "$corpus_root/$1" && [[ -z $(ls -A "$corpus_root/$1") ]]; }
if unseeded probe_fuzzer; then
  while read -r media; do
    head -c 65536 "$media" >"$corpus_root/probe_fuzzer/seed-$(basename "$media")"
  done < <(find .test-media -type f ! -name '.*' -size +0)
  unseeded probe_fuzzer && echo "fuzz: no media in .test-media to seed the probe; run the tests first" >&2
fi
if unseeded machine_file_fuzzer; then
  printf '[{"PID":1,"hardware_transcode":false,"offline_conversion":true}]' \
    >"$corpus_root/machine_file_fuzzer/seed-registry"
  printf '\x10unique\n# comment\nunique="orvo_x86_64"\nmajor=7\n' >"$corpus_root/machine_file_fuzzer/seed-conf"
fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=0
for target in "${targets[@]}"; do
  mkdir -p "$corpus_root/$target"
  echo "fuzz: $target for ${seconds}s"
  if ! "$build_dir/fuzz/$target" "${seed[@]}" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
      -max_len=65536 -print_final_stats=1 -artifact_prefix="$findings/$target-" \
      "$corpus_root/$target" >"$build_dir/$target.log" 2>&1; then
    echo "fuzz: $target FOUND A CRASH (log: $build_dir/$target.log)"
    tail -40 "$build_dir/$target.log"
    failed=1
  else
    grep -E '^stat::number_of_executed_units' "$build_dir/$target.log" || true
  fi
done
exit "$failed"
