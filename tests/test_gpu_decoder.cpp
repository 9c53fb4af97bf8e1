// hw_pipes.h's pipes on a GPU, skipped where none decodes the codec; loads without libavcodec.
#include "hw_pipes.h"

class GpuDecoding : public testing::TestWithParam<std::tuple<StreamCase, uint32_t>> {};
TEST_P(GpuDecoding, PipesReadAsTheReference) {
    const auto [c, code] = GetParam();
    const HevcStream stream = hevcStream(c.name, c.set);
    if (ZOHW_GetDecoderType(decoderPipe(3, c.codec, stream.width, stream.height).get()) != kHardware)
        GTEST_SKIP() << "no GPU decodes it here";
    expectPipeReadsAsTheReference(stream, c.codec, code);
}

INSTANTIATE_TEST_SUITE_P(Formats, GpuDecoding, kPipes);
