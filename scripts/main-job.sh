#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds, records an x265 HEVC
# stream into a QRV file, shows its records and decodes some of them through the library's
# software decoder into PNG pictures.
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

mkdir -p out
# Ten seconds of a moving test picture at 640x480, an IDR frame every second.
ffmpeg -nostdin -hide_banner -loglevel error -y \
  -f lavfi -i testsrc2=size=640x480:rate=25 -frames:v 250 -pix_fmt yuv420p -f yuv4mpegpipe - |
  x265 --y4m --input - --preset fast --log-level error --no-progress \
    --keyint 25 --min-keyint 25 --no-scenecut --no-open-gop --bframes 0 --repeat-headers \
    --output out/stream.hevc
"$build/tools/zoqrv" import out/stream.hevc out/recording.qrv --fps 25 --header 16
"$build/tools/zoqrv" info out/recording.qrv
rm -rf out/frames
# From the middle of the second GOP: decoding starts at its key frame.
"$build/tools/zoqrv" extract out/recording.qrv --out out/frames --from 30 --count 10

echo
echo "Done. Look at out/frames/frame_*.png: ten consecutive pictures of the test pattern,"
echo "frames 31 to 40, whose clock reads 00:00:01.200 to 00:00:01.560 in steps of 0.040."
