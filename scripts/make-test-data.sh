#!/usr/bin/env bash
# Makes HEVC test streams with x265 (H.264 ones with ffmpeg's libx264), wraps them into QRV files with `zoqrv import` and
# decodes them with ffmpeg's HEVC decoder into raw YUV 4:2:0 references.
#
#   scripts/make-test-data.sh OUT_DIR [ZOQRV] [SET]
#
# ZOQRV is the zoqrv tool (default build/tools/zoqrv); SET is "tests" (default, small
# streams), "h264" (small H.264 streams from x264) or "bench" (640x480 and 1920x1080, HEVC and
# H.264). Streams whose NAME starts with h264 come from x264. For every stream NAME it writes
# NAME.hevc (or NAME.h264), NAME.qrv and (except for "bench") NAME.yuv, and lists "NAME WIDTH HEIGHT FRAMES KEYINT" in
# OUT_DIR/streams.txt, which is written last.
#
# The streams suit record-by-record decoding: every IDR frame repeats the parameter sets,
# GOPs are closed, there are no B-frames, and IDR frames come every KEYINT frames. For
# H.264 the references are NAME.yuv as well.
set -euo pipefail

out=${1:?usage: make-test-data.sh OUT_DIR [ZOQRV] [SET]}
zoqrv=${2:-build/tools/zoqrv}
set_name=${3:-tests}

tools=(ffmpeg "$zoqrv")
[ "$set_name" = h264 ] || tools+=(x265)
for tool in "${tools[@]}"; do
  command -v "$tool" >/dev/null || { echo "make-test-data: $tool not found" >&2; exit 2; }
done

mkdir -p "$out"
rm -f "$out/streams.txt"

# encode NAME WIDTH HEIGHT FRAMES KEYINT [x265 options...]: the elementary stream of NAME.
encode() {
  local name=$1 width=$2 height=$3 frames=$4 keyint=$5
  shift 5
  # testsrc2 moves every frame, so P-frames carry real motion and residuals.
  ffmpeg -nostdin -hide_banner -loglevel error -y \
    -f lavfi -i "testsrc2=size=${width}x${height}:rate=25" -frames:v "$frames" \
    -pix_fmt yuv420p -f yuv4mpegpipe - |
    if [[ $name == h264* ]]; then
      # Raw H.264 output has no global header, so libx264 repeats SPS and PPS at every IDR.
      ffmpeg -nostdin -hide_banner -loglevel error -y -f yuv4mpegpipe -i - -c:v libx264 -preset fast \
        -g "$keyint" -keyint_min "$keyint" -sc_threshold 0 -bf 0 "$@" -f h264 "$out/$name.h264"
    else
      x265 --y4m --input - --preset fast --log-level error --no-progress \
        --keyint "$keyint" --min-keyint "$keyint" --no-scenecut --no-open-gop \
        --bframes 0 --repeat-headers "$@" --output "$out/$name.hevc"
    fi
}

# make NAME WIDTH HEIGHT FRAMES KEYINT [encoder options...]
make() {
  local name=$1 width=$2 height=$3 frames=$4 keyint=$5
  local stream="$out/$name.hevc"
  [[ $name == h264* ]] && stream="$out/$name.h264"
  encode "$@"
  # A client header lies before the first record, as in recordings.
  "$zoqrv" import "$stream" "$out/$name.qrv" --fps 25 --header 16 >/dev/null
  if [ "$set_name" != bench ]; then
    ffmpeg -nostdin -hide_banner -loglevel error -y -i "$stream" \
      -fps_mode passthrough -pix_fmt yuv420p -f rawvideo "$out/$name.yuv"
  fi
  echo "$name $width $height $frames $keyint" >>"$out/streams.tmp"
}

rm -f "$out/streams.tmp"
case "$set_name" in
  tests)
    # 200 is not a multiple of 16 (libde265 pads its rows to 208); 208 is; 198x118 is
    # cropped by the conformance window.
    make gop5_200x120 200 120 12 5
    make gop3_208x120 208 120 7 3
    make gop4_198x118 198 118 6 4
    make single_200x120 200 120 1 1
    # Slice decoding is spread over libde265's worker threads only with WPP or tiles.
    make wpp_640x480 640 480 8 4 --wpp
    make nowpp_640x480 640 480 8 4 --no-wpp
    ;;
  h264)
    # Coded in 16 x 16 macroblocks, so both are cropped from a larger coded picture.
    make h264_gop5_200x120 200 120 12 5
    make h264_gop4_198x118 198 118 6 4
    ;;
  bench)
    make bench_640x480 640 480 120 30
    make bench_1920x1080 1920 1080 60 30
    make h264_bench_640x480 640 480 120 30
    make h264_bench_1920x1080 1920 1080 60 30
    make h264_lossless_bench_640x480 640 480 60 30 -qp 0
    ;;
  *) echo "make-test-data: unknown set $set_name" >&2; exit 2 ;;
esac
mv "$out/streams.tmp" "$out/streams.txt"
