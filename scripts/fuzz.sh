#!/usr/bin/env bash
# Builds the libFuzzer harnesses of fuzz/ with clang (library sources instrumented, ASan and
# UBSan) in build-fuzz/ and runs each for SECONDS (default 30) from the seed corpus of
# scripts/make-fuzz-corpus.sh, what earlier runs found and the inputs kept in
# tests/data/fuzz/<harness>/. A crash, leak, timeout, memory
# blow-up or sanitizer report fails the script and prints the input in hex; the input is kept
# in build-fuzz/findings/.
#
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
build=build-fuzz

cmake -S . -B "$build" -DZOQRV_FUZZ=ON -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DZOQRV_BUILD_TESTS=OFF -DZOQRV_BUILD_BENCH=OFF -DZOQRV_CUDA_ARCHITECTURES=75-real >/dev/null
cmake --build "$build" -j"$(nproc)" --target fuzzers zoqrv

# The CUDA runtime maps device memory into the range ASan keeps as its shadow gap.
export ASAN_OPTIONS="protect_shadow_gap=0:${ASAN_OPTIONS:-}"
# libx265's own leaks (the harnesses that record through it).
export LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:${LSAN_OPTIONS:-}"
[ -d "$build/corpus/streams" ] || bash scripts/make-fuzz-corpus.sh "$build/corpus" "$build/tools/zoqrv"

status=0
for harness in "$build"/fuzz/fuzz_*; do
  [ -x "$harness" ] || continue
  name=$(basename "$harness")
  found="$build/found/$name" findings="$build/findings/$name"
  mkdir -p "$found" "$findings"
  # Inputs that once failed this harness are seeds of every run, so each run replays them.
  kept=tests/data/fuzz/$name
  [ -d "$kept" ] || kept=
  # One record may take the decoder's 2 s deadline; a whole input gets 10 s and 512 MB at once.
  if ! "$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=512 \
       -dict=fuzz/qrv.dict -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$findings/" \
       "$found" "$build/corpus/$name" ${kept:+"$kept"} 2>"$build/$name.log"; then
    status=1
    tail -n 60 "$build/$name.log"
    for input in "$findings"/*; do
      echo "== $name: $input"
      xxd "$input" | head -n 256
    done
  fi
  grep -E "^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)|cov: .*ft:" "$build/$name.log" |
    tail -n 4 | sed "s/^/$name: /"
done
exit "$status"
