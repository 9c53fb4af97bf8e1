// Hardware decoding on a real GPU through the NVIDIA driver: x265 and x264 recordings read in
// every data format, in order and by seeking, against the CPU twins' unpacking of ffmpeg's
// decode (decoding is exact, so every byte must match). Skipped where no GPU decodes them.
#include "support/decoding.h"

namespace {

class GpuDecoding : public testing::TestWithParam<std::tuple<const char*, uint32_t>> {};

TEST_P(GpuDecoding, PipesReadAsTheReference) {
    const auto [set, code] = GetParam();
    const uint32_t codec = std::string(set) == "h264" ? 0 : 1;
    Pipe probe(ZOHW_CreateDecoder(code, codec, 64, 64, 0), &ZOHW_Destroy);
    if (!probe || ZOHW_GetDecoderType(probe.get()) != 1) GTEST_SKIP() << "no GPU decodes this codec here";
    HEVC_STREAMS_OR_SKIP(streams, set);
    for (const HevcStream& s : streams) {
        if (s.frames < 3) continue;  // the walks need a record between the first and the last
        SCOPED_TRACE(s.name);
        expectPipeReadsAsTheReference(s, codec, code, 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Sets, GpuDecoding,
                         testing::Combine(testing::Values("tests", "h264"), testing::Range(0u, 6u)));

}  // namespace
