// The NVENC session class against the fake driver: CreateEncoder's checks and texts, the texts
// of failing creation calls, and a ring with output delay drained at end of stream.
#include <gtest/gtest.h>

#include "support/encoding.h"

namespace {

int contextStorage;
CUcontext const kContext = reinterpret_cast<CUcontext>(&contextStorage);

// "<function> : <text> at <file>:<line>\n" with the given code.
void expectError(const NVENCException& e, const std::string& function, const std::string& text, int code) {
    const std::string message = e.what();
    const std::string prefix = function + " : " + text + " at ";
    EXPECT_EQ(message.compare(0, prefix.size(), prefix), 0) << message;
    EXPECT_EQ(message.back(), '\n');
    EXPECT_EQ(e.getErrorCode(), code);
}

}  // namespace

TEST_F(Encoding, CreateEncoderRefusesBadParametersBeforeAnyDriverCall) {
    struct Case {
        const char* text;
        int code;
        NV_ENC_BUFFER_FORMAT format;
        void (*spoil)(NV_ENC_INITIALIZE_PARAMS&);
    } cases[] = {
        {"Invalid encoder width and height", NV_ENC_ERR_INVALID_PARAM, NV_ENC_BUFFER_FORMAT_NV12,
         [](NV_ENC_INITIALIZE_PARAMS& p) { p.encodeWidth = 0; }},
        {"Invalid codec guid", NV_ENC_ERR_INVALID_PARAM, NV_ENC_BUFFER_FORMAT_NV12,
         [](NV_ENC_INITIALIZE_PARAMS& p) { p.encodeGUID = NV_ENC_PRESET_P1_GUID; }},
        {"10-bit format isn't supported by H264 encoder", NV_ENC_ERR_INVALID_PARAM, NV_ENC_BUFFER_FORMAT_YUV420_10BIT,
         [](NV_ENC_INITIALIZE_PARAMS&) {}},
        {"Invalid ChromaFormatIDC", NV_ENC_ERR_INVALID_PARAM, NV_ENC_BUFFER_FORMAT_YUV444,
         [](NV_ENC_INITIALIZE_PARAMS& p) { p.encodeConfig->encodeCodecConfig.h264Config.chromaFormatIDC = 1; }},
        {"Invalid PixelBitdepth", NV_ENC_ERR_INVALID_PARAM, NV_ENC_BUFFER_FORMAT_YUV420_10BIT,
         [](NV_ENC_INITIALIZE_PARAMS& p) {
             p.encodeGUID = NV_ENC_CODEC_HEVC_GUID;
             p.encodeConfig->encodeCodecConfig.hevcConfig.pixelBitDepthMinus8 = 0;
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        NvEncoderCuda encoder(kContext, 32, 16, c.format, 0);
        NV_ENC_CONFIG config = {};
        NV_ENC_INITIALIZE_PARAMS params = {};
        params.encodeConfig = &config;
        encoder.CreateDefaultEncoderParams(&params, NV_ENC_CODEC_H264_GUID, kNvEncPresetLosslessDefaultGuid, 30);
        c.spoil(params);
        try {
            encoder.CreateEncoder(&params);
            ADD_FAILURE() << "accepted";
        } catch (const NVENCException& e) {
            expectError(e, "NvEncoder::CreateEncoder", c.text, c.code);
        }
        EXPECT_EQ(callCount("nvEncInitializeEncoder"), 0u);
    }
    NvEncoderCuda encoder(kContext, 32, 16, NV_ENC_BUFFER_FORMAT_NV12, 0);
    try {
        encoder.CreateEncoder(nullptr);
        ADD_FAILURE() << "accepted";
    } catch (const NVENCException& e) {
        expectError(e, "NvEncoder::CreateEncoder", "Invalid NV_ENC_INITIALIZE_PARAMS ptr", NV_ENC_ERR_INVALID_PTR);
    }
}

TEST_F(Encoding, FailingCreationCallsNameTheCallAndItsStatus) {
    struct Case {
        const char* entry;
        device::HostCall hostCall;
        const char* function;
        const char* text;
        int code;
    } cases[] = {
        {"load", device::HostCall::Count, "NvEncoder::LoadNvEncApi",
         "NVENC library file is not found. Please ensure NV driver is installed", NV_ENC_ERR_NO_ENCODE_DEVICE},
        {"nvEncOpenEncodeSessionEx", device::HostCall::Count, "NvEncoder::NvEncoder",
         "m_nvenc.nvEncOpenEncodeSessionEx(&encodeSessionExParams, &hEncoder) returned error 10", 10},
        {"nvEncInitializeEncoder", device::HostCall::Count, "NvEncoder::CreateEncoder",
         "m_nvenc.nvEncInitializeEncoder(m_hEncoder, &m_initializeParams) returned error 10", 10},
        {"nvEncRegisterResource", device::HostCall::Count, "NvEncoder::RegisterResources",
         "m_nvenc.nvEncRegisterResource(m_hEncoder, &registerResource) returned error 10", 10},
        {"", device::HostCall::AllocatePitch, "NvEncoderCuda::AllocateInputBuffers",
         "CUDA driver API error CUDA_ERROR_OUT_OF_MEMORY", NV_ENC_ERR_GENERIC},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.function);
        fake.failing = {{c.entry, NV_ENC_ERR_OUT_OF_MEMORY}};
        if (c.hostCall != device::HostCall::Count) device::hostDevice().failNext(c.hostCall);
        try {
            NvEncoderCuda encoder(kContext, 32, 16, NV_ENC_BUFFER_FORMAT_NV12, 0);
            NV_ENC_CONFIG config = {};
            NV_ENC_INITIALIZE_PARAMS params = {};
            params.encodeConfig = &config;
            encoder.CreateDefaultEncoderParams(&params, NV_ENC_CODEC_HEVC_GUID, kNvEncPresetLowLatencyHqGuid, 30);
            encoder.CreateEncoder(&params);
            ADD_FAILURE() << "no failure";
        } catch (const NVENCException& e) {
            expectError(e, c.function, c.text, c.code);
        }
    }
    fake.failing.clear();
    fake.maxVersion = 0x80;
    try {
        NvEncoderCuda encoder(kContext, 32, 16, NV_ENC_BUFFER_FORMAT_NV12, 0);
        ADD_FAILURE() << "8.0 driver accepted";
    } catch (const NVENCException& e) {
        expectError(e, "NvEncoder::LoadNvEncApi",
                    "Current Driver Version does not support this NvEncodeAPI version, please upgrade driver",
                    NV_ENC_ERR_INVALID_VERSION);
    }
}

// Look-ahead from the preset lengthens the ring: packets come out that many frames late, the
// frames NVENC holds back are not errors, and end of stream drains the rest in order.
TEST_F(Encoding, ARingWithOutputDelayDeliversInOrderAndDrainsAtEndOfStream) {
    fake.lookaheadDepth = 2;
    fake.needMoreInput = {0, 1};
    NvEncoderCuda encoder(kContext, 32, 16, NV_ENC_BUFFER_FORMAT_ARGB, 0);
    NV_ENC_CONFIG config = {};
    NV_ENC_INITIALIZE_PARAMS params = {};
    params.encodeConfig = &config;
    encoder.CreateDefaultEncoderParams(&params, NV_ENC_CODEC_H264_GUID, kNvEncPresetLowLatencyHqGuid, 30);
    encoder.CreateEncoder(&params);
    EXPECT_EQ(callCount("nvEncCreateBitstreamBuffer"), 3u);
    std::vector<std::vector<uint8_t>> packets;
    std::vector<uint32_t> delivered;
    for (int frame = 0; frame < 4; ++frame) {
        EXPECT_EQ(encoder.GetNextInputFrame()->pitch % 64, 0u);
        const uint32_t type = encoder.EncodeFrame(packets);
        EXPECT_EQ(type, packets.empty() ? 0u : uint32_t(frame == 2 ? NV_ENC_PIC_TYPE_IDR : NV_ENC_PIC_TYPE_P));
        for (const auto& packet : packets) delivered.push_back(packet[0]);
    }
    encoder.EndEncode(packets);
    for (const auto& packet : packets) delivered.push_back(packet[0]);
    EXPECT_EQ(delivered, (std::vector<uint32_t>{0, 1, 2, 3}));
}
