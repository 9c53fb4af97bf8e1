#!/usr/bin/env bash
# Checks that the test suite catches small faults: each mutant below replaces one exact text
# in one source file, the tree is built incrementally in build-mutants/ and ctest must fail.
# Mutants are applied one at a time to a pristine tree; the file is restored afterwards, also
# on Ctrl-C. Run on demand (about an hour on two cores), not in CI.
#
#   scripts/mutants.sh [NAME...]    all mutants, or only those named
#
# Results: KILLED (a test failed), SURVIVED (every test passed), STALE (the original text is
# not in the file exactly once), BROKEN (the mutant does not build: fix the mutant).
# Exits 0 only when every mutant run was killed.
set -uo pipefail
cd "$(dirname "$0")/.."
build=build-mutants
jobs=$(nproc)

# name @@ file @@ original text (must occur exactly once) @@ replacement
mutants=$(cat <<'EOF'
api-null-text @@ src/api/zo_qrv64.cpp @@ const char kNullInstance[] = "Invalid ZoHwPipe instance NULL"; @@ const char kNullInstance[] = "Invalid ZoHwPipe instance null";
api-decoder-type @@ src/api/zo_qrv64.cpp @@ case DecodeMode::Software: return 2; @@ case DecodeMode::Software: return 1;
api-metadata-sample @@ src/api/zo_qrv64.cpp @@ if (!lookUpSampleInfo(*pipe, sample, info) || !outMetadata) return kFailed; @@ if (!lookUpSampleInfo(*pipe, sample + 1, info) || !outMetadata) return kFailed;
qrv-sample-time @@ src/container/qrv_file.cpp @@ const uint64_t sampleTime = record.captureTime / 1000; @@ const uint64_t sampleTime = record.captureTime / 100;
qrv-record-field @@ src/container/qrv_file.cpp @@ fwrite(&record.frameType, 4, 1, stream); @@ fwrite(&record.frameNumber, 4, 1, stream);
qrv-index-reserved @@ src/container/qrv_file.cpp @@ for (QrvIndexEntry& entry : block) entry.reserved = 0; @@ for (QrvIndexEntry& entry : block) (void)entry;
qrv-lookup-lower @@ src/container/qrv_file.cpp @@ if (sample < 1 || size_t(sample) >= infos.size()) return false; @@ if (sample < 0 || size_t(sample) >= infos.size()) return false;
qrv-lookup-upper @@ src/container/qrv_file.cpp @@ if (sample < 1 || size_t(sample) >= infos.size()) return false; @@ if (sample < 1 || size_t(sample) > infos.size()) return false;
qrv-key-walk-back @@ src/container/qrv_file.cpp @@ while (qrvAt(index, size_t(key)).frameType != kKeyFrameType && key > 0) --key; @@ while (qrvAt(index, size_t(key)).frameType != kKeyFrameType && key > 1) --key;
qrv-last-record @@ src/container/qrv_file.cpp @@ switch (readHead(stream, int64_t(uint32_t(frameCount_ - 1)), head, payloadBytes)) { @@ switch (readHead(stream, int64_t(uint32_t(frameCount_)), head, payloadBytes)) {
annexb-zero-byte @@ src/container/annexb.cpp @@ const size_t unitStart = i > 0 && data[i - 1] == 0 ? i - 1 : i; @@ const size_t unitStart = i;
annexb-h264-pps @@ src/container/annexb.cpp @@ kind.parameterSetBit = type == 7 ? 1 : type == 8 ? 2 : 0; @@ kind.parameterSetBit = type == 7 ? 1 : type == 8 ? 1 : 0;
pack-nibble-order @@ src/kernels/packing_threads.h @@ sample = (x & 1) ? (pair >> 4) : (pair & 0x0F); @@ sample = (x & 1) ? (pair & 0x0F) : (pair >> 4);
pack-chroma-rows @@ src/kernels/packing_threads.h @@ ZOQRV_HOST_DEVICE bool hasChromaRow(unsigned y, unsigned height) { return y < (height + 1) / 2; } @@ ZOQRV_HOST_DEVICE bool hasChromaRow(unsigned y, unsigned height) { return y < height / 2; }
pack-uyvy-rounding @@ src/kernels/packing_threads.h @@ if (y + 1 < height) chroma = (chroma + row[srcPitch] + 1) >> 1; @@ if (y + 1 < height) chroma = (chroma + row[srcPitch]) >> 1;
pack-nibble-grid @@ src/kernels/packing_geometry.cpp @@ const uint32_t columns = code == kUint4 ? (width >> 5) + 1 : (width >> 4) + 1; @@ const uint32_t columns = code == kUint4 ? (width >> 5) : (width >> 4) + 1;
colour-matrix-weight @@ src/kernels/colour_matrix.cpp @@ {1.0, (1.0 - wb) / 0.5, 0.0}, @@ {1.0, (1.0 - wr) / 0.5, 0.0},
colour-widening @@ src/kernels/colour_threads.h @@ return fromBits < toBits ? value * 257u : value >> 8; @@ return fromBits < toBits ? value * 256u : value >> 8;
colour-v-offset @@ src/kernels/colour_threads.h @@ const int v = load<Sample>(chroma + sizeof(Sample)); @@ const int v = load<Sample>(chroma);
nvcodec-separator @@ src/NVCompression/NvCodec/NvEncoder/NvCodecException.h @@ message << functionName << " : " << text << " at " << fileName << ":" << lineNo @@ message << functionName << " - " << text << " at " << fileName << ":" << lineNo
nvenc-caps-width @@ src/NVCompression/NvCodec/NvEncoder/NvEncoderCapabilities.cpp @@ return maxWidth > 0; @@ return maxWidth >= 0;
sw-yuyv-chroma @@ src/codec/SwDecoder.cpp @@ o[4 * i + 1] = cbRow[i]; @@ o[4 * i + 1] = crRow[i];
sw-yuyv-width-check @@ src/codec/SwDecoder.cpp @@ if (w > uint32_t(de265_get_image_width(picture, 0)) || @@ if (false ||
tool-error-stream @@ tools/zoqrv/commands.cpp @@ fprintf(stderr, "zoqrv: %s\n", message.c_str()); @@ fprintf(stdout, "zoqrv: %s\n", message.c_str());
tool-export-first @@ tools/zoqrv/export.cpp @@ for (size_t i = 0; i < tables.frameList.size(); ++i) { @@ for (size_t i = 1; i < tables.frameList.size(); ++i) {
nvenc-map-version @@ src/NVCompression/NvCodec/NvEncoder/NvEncoder.cpp @@ mapInputResource.version = m_interface.structVersion(4); @@ mapInputResource.version = m_interface.structVersion(3);
nvenc-dropped-unmap @@ src/NVCompression/NvCodec/NvEncoder/NvEncoder.cpp @@ NVENC_API_CALL(m_nvenc.nvEncUnmapInputResource(m_hEncoder, m_vMappedInputBuffers[m_iGot % m_nEncoderBuffer])); @@ (void)0;
nvenc-ring-slot @@ src/NVCompression/NvCodec/NvEncoder/NvEncoder.cpp @@ lockBitstreamData.outputBitstream = m_vBitstreamOutputBuffer[m_iGot % m_nEncoderBuffer]; @@ lockBitstreamData.outputBitstream = m_vBitstreamOutputBuffer[(m_iGot + 1) % m_nEncoderBuffer];
nvenc-frame-rows @@ src/NVCompression/NvCodec/NvEncoder/NvEncoderCuda.cpp @@ GetMaxEncodeHeight() + chromaRows, 16) @@ GetMaxEncodeHeight(), 16)
hwenc-codec-guid @@ src/codec/HwEncoder.cpp @@ const GUID codecGuid = codec == 0 ? NV_ENC_CODEC_H264_GUID : NV_ENC_CODEC_HEVC_GUID; @@ const GUID codecGuid = codec == 0 ? NV_ENC_CODEC_HEVC_GUID : NV_ENC_CODEC_H264_GUID;
hwenc-intra-type @@ src/codec/HwEncoder.cpp @@ picParams.encodePicFlags = NV_ENC_PIC_FLAG_FORCEINTRA | NV_ENC_PIC_FLAG_OUTPUT_SPSPPS; @@ picParams.encodePicFlags = NV_ENC_PIC_FLAG_FORCEIDR | NV_ENC_PIC_FLAG_OUTPUT_SPSPPS;
hwenc-hevc-caps @@ src/codec/HwEncoder.cpp @@ if (codec == 1 && !probeEncoderCapabilities(context).hevc) return false; @@ (void)probeEncoderCapabilities;
nvdec-dropped-unmap @@ src/NVCompression/NvCodec/NvDecoder/NvDecoder.cpp @@ NVDEC_API_CALL(cuvidUnmapVideoFrame(m_hDecoder, dpSrcFrame)); @@ (void)0;
nvdec-chroma-origin @@ src/NVCompression/NvCodec/NvDecoder/NvDecoder.cpp @@ source + size_t(nSrcPitch) * m_surfaceHeight @@ source + size_t(nSrcPitch) * m_height
hwdec-error-text @@ src/codec/HwDecoder.cpp @@ std::cout << "Failed to create decoder (" << e.what() @@ std::cout << "Failed to create the decoder (" << e.what()
host-copy-pitch @@ src/device/device_api_host.cpp @@ static_cast<const uint8_t*>(src) + row * srcPitch @@ static_cast<const uint8_t*>(src) + row * dstPitch
pack-staging-pitch @@ src/kernels/packing_launch.cpp @@ api.copy2D(staging.ptr, tight, src, srcPitch, tight, height, CopyKind::HostToDevice); @@ api.copy2D(staging.ptr, tight, src, tight, tight, height, CopyKind::HostToDevice);
EOF
)

backup=$(mktemp -d)
mutated=""
restore() {
  if [ -n "$mutated" ]; then
    cp "$backup/original" "$mutated"
    touch "$mutated"  # newer than the mutant's objects, so the next build recompiles it
    mutated=""
  fi
}
trap 'restore; rm -rf "$backup"' EXIT
trap 'echo "mutants: interrupted" >&2; exit 130' INT TERM

# Replaces the one occurrence of ORIGINAL in FILE; exit 3 when it is absent or repeated.
apply() {
  python3 - "$@" <<'PY'
import sys
path, original, replacement = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
if text.count(original) != 1:
    sys.exit(3)
open(path, "w", encoding="utf-8").write(text.replace(original, replacement))
PY
}

build_and_test() {
  cmake --build "$build" -j"$jobs" >"$backup/build.log" 2>&1 || return 2
  ctest --test-dir "$build" --stop-on-failure -j"$jobs" >"$backup/test.log" 2>&1 || return 1
  return 0
}

cmake -S . -B "$build" -DZOQRV_CUDA_ARCHITECTURES=75-real -DZOQRV_BUILD_BENCH=OFF >/dev/null || exit 1
echo "mutants: checking that the pristine tree passes"
build_and_test
case $? in
  0) ;;
  2) tail -n 30 "$backup/build.log"; echo "mutants: the pristine tree does not build" >&2; exit 1 ;;
  *) tail -n 30 "$backup/test.log"; echo "mutants: the pristine tree fails its tests" >&2; exit 1 ;;
esac

total=0
killed=0
while IFS= read -r line; do
  [ -z "$line" ] && continue
  name=${line%% @@ *}; rest=${line#* @@ }
  file=${rest%% @@ *}; rest=${rest#* @@ }
  original=${rest%% @@ *}; replacement=${rest#* @@ }
  if [ $# -gt 0 ] && [[ " $* " != *" $name "* ]]; then continue; fi
  total=$((total + 1))
  cp "$file" "$backup/original"
  mutated=$file
  if ! apply "$file" "$original" "$replacement"; then
    mutated=""
    printf '%-22s STALE     %s: original text not found exactly once\n' "$name" "$file"
    continue
  fi
  build_and_test
  result=$?
  restore
  case $result in
    1) killed=$((killed + 1))
       failed=$(sed -n '/tests FAILED:/,$p' "$backup/test.log" | grep -m1 -oE '[0-9]+ - [^ ]+' | cut -d' ' -f3)
       printf '%-22s KILLED    %s (%s)\n' "$name" "$file" "${failed:-see ctest}" ;;
    0) printf '%-22s SURVIVED  %s\n' "$name" "$file" ;;
    *) printf '%-22s BROKEN    %s: the mutant does not build\n' "$name" "$file"
       grep -m3 -E 'error' "$backup/build.log" | sed 's/^/    /' ;;
  esac
done <<<"$mutants"

echo "$killed of $total mutants killed"
# Leave the build matching the pristine tree.
cmake --build "$build" -j"$jobs" >/dev/null 2>&1
[ "$total" -gt 0 ] && [ "$killed" -eq "$total" ]
