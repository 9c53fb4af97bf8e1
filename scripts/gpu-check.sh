#!/usr/bin/env bash
# On a machine with an NVIDIA GPU: builds and runs the kernel-versus-CPU-twin tests, the kernel
# bandwidth benchmark, hardware decoding of x265 and x264 recordings against ffmpeg's decode,
# and hardware decoding speed against `ffmpeg -hwaccel cuda` (target: vs_ffmpeg >= 0.8). Where
# NVENC is present it also records 300 frames of each input kind through the C interface
# (zoqrv record), decodes the streams with ffmpeg, checks that the lossless kinds 2-5 come back
# bit for bit, and compares the frame rate with ffmpeg's hevc_nvenc on the same frames.
# Usage: scripts/gpu-check.sh [BUILD_DIR] (default build-gpu). Runs unattended.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$root/build-gpu}
nvidia-smi -L || echo "nvidia-smi not available" >&2
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build_dir" -j"$(nproc)" --target test_kernels test_hw_decoder bench_kernels zoqrv bench_hw_decoder
"$build_dir/tests/test_kernels"
"$build_dir/bench/bench_kernels" --benchmark_counters_tabular=true
# Hardware pipes on the real driver beside the fake-driver ones; makes the x265/x264
# recordings on first use. The GPU cases skip where no GPU decodes.
"$build_dir/tests/test_hw_decoder"
bench_data="$build_dir/bench-data"
[ -f "$bench_data/streams.txt" ] || bash "$root/scripts/make-test-data.sh" "$bench_data" "$build_dir/tools/zoqrv" bench
ZOQRV_BENCH_DATA="$bench_data" "$build_dir/bench/bench_hw_decoder" --benchmark_counters_tabular=true

zoqrv="$build_dir/tools/zoqrv"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
width=640 height=480 frames=300
# Probe: one lossless 8-bit frame. Without NVENC the encoder cannot be created.
head -c $((width * height)) /dev/urandom >"$work/probe.raw"
export ZOQRV_ENCODER=nvenc  # the hardware encoder only: libx265 would stand in for it
if ! "$zoqrv" record --kind u8 --size ${width}x$height --fps 30 --lossless "$work/probe.qrv" "$work/probe.raw" >/dev/null 2>&1; then
  echo "gpu-check: no NVENC encoder here; skipping the recording checks"
  exit 0
fi
command -v ffmpeg >/dev/null || { echo "gpu-check: ffmpeg not found" >&2; exit 1; }

# kind: bytes per sample in the caller's layout ("h" for 4-bit) and NVENC picture width factor
declare -A sample=([0]=4 [1]=2 [2]=h [3]=1 [4]=2 [5]=4) widen=([0]=1 [1]=1 [2]=1 [3]=1 [4]=2 [5]=4)
declare -A name=([0]=bgra [1]=uyvy [2]=u4 [3]=u8 [4]=u16 [5]=u32)
status=0
for kind in 0 1 2 3 4 5; do
  python3 - "$work/in$kind.raw" "$kind" $width $height $frames <<'PY'
import sys, random
path, kind, w, h, n = sys.argv[1], int(sys.argv[2]), *map(int, sys.argv[3:])
size = {0: 4, 1: 2, 3: 1, 4: 2, 5: 4}.get(kind, 0) * w * h or w * h // 2
rng = random.Random(kind)
base = bytes((x ^ rng.randrange(4)) & 0xFF for x in range(size))  # a gradient with noise
with open(path, "wb") as f:
    for i in range(n):  # moving by 3 bytes a frame
        f.write(base[3 * i % size:] + base[:3 * i % size])
PY
  echo "kind $kind:"
  "$zoqrv" record --kind ${name[$kind]} --size ${width}x$height --fps 30 --lossless "$work/k$kind.qrv" "$work/in$kind.raw"
  "$zoqrv" export "$work/k$kind.qrv" "$work/k$kind.hevc" >/dev/null
  picture_width=$((width * ${widen[$kind]}))
  # 4:2:0 as decoded (a conversion to grey would rescale the luma range); the data is the Y plane.
  ffmpeg -nostdin -hide_banner -loglevel error -y -i "$work/k$kind.hevc" -f rawvideo -pix_fmt yuv420p "$work/k$kind.yuv"
  if [ "$kind" -ge 2 ]; then
    python3 - "$work/in$kind.raw" "$work/k$kind.yuv" "$kind" $picture_width $height <<'PY' || status=1
import sys
raw, yuv, kind, w, h = open(sys.argv[1], "rb").read(), open(sys.argv[2], "rb").read(), *map(int, sys.argv[3:])
frame = w * h * 3 // 2
luma = b"".join(yuv[i:i + w * h] for i in range(0, len(yuv), frame))
if kind == 2:  # two samples a byte, the left one in the low nibble
    raw = bytes(v for b in raw for v in (b & 15, b >> 4))
ok = raw == luma
print("  lossless round trip:", "bit for bit" if ok else "MISMATCH (%d vs %d bytes)" % (len(raw), len(luma)))
sys.exit(0 if ok else 1)
PY
  fi
  if [ "$kind" -ge 3 ]; then
    echo "  ffmpeg hevc_nvenc on the same pictures:"
    ffmpeg -nostdin -hide_banner -benchmark -f rawvideo -pix_fmt gray -s ${picture_width}x$height -i "$work/in$kind.raw" \
      -c:v hevc_nvenc -tune lossless -f null - 2>&1 | grep -Eo 'fps= *[0-9.]+' | tail -1 | sed 's/^/    /'
  fi
done
exit $status
