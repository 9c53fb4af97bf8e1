#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds, then records two synthetic
# sequences through the recording API (zoqrv record: HEVC on NVENC where there is one, else
# H.264 with libx264; it prints which) and plays them back (zoqrv extract: NVDEC where it
# decodes them, else software):
#   - 16-bit depth, 640x480, lossless (the default for data kinds): checked to come back bit for bit;
#   - a colour test picture (BGRA), 640x480, CBR at 4 Mbit/s: its PSNR is printed.
# The played-back frames are left as PNGs under out/.
#
#   scripts/main-job.sh [BUILD_DIR]    (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

scripts/install-deps.sh
# The build directory is shared with scripts/test.sh: its options are left as they are, and
# only the library and the tool are built here.
cmake -S . -B "$build"
cmake --build "$build" --target zo_qrv64 zoqrv -j"$(nproc)"
zoqrv="$build/tools/zoqrv"
ff=(ffmpeg -nostdin -hide_banner -loglevel error -y)

mkdir -p out
rm -rf out/depth out/colour
# Depth in millimetres: a tilted floor 1-4 m away with a wave running over it.
"${ff[@]}" -f lavfi -i "color=black:size=640x480:rate=30,format=gray16le" -frames:v 60 \
  -vf "geq=lum='1000+4*Y+300*sin(X/40+N/5)'" -f rawvideo -pix_fmt gray16le out/depth.raw
"$zoqrv" record --kind u16 --size 640x480 --fps 30 --force out/depth.qrv out/depth.raw
"$zoqrv" info out/depth.qrv
"$zoqrv" extract out/depth.qrv --out out/depth >/dev/null
"${ff[@]}" -i out/depth/frame_%06d.png -f rawvideo -pix_fmt gray16le out/depth.back
if cmp -s out/depth.raw out/depth.back; then
  echo "depth: 60 frames came back bit for bit"
else
  echo "depth: MISMATCH after playback" >&2
  exit 1
fi

"${ff[@]}" -f lavfi -i testsrc2=size=640x480:rate=30 -frames:v 60 -f rawvideo -pix_fmt bgra out/colour.raw
"$zoqrv" record --kind bgra --size 640x480 --fps 30 --bitrate 4000000 --force out/colour.qrv out/colour.raw
"$zoqrv" extract out/colour.qrv --out out/colour >/dev/null
psnr=$("${ff[@]}" -loglevel info -f rawvideo -pix_fmt bgra -s 640x480 -i out/colour.raw -i out/colour/frame_%06d.png \
  -lavfi "[0]format=rgb24[a];[1]format=rgb24[b];[a][b]psnr" -f null - 2>&1 | grep -o 'average:[0-9.inf]*')
echo "colour: PSNR of the played-back pictures, $psnr dB"

echo
echo "Done. Look at out/depth/frame_*.png (16-bit grey millimetres, 700 to 3200, so dark in a"
echo "viewer: a floor that recedes downwards with a wave moving across it) and out/colour/frame_*.png"
echo "(the moving test picture: its clock counts 00:00:00.000 to 00:00:01.967)."
