#!/usr/bin/env bash
# Makes the fuzzers' seed inputs from real recordings: x265 and x264 streams (through ffmpeg)
# at ordinary, odd and the smallest sizes, a one-record file and a file of many short GOPs, each wrapped
# into a QRV file by `zoqrv import`.
#
#   scripts/make-fuzz-corpus.sh OUT_DIR [ZOQRV]
#
# OUT_DIR/<harness>/ receives the seeds of each harness in fuzz/ (see the input layout at the
# top of each harness); OUT_DIR/streams/ keeps the streams and QRV files they come from. The
# seek-stress and allocation-failure harnesses record their file themselves; their seeds are
# call scripts.
set -euo pipefail

out=${1:?usage: make-fuzz-corpus.sh OUT_DIR [ZOQRV]}
zoqrv=${2:-build/tools/zoqrv}
for tool in ffmpeg python3 "$zoqrv"; do
  command -v "$tool" >/dev/null || { echo "make-fuzz-corpus: $tool not found" >&2; exit 2; }
done
streams="$out/streams"
mkdir -p "$streams" "$out"/fuzz_{qrv_file,qrv_file_hw,qrv_scan,sw_payload,annexb_zoqrv,seek_stress,allocation_failure,recording_reader}

# seed NAME CODEC WIDTH HEIGHT FRAMES KEYINT [libx264 options...]: NAME.hevc or NAME.h264 and NAME.qrv.
seed() {
  local name=$1 codec=$2 width=$3 height=$4 frames=$5 keyint=$6
  shift 6
  local stream="$streams/$name.$codec"
  local encoder=(-c:v libx264 -preset ultrafast -g "$keyint" -keyint_min "$keyint" -sc_threshold 0 -bf 0 "$@" -f h264)
  # 16 x 16 coding tree units: x265 needs a picture of at least one.
  [ "$codec" = hevc ] && encoder=(-c:v libx265 -preset ultrafast -f hevc -x265-params
    "log-level=error:info=0:ctu=16:min-cu-size=8:keyint=$keyint:min-keyint=$keyint:scenecut=0:bframes=0:repeat-headers=1")
  ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "testsrc2=size=${width}x${height}:rate=25" \
    -frames:v "$frames" -pix_fmt yuv420p "${encoder[@]}" "$stream"
  "$zoqrv" import "$stream" "$streams/$name.qrv" --fps 25 --header 16 >/dev/null
  echo "$name $width $height"
}

{
  seed hevc_64x48 hevc 64 48 6 3
  seed hevc_odd_33x17 hevc 33 17 4 2
  seed hevc_tiny_16x16 hevc 16 16 3 3
  seed hevc_one_record hevc 64 48 1 1
  seed hevc_many_gops hevc 32 32 24 2
  seed hevc_200x120 hevc 200 120 5 5
  seed h264_64x48 h264 64 48 6 3
  seed h264_odd_35x19 h264 35 19 3 3
  # Lossless: High 4:4:4 Predictive, which hardware pipes decode on the CPU.
  seed h264_lossless_48x32 h264 48 32 4 2 -qp 0
} >"$streams/list.txt"

# Each harness's input: the pipe size (width - 1 and height - 1 as u16) before the data.
python3 - "$out" <<'PY'
import struct, sys, pathlib
out = pathlib.Path(sys.argv[1]); streams = out / "streams"
def records(qrv):
    data = qrv.read_bytes()
    count = struct.unpack_from("<I", data, len(data) - 4)[0]
    index = len(data) - 4 - 16 * count
    for i in range(count):
        offset = struct.unpack_from("<Q", data, index + 16 * i)[0]
        size = struct.unpack_from("<I", data, offset + 16)[0]
        yield data[offset + 20: offset + 20 + size]
for line in (streams / "list.txt").read_text().split("\n"):
    if not line: continue
    name, width, height = line.split(); size = struct.pack("<HH", int(width) - 1, int(height) - 1)
    qrv = streams / f"{name}.qrv"
    # Read three records, seek to sample 2 and read, ask sample 1's time and metadata, seek to 0.
    operations = bytes([0, 0, 0, 0x43, 0, 0x82, 0xC2, 0x41])
    # Bit 15 of the width asks for an H.264 pipe.
    h264_size = struct.pack("<HH", int(width) - 1 | (0 if name.startswith("hevc") else 0x8000), int(height) - 1)
    (out / "fuzz_qrv_file" / name).write_bytes(h264_size + operations + qrv.read_bytes())
    # On hardware pipes of 8-bit samples and of colour images: seek to sample 0 first (past the
    # header), then as above.
    codec = 1 if name.startswith("hevc") else 0
    for data_format in (3, 0):
        (out / "fuzz_qrv_file_hw" / f"{name}_{data_format}").write_bytes(
            size + bytes([codec | data_format << 1, 0x41]) + operations[1:] + qrv.read_bytes())
    # Whole, cut inside a record, and without its trailer.
    whole = qrv.read_bytes()
    for cut, part in (("whole", whole), ("cut", whole[:len(whole) * 2 // 3]), ("open", whole[:-4])):
        (out / "fuzz_qrv_scan" / f"{name}_{cut}").write_bytes(part)
    # Through the recording API: software (1) and automatic decoding of 8-bit samples, the first
    # two frames, then frame 4 (or past the end).
    for decoder in (1, 0):
        (out / "fuzz_recording_reader" / f"{name}_{decoder}").write_bytes(
            bytes([decoder | 3 << 1]) + size + bytes([4]) + qrv.read_bytes())
    (out / "fuzz_sw_payload" / name).write_bytes(size + b"QRVNEXT".join(list(records(qrv))[:4]))
    for path in streams.glob(name + ".*"):
        if path.suffix != ".txt": (out / "fuzz_annexb_zoqrv" / path.name).write_bytes(path.read_bytes())
PY

# Seek scripts for both pipe kinds: into every GOP, back, to the last sample and past the index,
# with reads and look-ups between.
python3 - "$out" <<'PY'
import sys, pathlib
out = pathlib.Path(sys.argv[1])
scripts = [bytes([0x41, 0, 0, 0, 0x46, 0, 0, 0x4D, 0, 0, 0x40, 0x8A, 0xC5, 0x4F, 0]),
           bytes([0x4E, 0, 0, 0x43, 0, 0x42, 0, 0x8E, 0xCF, 0x4B, 0, 0, 0, 0])]
for kind in (0, 1):
    for i, script in enumerate(scripts):
        (out / "fuzz_seek_stress" / f"script{i}_{kind}").write_bytes(bytes([kind]) + script)
# Allocation failures spread over the whole call sequence, once and from then on, with every
# encoder data format and both codings.
operations = bytes([0x41, 0, 0, 0x43, 0, 0x82, 0xC2, 0x45, 0, 0x47, 0, 0x8A])
for k in list(range(1, 400, 7)) + [1 << 15 | k for k in (1, 2, 3, 5, 8, 13, 21, 34, 55, 89, 144, 233)]:
    (out / "fuzz_allocation_failure" / f"k{k}").write_bytes(k.to_bytes(2, "little") + bytes([k % 12]) + operations)
PY
