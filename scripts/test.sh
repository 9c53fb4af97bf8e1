#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
#   scripts/test.sh             release build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer build in build-sanitize/
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
# Tests are switched on whatever an earlier configuration of the directory chose.
options=(-DZOQRV_BUILD_TESTS=ON)
if [ "${1:-}" = "--sanitize" ]; then
  build=build-sanitize
  # Device code is not instrumented, so one architecture is enough here.
  options+=(-DZOQRV_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug -DZOQRV_BUILD_BENCH=OFF
           -DZOQRV_CUDA_ARCHITECTURES=75-real)
  # The CUDA runtime maps device memory into the range ASan keeps as its shadow gap.
  export ASAN_OPTIONS="protect_shadow_gap=0:detect_leaks=1:${ASAN_OPTIONS:-}"
  export LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:${LSAN_OPTIONS:-}"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
fi

bash scripts/install-deps.sh
cmake -S . -B "$build" "${options[@]}"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure --no-tests=error -j"$(nproc)"
