#!/usr/bin/env bash
# On a machine with an NVIDIA GPU: builds and runs the kernel-versus-CPU-twin tests and the
# kernel bandwidth benchmark. Usage: scripts/gpu-check.sh [BUILD_DIR] (default build-gpu).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$root/build-gpu}
nvidia-smi -L || echo "nvidia-smi not available" >&2
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build_dir" -j"$(nproc)" --target test_kernels bench_kernels
"$build_dir/tests/test_kernels"
"$build_dir/bench/bench_kernels" --benchmark_counters_tabular=true
