// The hardware pipes of hw_pipes.h on a GPU through the NVIDIA driver, against ffmpeg's decode;
// skipped where no GPU decodes the codec. This program loads without libavcodec.
#include "hw_pipes.h"

namespace {

class GpuDecoding : public testing::TestWithParam<std::tuple<StreamCase, uint32_t>> {};

TEST_P(GpuDecoding, PipesReadAsTheReference) {
    const auto [c, code] = GetParam();
    const HevcStream stream = hevcStream(c.name, c.set);
    if (ZOHW_GetDecoderType(decoderPipe(3, c.codec, stream.width, stream.height).get()) != kHardware)
        GTEST_SKIP() << "no GPU decodes it here";
    expectPipeReadsAsTheReference(stream, c.codec, code);
}

INSTANTIATE_TEST_SUITE_P(Formats, GpuDecoding, kPipes);

}  // namespace
