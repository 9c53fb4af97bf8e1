#!/usr/bin/env bash
# The GPU check, on a machine with an NVIDIA GPU and nothing installed but the driver, bash,
# coreutils and python3. It runs from the folder that scripts/gpu-bundle.sh builds:
#
#   bash scripts/gpu-bundle.sh            # here, where the build tools and encoders are
#   bash gpu-bundle/gpu-check.sh          # there, with gpu-bundle/ carried over
#
# - the packing and colour kernels against their CPU twins (test_kernels), and hardware decoding
#   of the x265 and x264 recordings against ffmpeg's decode made here (test_gpu_decoder);
# - `zoqrv extract` on NVDEC against what it wrote here on the software decoder, file for file;
# - the kernel bandwidth and hardware decoding benchmarks (fps against the software path);
# - NVENC, when nvenc_probe finds it (without the library): every kind recorded through the C
#   interface and played back, the lossless kinds 2-5 bit for bit, and its frame rate against
#   libx265's; where there is none, our NVENC encoder must refuse;
# - the main job: 16-bit depth recorded losslessly (NVENC, else libx265) and played back, bit
#   for bit, and a colour recording played back.
# What needs a GPU, NVENC or ffmpeg says skipped where they are missing. The last line is
# "N passed, M failed, K skipped"; the exit status is 1 after any failure.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bin=$here/bin
[ -x "$bin/zoqrv" ] || { echo "gpu-check: run the copy in the folder that scripts/gpu-bundle.sh builds" >&2; exit 2; }
# Ours first; the driver's libraries may be found only through the path already set.
export LD_LIBRARY_PATH=$here/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} ZOQRV_TEST_DATA=$here/data
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0 failed=0 skipped=0
pass() { echo "PASS: $*"; passed=$((passed + 1)); }
fail() { echo "FAIL: $*"; failed=$((failed + 1)); }
skip() { echo "SKIP: $*"; skipped=$((skipped + 1)); }
# check NAME COMMAND...: one check that passes when the command succeeds (its output on failure).
check() {
  local name=$1
  shift
  if "$@" >"$work/out.txt" 2>&1; then pass "$name"; else fail "$name"; tail -20 "$work/out.txt"; fi
}

nvidia-smi -L 2>/dev/null || echo "gpu-check: no nvidia-smi"
# Whether the driver finds a GPU, asked of libcuda itself.
gpu=$(python3 -c '
import ctypes
try:
    cuda, count = ctypes.CDLL("libcuda.so.1"), ctypes.c_int(0)
    print("yes" if cuda.cuInit(0) == 0 and cuda.cuDeviceGetCount(ctypes.byref(count)) == 0 and count.value else "no")
except OSError:
    print("no")')
echo "gpu-check: GPU here: $gpu"

check "the library loads with nothing installed" python3 -c "
import ctypes, sys
sys.exit(ctypes.CDLL('$here/lib/libzo_qrv64.so.1').ZOHW_GetVersion() != 100)"

# Google Test programs: every test counts (GPU tests skip without a GPU).
for program in test_kernels test_gpu_decoder; do
  "$bin/$program" --gtest_output="json:$work/$program.json" >"$work/$program.log" 2>&1
  counts=$(python3 - "$work/$program.json" <<'PY'
import json, sys
try:
    tests = [t for s in json.load(open(sys.argv[1]))["testsuites"] for t in s["testsuite"]]
except (OSError, ValueError):
    print("0 1 0 -")
    sys.exit()
failed = [t["classname"] + "." + t["name"] for t in tests if t.get("failures")]
skipped = sum(1 for t in tests if t["result"] == "SKIPPED" and not t.get("failures"))
print(len(tests) - len(failed) - skipped, len(failed), skipped, " ".join(failed) or "-")
PY
)
  read -r p f s names <<<"$counts"
  echo "$program: $p passed, $f failed, $s skipped"
  [ "$f" = 0 ] || { echo "  failed: $names"; grep -B2 -A8 "Failure" "$work/$program.log" | head -60; }
  passed=$((passed + p)) failed=$((failed + f)) skipped=$((skipped + s))
done

# extract on NVDEC against the software decoder's output made here (data/extract.txt).
number=0
while read -r name options; do
  number=$((number + 1))
  label="extract $name${options:+ $options} on NVDEC as in software"
  if [ "$gpu" = no ]; then skip "$label (no GPU)"; continue; fi
  reference=$here/data/extract/$number
  rm -rf "$work/extract" && mkdir -p "$work/extract/$number" && ln -s "$here/data/tests" "$work/extract/tests"
  # shellcheck disable=SC2086  # the options are words
  if (cd "$work/extract/$number" && "$bin/zoqrv" extract ../tests/$name.qrv --out out $options >lines.txt &&
      cmp lines.txt "$reference/lines.txt" && sha256sum -c --quiet "$reference/sums.txt"); then
    pass "$label"
  else
    fail "$label"
  fi
done <"$here/data/extract.txt"

# Benchmarks: each one counts; one that reports an error fails where there is a GPU.
bench() {
  local program=$1
  shift
  "$bin/$program" --benchmark_counters_tabular=true --benchmark_out="$work/$program.json" \
    --benchmark_out_format=json "$@" 2>&1 | grep -v '^\*\*\*'
  while read -r name error; do
    if [ "$error" = ok ]; then pass "$program $name"
    elif [ "$gpu" = no ]; then skip "$program $name ($error)"
    else fail "$program $name ($error)"; fi
  done < <(python3 - "$work/$program.json" <<'PY'
import json, sys
try:
    runs = json.load(open(sys.argv[1]))["benchmarks"]
except (OSError, ValueError):
    runs = [{"name": "(did not run)", "error_occurred": True, "error_message": "no output"}]
for r in runs:
    print(r["name"], r["error_message"] if r.get("error_occurred") else "ok")
PY
)
}
bench bench_kernels
# The ffmpeg baseline only where ffmpeg is (a GPU machine has none).
filter=.
command -v ffmpeg >/dev/null || { skip "bench_hw_decoder FfmpegHwaccelCuda (no ffmpeg)"; filter='SoftwareDecode|PipeDecode'; }
ZOQRV_BENCH_DATA=$here/data/bench bench bench_hw_decoder --benchmark_filter="$filter"

# Raw input of a kind: a gradient with noise, moving by 3 bytes a frame.
make_input() {  # PATH BYTES_PER_FRAME FRAMES SEED
  python3 - "$@" <<'PY'
import random, sys
path, size, n, seed = sys.argv[1], *map(int, sys.argv[2:])
rng = random.Random(seed)
base = bytes((x ^ rng.randrange(4)) & 0xFF for x in range(size))
with open(path, "wb") as f:
    for i in range(n):
        f.write(base[3 * i % size:] + base[:3 * i % size])
PY
}
# record_and_play NAME KIND WxH ENCODER RECORD_OPTIONS...: records $work/NAME.raw and plays it back
# into $work/NAME.back (raw data); prints record's line.
record_and_play() {
  local name=$1 kind=$2 size=$3 encoder=$4
  shift 4
  ZOQRV_ENCODER=$encoder "$bin/zoqrv" record --kind "$kind" --size "$size" --fps 30 --force "$@" "$work/$name.qrv" "$work/$name.raw" &&
    rm -rf "$work/$name.out" && "$bin/zoqrv" extract "$work/$name.qrv" --out "$work/$name.out" --raw >/dev/null &&
    cat "$work/$name.out"/*.bin >"$work/$name.back"
}
fps_of() { grep -o '[0-9.]* frames/s' <<<"$1" | cut -d' ' -f1; }

width=640 height=480 frames=60
if "$bin/nvenc_probe"; then
  declare -A bytes=([bgra]=4 [uyvy]=2 [u8]=1 [u16]=2 [u32]=4)
  for kind in bgra uyvy u4 u8 u16 u32; do
    frame_bytes=$((width * height * ${bytes[$kind]:-1}))
    [ "$kind" = u4 ] && frame_bytes=$((width * height / 2))
    make_input "$work/$kind.raw" "$frame_bytes" "$frames" 7
    options=(--lossless)
    [ "$kind" = bgra ] || [ "$kind" = uyvy ] && options=(--bitrate 8000000)
    if ! line=$(record_and_play "$kind" "$kind" ${width}x$height nvenc "${options[@]}"); then
      fail "NVENC records and plays back $kind"
      continue
    fi
    if [ "${options[0]}" = --lossless ]; then
      check "NVENC $kind lossless: $frames frames back bit for bit" cmp "$work/$kind.raw" "$work/$kind.back"
    else
      check "NVENC $kind: $frames frames played back" test "$(stat -c %s "$work/$kind.back")" = "$(stat -c %s "$work/$kind.raw")"
    fi
    software=$(ZOQRV_ENCODER=x265 "$bin/zoqrv" record --kind "$kind" --size ${width}x$height --fps 30 --force "${options[@]}" \
      "$work/x265.qrv" "$work/$kind.raw")
    echo "  $kind: NVENC $(fps_of "$line") frames/s, libx265 $(fps_of "$software") frames/s," \
      "ratio $(python3 -c "print(round($(fps_of "$line") / $(fps_of "$software"), 2))")"
  done
else
  skip "NVENC recording of every kind, lossless kinds bit for bit, frame rate against libx265 (no NVENC)"
  make_input "$work/probe.raw" $((width * height)) 1 1
  if ZOQRV_ENCODER=nvenc "$bin/zoqrv" record --kind u8 --size ${width}x$height --fps 30 --lossless \
      "$work/probe.qrv" "$work/probe.raw" >/dev/null 2>&1; then
    fail "where NVENC is not, our NVENC encoder refuses (it recorded)"
  else
    pass "where NVENC is not, our NVENC encoder refuses"
  fi
fi

# The main job: depth in millimetres, a tilted floor 1-4 m away with a wave running over it.
python3 - "$work/depth.raw" <<'PY'
import math, struct, sys
with open(sys.argv[1], "wb") as f:
    for n in range(60):
        wave = [300 * math.sin(x / 40 + n / 5) for x in range(640)]
        f.write(b"".join(struct.pack("<640H", *(int(1000 + 4 * y + w) for w in wave)) for y in range(480)))
PY
if line=$(record_and_play depth u16 640x480 auto --lossless); then
  echo "  $line"
  check "main job: 60 frames of 16-bit depth back bit for bit" cmp "$work/depth.raw" "$work/depth.back"
else
  fail "main job: depth recorded and played back"
fi
make_input "$work/colour.raw" $((640 * 480 * 4)) 60 3
if record_and_play colour bgra 640x480 auto --bitrate 4000000 >/dev/null; then
  check "main job: 60 colour frames played back" test "$(stat -c %s "$work/colour.back")" = "$(stat -c %s "$work/colour.raw")"
else
  fail "main job: colour recorded and played back"
fi

echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" = 0 ]
