#!/usr/bin/env bash
# Builds, on this machine, the folder that a GPU machine with nothing installed (the NVIDIA driver,
# bash, coreutils and python3 only; no ffmpeg, no libde265, no network) runs the GPU check from:
#
#   scripts/gpu-bundle.sh [BUILD_DIR]     (default build-gpu: Release, every CUDA architecture)
#   ... carry gpu-bundle/ to the GPU machine, then there:  bash gpu-bundle/gpu-check.sh
#
# gpu-bundle/ holds the library, zoqrv, nvenc_probe, the GPU test programs and benchmarks in bin/,
# the shared libraries they load in lib/ (what ldd finds, and libx265/libx264, which are loaded at
# run time) except the C and C++ runtimes and the NVIDIA driver's, the test recordings with
# ffmpeg's decode (data/tests, data/h264), the benchmark recordings and streams (data/bench) and what the
# software decoder's `zoqrv extract` wrote for some of them (data/extract). It fails when the
# folder is over 60 MiB, so that it travels as one carried path.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-gpu}
bundle=gpu-bundle
limit_mib=60

# bin/ name, then its path in the build directory.
programs=(zoqrv tools/zoqrv nvenc_probe tools/nvenc_probe test_kernels tests/test_kernels
          test_gpu_decoder tests/test_gpu_decoder bench_kernels bench/bench_kernels
          bench_hw_decoder bench/bench_hw_decoder)
targets=(zo_qrv64)
for ((i = 0; i < ${#programs[@]}; i += 2)); do targets+=("${programs[i]}"); done
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZOQRV_BUILD_PYTHON=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

rm -rf "$bundle"
mkdir -p "$bundle"/{bin,lib,data}
cp -P "$build"/libzo_qrv64.so* "$bundle/lib/"
for ((i = 0; i < ${#programs[@]}; i += 2)); do
  cp "$build/${programs[i + 1]}" "$bundle/bin/${programs[i]}"
done
cp scripts/gpu-check.sh "$bundle/"

# Shared libraries: the glibc family, the C++ runtime and the driver's come from the GPU machine;
# libavcodec is left out (its dependencies are about 130 MB), so what needs it skips there.
not_carried='^(linux-vdso|ld-linux|libc|libm|libdl|libpthread|librt|libresolv|libstdc\+\+|libgcc_s|libcuda|libnvcuvid|libnvidia-|libavcodec)\.'
run_time_loaded=(libx265.so.199 libx264.so.164)
libraries=()
for soname in "${run_time_loaded[@]}"; do
  path=$(ldconfig -p | awk -v n="$soname" '$1 == n && /x86-64/ { print $NF; exit }')
  if [ -n "$path" ]; then libraries+=("$path"); else echo "gpu-bundle: $soname not here; left out"; fi
done
for file in "$bundle"/bin/* "$bundle"/lib/libzo_qrv64.so.1 "${libraries[@]}"; do
  ldd "$file" | awk '$2 == "=>" && $3 ~ /^\// { print $1, $3 }'
done | sort -u | while read -r soname path; do
  [[ $soname =~ $not_carried ]] || cp -L "$path" "$bundle/lib/$soname"
done
for path in "${libraries[@]}"; do cp -L "$path" "$bundle/lib/"; done
strip --strip-unneeded "$bundle"/bin/* "$bundle"/lib/*.so.* 2>/dev/null || true

# Recordings and references, made here with ffmpeg, x265 and x264.
zoqrv="$build/tools/zoqrv"
for set in tests h264 bench; do
  made="$build/gpu-data/$set"
  [ -f "$made/streams.txt" ] || bash scripts/make-test-data.sh "$made" "$zoqrv" "$set" >/dev/null
  mkdir -p "$bundle/data/$set"
  cp "$made/streams.txt" "$made"/*.qrv "$bundle/data/$set/"
  # ffmpeg's decode for the tests, the elementary streams for the benchmark's ffmpeg baseline.
  if [ "$set" = bench ]; then cp "$made"/*.hevc "$bundle/data/$set/"; else cp "$made"/*.yuv "$bundle/data/$set/"; fi
done
# What the software decoder's extract writes (file sums and lines), for the same command on NVDEC.
# Each line of extract.txt: the recording, then extract's options.
{
  echo "gop5_200x120"
  for kind in bgra uyvy u4 u8 u16 u32; do echo "gop5_200x120 --as $kind"; done
  echo "gop5_200x120 --as u16 --raw"
  echo "gop5_200x120 --as u8 --from 3 --count 6"
  echo "gop4_198x118"
  echo "wpp_640x480 --as u8"
} >"$bundle/data/extract.txt"
# Made as gpu-check.sh runs it, from a folder beside tests/, so that the lines match. The software
# decoder: CUDA_VISIBLE_DEVICES=-1 hides any GPU of this machine.
made=$(mktemp -d)
trap 'rm -rf "$made"' EXIT
ln -s "$PWD/$bundle/data/tests" "$made/tests"
number=0
while read -r name options; do
  number=$((number + 1))
  mkdir -p "$made/$number" "$bundle/data/extract/$number"
  # shellcheck disable=SC2086  # the options are words
  (cd "$made/$number" && CUDA_VISIBLE_DEVICES=-1 "$OLDPWD/$zoqrv" extract ../tests/$name.qrv --out out $options >lines.txt &&
   sha256sum out/* >sums.txt)
  cp "$made/$number/lines.txt" "$made/$number/sums.txt" "$bundle/data/extract/$number/"
done <"$bundle/data/extract.txt"

size_kib=$(du -sk "$bundle" | cut -f1)
echo "gpu-bundle: $bundle is $((size_kib / 1024)) MiB"
if [ "$size_kib" -gt $((limit_mib * 1024)) ]; then
  echo "gpu-bundle: over $limit_mib MiB" >&2
  exit 1
fi
