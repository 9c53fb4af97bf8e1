// Codec detection and access-unit splitting on streams from real encoders.
#include <gtest/gtest.h>

#include "container/annexb.h"
#include "support/test_streams.h"

namespace {

struct Encoded {
    AnnexBCodec codec;
    int bframes;
};

class AnnexBOnRealStreams : public ::testing::TestWithParam<Encoded> {};

std::vector<size_t> idrPositions(const std::vector<AccessUnit>& units) {
    std::vector<size_t> positions;
    for (size_t i = 0; i < units.size(); ++i)
        if (units[i].idr) positions.push_back(i);
    return positions;
}

}  // namespace

TEST_P(AnnexBOnRealStreams, OneAccessUnitPerFrameCoveringTheStream) {
    const Encoded encoded = GetParam();
    const std::string path = makeTestDirectory() + "/stream.bin";
    if (!encodeTestStream(encoded.codec, 20, 6, encoded.bframes, path)) GTEST_SKIP() << "ffmpeg cannot encode here";
    const std::vector<uint8_t> stream = readFileBytes(path);

    ASSERT_EQ(annexBDetectCodec(stream.data(), stream.size()), encoded.codec);
    const std::vector<AccessUnit> units = annexBSplitAccessUnits(stream.data(), stream.size(), encoded.codec);
    ASSERT_EQ(units.size(), 20u);
    size_t next = 0;
    for (const AccessUnit& unit : units) {
        EXPECT_EQ(unit.offset, next);
        EXPECT_GT(unit.bytes, 0u);
        next = unit.offset + unit.bytes;
    }
    EXPECT_EQ(next, stream.size());
    EXPECT_EQ(idrPositions(units), (std::vector<size_t>{0, 6, 12, 18}));

    // ffprobe's parsers find the same boundaries, give or take the zero_byte of a four-byte
    // start code, which they may leave with the previous packet.
    std::string sizes;
    if (runCommand("ffprobe -v error -show_entries packet=size -of csv=p=0 '" + path + "'", &sizes) != 0)
        return;
    std::vector<size_t> probedStarts;
    size_t probedOffset = 0;
    for (size_t at = 0; at < sizes.size();) {
        const size_t end = sizes.find('\n', at);
        probedStarts.push_back(probedOffset);
        probedOffset += std::stoul(sizes.substr(at, end - at));
        at = end == std::string::npos ? sizes.size() : end + 1;
    }
    ASSERT_EQ(probedStarts.size(), units.size());
    for (size_t i = 1; i < units.size(); ++i) {
        EXPECT_GE(probedStarts[i], units[i].offset) << i;
        EXPECT_LE(probedStarts[i], units[i].offset + 1) << i;
        EXPECT_EQ(stream[units[i].offset], 0) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Encoders, AnnexBOnRealStreams,
                         ::testing::Values(Encoded{AnnexBCodec::Hevc, 0}, Encoded{AnnexBCodec::Hevc, 2},
                                           Encoded{AnnexBCodec::H264, 0}, Encoded{AnnexBCodec::H264, 2}));

TEST(AnnexB, DetectionRejectsOtherData) {
    const std::vector<uint8_t> text = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(annexBDetectCodec(text.data(), text.size()), AnnexBCodec::Unknown);
    EXPECT_EQ(annexBDetectCodec(nullptr, 0), AnnexBCodec::Unknown);
    // Start codes but no parameter sets: a slice alone proves neither codec.
    const std::vector<uint8_t> sliceOnly = {0, 0, 0, 1, 0x41, 0x9A, 0x00, 0x10};
    EXPECT_EQ(annexBDetectCodec(sliceOnly.data(), sliceOnly.size()), AnnexBCodec::Unknown);
    // An HEVC parameter-set header is no valid H.264 header and the other way round.
    const std::vector<uint8_t> hevcSets = {0, 0, 1, 0x40, 0x01, 0xAA, 0, 0, 1, 0x42, 0x01, 0xBB, 0, 0, 1, 0x44, 0x01, 0xCC};
    EXPECT_EQ(annexBDetectCodec(hevcSets.data(), hevcSets.size()), AnnexBCodec::Hevc);
    const std::vector<uint8_t> h264Sets = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xCE};
    EXPECT_EQ(annexBDetectCodec(h264Sets.data(), h264Sets.size()), AnnexBCodec::H264);
}
