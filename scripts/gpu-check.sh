#!/usr/bin/env bash
# On a machine with an NVIDIA GPU: builds and runs the kernel-versus-CPU-twin tests, the kernel
# bandwidth benchmark, hardware decoding of x265 and x264 recordings against ffmpeg's decode,
# and hardware decoding speed against `ffmpeg -hwaccel cuda` (target: vs_ffmpeg >= 0.8).
# Usage: scripts/gpu-check.sh [BUILD_DIR] (default build-gpu). Runs unattended.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$root/build-gpu}
nvidia-smi -L || echo "nvidia-smi not available" >&2
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build_dir" -j"$(nproc)" --target test_gpu_kernels bench_kernels zoqrv test_gpu_decoding \
  bench_hw_decoder
"$build_dir/tests/test_gpu_kernels"
"$build_dir/bench/bench_kernels" --benchmark_counters_tabular=true
# Makes the x265/x264 test recordings on first use; every test skips if no GPU decodes.
"$build_dir/tests/test_gpu_decoding"
bench_data="$build_dir/bench-data"
[ -f "$bench_data/streams.txt" ] || bash "$root/scripts/make-test-data.sh" "$bench_data" "$build_dir/tools/zoqrv" bench
ZOQRV_BENCH_DATA="$bench_data" "$build_dir/bench/bench_hw_decoder" --benchmark_counters_tabular=true
