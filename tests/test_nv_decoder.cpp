// NvDecoder on the fake CUVID driver, with x265 and x264 streams whose coded size is larger
// than their display area, against ffmpeg's decode.
#include <gmock/gmock.h>

#include <memory>

#include "NVCompression/NvCodec/NvDecoder/NvDecoder.h"
#include "support/decoding.h"

namespace {

using testing::HasSubstr;

struct StreamCase {
    const char* set;
    const char* name;
    cudaVideoCodec codec;
};
const StreamCase kHevc198 = {"tests", "gop4_198x118", cudaVideoCodec_HEVC};
const StreamCase kH264198 = {"h264", "h264_gop4_198x118", cudaVideoCodec_H264};

class NvDecoding : public Decoding {
protected:
    void load(const StreamCase& c) { loadStream(c.set, c.name); }
    std::unique_ptr<NvDecoder> make(cudaVideoCodec codec, bool deviceFrames = true, bool lowLatency = true,
                                    bool pitched = false) {
        device::api().synchronize();
        CUcontext context = nullptr;
        device::api().getCurrentContext(&context);
        return std::make_unique<NvDecoder>(context, 0, 0, deviceFrames, codec, nullptr, lowLatency, pitched);
    }
    // One Decode call; its frames copied out as tight NV12.
    std::vector<Bytes> decode(NvDecoder& decoder, const Bytes* sample, int64_t timestamp, uint32_t flags,
                              std::vector<int64_t>* timestamps = nullptr) {
        uint8_t** frames = nullptr;
        int64_t* stamps = nullptr;
        int count = 0;
        EXPECT_TRUE(decoder.Decode(sample ? sample->data() : nullptr, sample ? int(sample->size()) : 0, &frames,
                                   &count, flags, &stamps, timestamp));
        std::vector<Bytes> out;
        const size_t w = size_t(decoder.GetWidth()), rows = size_t(decoder.GetHeight()) * 3 / 2;
        for (int i = 0; i < count; ++i) {
            Bytes frame(w * rows);
            const size_t pitch = size_t(decoder.GetDeviceFramePitch());
            if (device::api().isDevicePointer(frames[i]))
                device::api().copy2D(frame.data(), w, frames[i], pitch, w, rows, device::CopyKind::DeviceToHost);
            else
                for (size_t r = 0; r < rows; ++r) std::memcpy(&frame[r * w], frames[i] + r * pitch, w);
            out.push_back(frame);
            if (timestamps) timestamps->push_back(stamps[i]);
        }
        return out;
    }
};

// Frame kinds: device, device with a driver-chosen pitch, host.
class NvDecoderFrames : public NvDecoding, public testing::WithParamInterface<std::tuple<StreamCase, int>> {};

TEST_P(NvDecoderFrames, EveryPictureMatchesTheReferenceDecode) {
    const auto [c, kind] = GetParam();
    load(c);
    if (IsSkipped()) return;
    auto decoder = make(c.codec, kind != 2, true, kind == 1);
    for (size_t i = 0; i < payloads.size(); ++i) {
        std::vector<int64_t> stamps;
        const auto frames = decode(*decoder, &payloads[i], int64_t(100 + i), CUVID_PKT_ENDOFPICTURE, &stamps);
        ASSERT_EQ(frames.size(), 1u) << "picture " << i;
        EXPECT_TRUE(frames[0] == reference[i]) << "picture " << i << " differs from ffmpeg's";
        EXPECT_EQ(stamps, std::vector<int64_t>{int64_t(100 + i)});
    }
    EXPECT_EQ(decoder->GetWidth(), 198);
    EXPECT_EQ(decoder->GetHeight(), 118);
    if (kind == 1) {
        EXPECT_GT(decoder->GetDeviceFramePitch(), 198);
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, NvDecoderFrames,
                         testing::Combine(testing::Values(kHevc198, kH264198), testing::Values(0, 1, 2)));

TEST_F(NvDecoding, SequenceSetsUpTheDecoderFromTheCodedSize) {
    load(kHevc198);
    if (IsSkipped()) return;
    auto decoder = make(cudaVideoCodec_HEVC);
    decode(*decoder, &payloads[0], 0, CUVID_PKT_ENDOFPICTURE);
    ASSERT_EQ(fake.decodersCreated.size(), 1u);
    const CUVIDDECODECREATEINFO& info = fake.decodersCreated[0];
    EXPECT_EQ(info.ulWidth, 200u);
    EXPECT_EQ(info.ulHeight, 120u);
    EXPECT_EQ(info.ulTargetWidth, 200u);
    EXPECT_EQ(info.ulTargetHeight, 120u);
    EXPECT_EQ(info.ulNumDecodeSurfaces, 20u);
    EXPECT_EQ(info.ulNumOutputSurfaces, 2u);
    EXPECT_EQ(info.ulCreationFlags, unsigned(cudaVideoCreate_PreferCUVID));
    EXPECT_EQ(info.OutputFormat, cudaVideoSurfaceFormat_NV12);
    EXPECT_NE(info.vidLock, nullptr);
    EXPECT_EQ(fake.sequenceResults, std::vector<int>{20});
    const std::string text = decoder->GetVideoInfo();
    for (const char* line : {"Video Input Information\n\tCodec        : H.265/HEVC\n",
                             "\tSequence     : Progressive\n\tCoded size   : [200, 120]\n"
                             "\tDisplay area : [0, 0, 198, 118]\n\tChroma       : YUV 420\n\tBit depth    : 8\n",
                             "Video Decoding Params:\n\tNum Surfaces : 20\n\tCrop         : [0, 0, 0, 0]\n"
                             "\tResize       : 200x120\n\tDeinterlace  : Weave\n\n"})
        EXPECT_THAT(text, HasSubstr(line));

    // A second sequence with another size leaves the decoder as it was.
    std::string whyMissing;
    const auto other = qrvPayloads(hevcStream(hevcStreams("tests", whyMissing), "wpp_640x480").qrvPath);
    decode(*decoder, &other[0], 1, CUVID_PKT_ENDOFPICTURE);
    EXPECT_EQ(fake.sequenceResults.size(), 2u);
    EXPECT_EQ(fake.decodersCreated.size(), 1u);
    EXPECT_EQ(decoder->GetWidth(), 198);
    EXPECT_EQ(decode(*decoder, &payloads[0], 2, CUVID_PKT_ENDOFPICTURE).at(0), reference[0]);
}

// What the GPU's capabilities refuse: a text and code 801, or (macroblocks) nothing at all.
struct CapabilityCase {
    const char* name;
    void (*limit)(FakeCuvid&);
    const char* text;  // null: no exception, no decoder, no frames
};
class NvDecoderCapabilities : public NvDecoding, public testing::WithParamInterface<CapabilityCase> {};

TEST_P(NvDecoderCapabilities, RefuseTheSequence) {
    load(kHevc198);
    if (IsSkipped()) return;
    auto decoder = make(cudaVideoCodec_HEVC);
    GetParam().limit(fake);
    for (const Bytes& payload : payloads) {
        uint8_t** frames = nullptr;
        int count = -1;
        if (!GetParam().text) {
            EXPECT_TRUE(decoder->Decode(payload.data(), int(payload.size()), &frames, &count, CUVID_PKT_ENDOFPICTURE));
            EXPECT_EQ(count, 0);
            continue;
        }
        try {
            decoder->Decode(payload.data(), int(payload.size()), &frames, &count, CUVID_PKT_ENDOFPICTURE);
            ADD_FAILURE() << "no exception";
        } catch (const NVDECException& e) {
            EXPECT_EQ(e.getErrorCode(), 801);
            EXPECT_THAT(e.what(), HasSubstr(std::string("NvDecoder::HandleVideoSequence : ") + GetParam().text +
                                            " at "));
            EXPECT_THAT(e.what(), HasSubstr("NvCodec/NvDecoder/NvDecoder.cpp:"));
        }
    }
    EXPECT_TRUE(fake.decodersCreated.empty());
    EXPECT_EQ(decoder->GetWidth(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Limits, NvDecoderCapabilities,
    testing::Values(CapabilityCase{"Codec", [](FakeCuvid& f) { f.supported.clear(); }, "Codec not supported on this GPU"},
                    CapabilityCase{"Resolution", [](FakeCuvid& f) { f.maxHeight = 119; },
                                   "\nResolution          : 200x120\nMax Supported (wxh) : 4096x119\n"
                                   "Resolution not supported on this GPU"},
                    CapabilityCase{"MacroblocksSilently", [](FakeCuvid& f) { f.maxMBCount = 12 * 7 - 1; }, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(NvDecoding, PicturesComeOutWhenTheParserKnowsTheyAreComplete) {
    load(kHevc198);
    if (IsSkipped()) return;
    // Without the end-of-picture flag, pictures wait for the next packet: three in one call.
    auto decoder = make(cudaVideoCodec_HEVC);
    std::vector<int64_t> stamps;
    EXPECT_TRUE(decode(*decoder, &payloads[0], 10, 0).empty());
    EXPECT_TRUE(decode(*decoder, &payloads[1], 11, 0).empty());
    const auto three = decode(*decoder, &payloads[2], 12, CUVID_PKT_ENDOFPICTURE, &stamps);
    ASSERT_EQ(three.size(), 3u);
    EXPECT_EQ(stamps, (std::vector<int64_t>{10, 11, 12}));
    for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(three[i] == reference[i]) << i;

    // A display delay of one holds each picture back a call; an empty sample ends the stream.
    auto delayed = make(cudaVideoCodec_HEVC, true, false);
    EXPECT_TRUE(decode(*delayed, &payloads[0], 0, CUVID_PKT_ENDOFPICTURE).empty());
    EXPECT_EQ(decode(*delayed, &payloads[1], 1, CUVID_PKT_ENDOFPICTURE).at(0), reference[0]);
    EXPECT_EQ(decode(*delayed, nullptr, 2, 0).at(0), reference[1]);
}

TEST_F(NvDecoding, DecodeWithoutAParserFails) {
    fake.nullParser = true;
    auto decoder = make(cudaVideoCodec_HEVC);
    const Bytes sample(16, 0);
    int count = -1;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(decoder->Decode(sample.data(), int(sample.size()), nullptr, &count));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " Parser not initialized\n");
    EXPECT_EQ(count, -1);
}

}  // namespace
