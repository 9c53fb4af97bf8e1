// The hardware encoder and the exported encoding calls against the fake NVENC driver on the
// host device table: session parameters on old and new drivers, geometry changes, every input
// kind reaching the encoder as the CPU twin packs it, failures, and recordings read back.
#include <gtest/gtest.h>

#include <cstring>

#include "codec/Exception.h"
#include "container/qrv_file.h"
#include "kernels/packing_reference.h"
#include "support/encoding.h"
#include "support/temp_file.h"
#include "zo_qrv64.h"

namespace {

struct Session {
    const char* name;
    uint32_t codec, lossless;
    bool legacyPresets, refuseAtInitialize;
};
const Session kSessions[] = {
    {"H.264 lossless, old driver", 0, 1, true, false},  {"HEVC low latency, old driver", 1, 0, true, false},
    {"H.264 low latency, new driver", 0, 0, false, false}, {"HEVC lossless, new driver", 1, 1, false, false},
    {"HEVC low latency, driver refusing at initialisation", 1, 0, false, true},
};

uint32_t header32(const uint8_t* payload, size_t at) {
    uint32_t value;
    std::memcpy(&value, payload + at, 4);
    return value;
}

}  // namespace

TEST_F(Encoding, SessionsCarryTheSettingsOfTheirCodecModeAndDriver) {
    for (const Session& s : kSessions) {
        SCOPED_TRACE(s.name);
        fake = FakeNvenc{};
        fake.legacyPresets = s.legacyPresets;
        fake.refuseAtInitialize = s.refuseAtInitialize;
        HwEncoder::forgetInterfaceChoice();
        for (int encoderNumber = 0; encoderNumber < 2; ++encoderNumber) {
            const size_t legacyQueries = callCount("nvEncGetEncodePresetConfig");
            HwEncoder encoder(packing::kUint8, s.codec, s.lossless, 4000000, 64, 48, 30);
            ASSERT_TRUE(encoder.isReady());
            // The new driver is asked the legacy way once per process, then straight away the new way.
            EXPECT_EQ(callCount("nvEncGetEncodePresetConfig") - legacyQueries, encoderNumber == 0 ? 1u : s.legacyPresets);
            const uint32_t api = s.legacyPresets ? 0x01000008u : uint32_t(NVENCAPI_VERSION);
            const NV_ENC_INITIALIZE_PARAMS& p = fake.initParams;
            const NV_ENC_CONFIG& c = fake.config;
            EXPECT_EQ(p.version, nvencStructVersion(api, 5, true));
            EXPECT_EQ(c.version, nvencStructVersion(api, 7, true));
            EXPECT_TRUE(sameGuid(p.encodeGUID, s.codec ? NV_ENC_CODEC_HEVC_GUID : NV_ENC_CODEC_H264_GUID));
            const GUID preset = s.legacyPresets ? (s.lossless ? kNvEncPresetLosslessDefaultGuid : kNvEncPresetLowLatencyHqGuid)
                                                : (s.lossless ? NV_ENC_PRESET_P3_GUID : NV_ENC_PRESET_P4_GUID);
            EXPECT_TRUE(sameGuid(p.presetGUID, preset));
            EXPECT_EQ(p.tuningInfo, s.legacyPresets ? NV_ENC_TUNING_INFO_UNDEFINED
                                    : s.lossless    ? NV_ENC_TUNING_INFO_LOSSLESS
                                                    : NV_ENC_TUNING_INFO_LOW_LATENCY);
            EXPECT_EQ(p.encodeWidth, 64u);
            EXPECT_EQ(p.encodeHeight, 48u);
            EXPECT_EQ(p.frameRateNum, 30u);
            EXPECT_EQ(p.frameRateDen, 1u);
            EXPECT_EQ(p.enablePTD, 1u);
            EXPECT_EQ(p.enableEncodeAsync, 0u);
            const uint32_t gop = s.lossless ? 15 : 30;
            EXPECT_EQ(c.frameIntervalP, 1);
            EXPECT_EQ(c.gopLength, gop);
            EXPECT_EQ(s.codec ? c.encodeCodecConfig.hevcConfig.idrPeriod : c.encodeCodecConfig.h264Config.idrPeriod, gop);
            EXPECT_EQ(s.codec ? c.encodeCodecConfig.hevcConfig.repeatSPSPPS : c.encodeCodecConfig.h264Config.repeatSPSPPS, 1u);
            if (s.lossless) {
                EXPECT_EQ(c.rcParams.rateControlMode, NV_ENC_PARAMS_RC_CONSTQP);
                EXPECT_EQ(c.rcParams.constQP.qpIntra, 18u);  // the preset's, untouched
            } else {
                EXPECT_EQ(c.rcParams.rateControlMode, s.legacyPresets ? NV_ENC_PARAMS_RC_CBR_LOWDELAY_HQ : NV_ENC_PARAMS_RC_CBR);
                EXPECT_EQ(c.rcParams.averageBitRate, 4000000u);
                EXPECT_EQ(c.rcParams.maxBitRate, 4000000u);
                EXPECT_EQ(c.rcParams.vbvBufferSize, 133333u);
                EXPECT_EQ(c.rcParams.vbvInitialDelay, 133333u);
                EXPECT_EQ(c.rcParams.constQP.qpInterP, 28u);
            }
        }
        EXPECT_EQ(callCount("nvEncCreateBitstreamBuffer"), 2u);  // a ring of one slot per encoder
        EXPECT_EQ(callCount("nvEncRegisterResource"), 2u);
    }
}

TEST_F(Encoding, DriversThatCannotCarryTheSessionLeaveTheEncoderNotReady) {
    struct Case {
        const char* name;
        uint32_t maxVersion, codec;
        bool legacyPresets, hevc;
    } cases[] = {
        {"driver older than 8.1", 0x80, 0, true, true},
        {"8.1-only driver refusing the legacy presets", 0x81, 0, false, true},
        {"no HEVC encoder", 0xB1, 1, true, false},
        {"unknown codec", 0xB1, 2, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fake = FakeNvenc{};
        fake.maxVersion = c.maxVersion;
        fake.legacyPresets = c.legacyPresets;
        fake.hevc = c.hevc;
        EXPECT_FALSE(HwEncoder(packing::kUint8, c.codec, 1, 1000000, 32, 16, 30).isReady());
    }
}

TEST_F(Encoding, TheSessionIsReusedForItsGeometryAndRecreatedForANewOne) {
    HwEncoder encoder(packing::kUint16, 1, 1, 1000000, 32, 16, 30);
    DeviceBuffer image(32 * 2 * 16);
    uint32_t type = 0;
    // Creation sets up a session of the data's width; the first frame needs the NVENC picture's.
    encoder.encode(image.get(), 64, 32, 16, &type, false);
    encoder.encode(image.get(), 64, 32, 16, &type, false);
    EXPECT_EQ(callCount("nvEncInitializeEncoder"), 2u);
    EXPECT_EQ(fake.initParams.encodeWidth, 64u);  // 16-bit samples: two luma bytes each
    encoder.encode(image.get(), 64, 32, 12, &type, false);
    EXPECT_EQ(callCount("nvEncInitializeEncoder"), 3u);
    EXPECT_EQ(fake.initParams.encodeHeight, 12u);
    EXPECT_EQ(fake.sessions.size(), 1u);
    EXPECT_EQ(encoder.encodedFrames(), 3u);
    fake.failing = {{"nvEncInitializeEncoder", NV_ENC_ERR_GENERIC}};
    EXPECT_EQ(encoder.encode(image.get(), 64, 32, 8, &type, false), 0u);  // no session for 32 x 8
    EXPECT_EQ(type, uint32_t(NV_ENC_PIC_TYPE_UNKNOWN));
    fake.failing.clear();
}

// What NVENC encodes is the CPU twin's packing of the input, from host memory with any pitch
// and from device memory.
TEST_F(Encoding, EveryInputKindReachesTheEncoderAsTheCpuTwinPacksIt) {
    using Pack = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned, unsigned);
    struct Kind {
        uint32_t code, widthFactor;
        Pack pack;
    } kinds[] = {{0, 4, nullptr},           {1, 1, uyvy_to_nv12_reference},   {2, 1, uint4_to_nv12_reference},
                 {3, 1, uint8_to_nv12_reference}, {4, 2, uint16_to_nv12_reference}, {5, 4, uint32_to_nv12_reference}};
    const uint32_t w = 20, h = 6;  // rows of 80 bytes: the frame's pitch is wider
    uint32_t seed = 1;
    for (const Kind& kind : kinds)
        for (uint32_t padding : {0u, 5u})
            for (bool onDevice : {false, true}) {
                SCOPED_TRACE(testing::Message() << "kind " << kind.code << " padding " << padding << (onDevice ? " device" : " host"));
                const uint32_t pitch = packing::tightPitch(kind.code, w) + padding;
                const Bytes image = randomBytes(size_t(pitch) * h, seed++);
                const uint32_t pictureWidth = kind.code == 4 ? 2 * w : kind.code == 5 ? 4 * w : w;
                Bytes surface;
                if (kind.pack) {
                    surface.assign(size_t(pictureWidth) * (h + h / 2), 0xCD);
                    kind.pack(image.data(), pitch, surface.data(), pictureWidth, w, h);
                } else {
                    for (uint32_t y = 0; y < h; ++y) surface.insert(surface.end(), &image[y * pitch], &image[y * pitch + 4 * w]);
                }
                const auto format = kind.code ? NV_ENC_BUFFER_FORMAT_NV12 : NV_ENC_BUFFER_FORMAT_ARGB;
                const uint32_t surfacePitch = kind.code ? pictureWidth : 4 * w;

                HwEncoder encoder(kind.code, 0, 1, 1000000, w, h, 30);
                ASSERT_TRUE(encoder.isReady());
                DeviceBuffer deviceImage(image.size());
                deviceImage.upload(image);
                uint32_t type = 0;
                const uint64_t bytes = encoder.encode(onDevice ? deviceImage.get() : image.data(), pitch, w, h, &type, false);
                EXPECT_EQ(Bytes(encoder.outputBuffer(), encoder.outputBuffer() + bytes),
                          FakeNvenc::payload(0, NV_ENC_PIC_TYPE_IDR, FakeNvenc::surfaceHash(surface.data(), surfacePitch, pictureWidth, h, format), 0));
                EXPECT_EQ(type, uint32_t(NV_ENC_PIC_TYPE_IDR));
            }
}

TEST_F(Encoding, ForcedIntraOverflowAndDriverFailuresReachTheCaller) {
    HwEncoder encoder(packing::kUint8, 1, 0, 1000000, 16, 8, 30);
    DeviceBuffer image(16 * 8);
    uint32_t type = 0;
    fake.packetBytes = {{0, 16 * 8 * 4}, {2, 16 * 8 * 4 + 1}};
    EXPECT_EQ(encoder.encode(image.get(), 16, 16, 8, &type, false), 16u * 8 * 4);  // exactly the capacity
    encoder.encode(image.get(), 16, 16, 8, &type, true);
    EXPECT_EQ(fake.pictures.back().encodePicFlags, 5u);
    EXPECT_EQ(type, uint32_t(NV_ENC_PIC_TYPE_I));
    try {
        encoder.encode(image.get(), 16, 16, 8, &type, false);
        ADD_FAILURE() << "no overflow";
    } catch (const Exception& e) {
        EXPECT_EQ(e.message(), "Encode output buffer overflow");
    }

    const std::pair<const char*, const char*> failures[] = {
        {"nvEncMapInputResource", "NvEncoder::MapResources : m_nvenc.nvEncMapInputResource(m_hEncoder, &mapInputResource) returned error 20 at "},
        {"nvEncEncodePicture", "NvEncoder::EncodeFrame : nvEncEncodePicture API failed at "},
        {"nvEncLockBitstream", "NvEncoder::GetEncodedPacket : m_nvenc.nvEncLockBitstream(m_hEncoder, &lockBitstreamData) returned error 20 at "},
        {"nvEncUnlockBitstream", "NvEncoder::GetEncodedPacket : m_nvenc.nvEncUnlockBitstream(m_hEncoder, lockBitstreamData.outputBitstream) returned error 20 at "},
        {"nvEncUnmapInputResource", "NvEncoder::GetEncodedPacket : m_nvenc.nvEncUnmapInputResource(m_hEncoder, m_vMappedInputBuffers[m_iGot % m_nEncoderBuffer]) returned error 20 at "},
    };
    for (const auto& failure : failures) {
        SCOPED_TRACE(failure.first);
        HwEncoder failing(packing::kUint8, 0, 1, 1000000, 16, 8, 30);
        fake.failing = {{failure.first, NV_ENC_ERR_GENERIC}};
        try {
            failing.encode(image.get(), 16, 16, 8, &type, false);
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            const std::string prefix = std::string("Encode failed (") + failure.second;
            EXPECT_EQ(e.message().compare(0, prefix.size(), prefix), 0) << e.message();
            EXPECT_EQ(e.message().substr(e.message().size() - 2), "\n)");
        }
        fake.failing.clear();
    }
}

// Set-up failures leave the encoder not ready and nothing held; a refused preset query or
// initialisation on the legacy interface is answered through the newest one.
TEST_F(Encoding, EachFailingSetUpCallLeavesNothingBehind) {
    const std::pair<const char*, bool> nvencCalls[] = {
        {"nvEncOpenEncodeSessionEx", false}, {"nvEncGetEncodePresetConfig", true}, {"nvEncInitializeEncoder", false},
        {"nvEncCreateBitstreamBuffer", false}, {"nvEncRegisterResource", false}, {"load", false}};
    for (const auto& call : nvencCalls) {
        SCOPED_TRACE(call.first);
        fake = FakeNvenc{};
        HwEncoder::forgetInterfaceChoice();
        fake.failing = {{call.first, NV_ENC_ERR_OUT_OF_MEMORY}};
        EXPECT_EQ(HwEncoder(packing::kUint32, 0, 1, 1000000, 16, 8, 30).isReady(), call.second);
    }
    fake.failing.clear();
    for (device::HostCall call : {device::HostCall::AllocatePitch, device::HostCall::PushContext}) {
        device::hostDevice().failNext(call);
        EXPECT_FALSE(HwEncoder(packing::kUint32, 0, 1, 1000000, 16, 8, 30).isReady());
    }
}

TEST_F(Encoding, RecordingsReadBackWithTheirPayloadsTypesTimesAndMetadata) {
    ZoHwPipe* pipe = ZOHW_CreateEncoder(packing::kUint16, 1, 1, 8, 4, 1000000, 10);
    ASSERT_NE(pipe, nullptr);
    TempFile file;
    FILE* stream = file.open("w+b");
    const uint8_t header[16] = {1, 2, 3};
    EXPECT_EQ(ZOHW_CreateQRVContainer(pipe, stream, header, 16), 0u);
    const Bytes image = randomBytes(8 * 2 * 4, 3);
    uint32_t metadata[64];
    uint64_t size = 0;
    for (uint32_t i = 0; i < 7; ++i) {
        for (uint32_t word = 0; word < 64; ++word) metadata[word] = i * 100 + word;
        ASSERT_EQ(ZOHW_Encode_And_Store(pipe, stream, &size, image.data(), 16, 5000 + i * 1000, metadata, 64), 0u);
    }
    EXPECT_EQ(ZOHW_CloseQRVContainer(pipe, stream), 0u);
    Bytes bitstream(8 * 4 * 4);
    EXPECT_EQ(ZOHW_Encode(pipe, &size, image.data(), 16, bitstream.data()), 0u);
    EXPECT_EQ(header32(bitstream.data(), 0), 7u);  // the eighth picture of the session
    ZOHW_Destroy(pipe);

    QrvSoftwareIndex tables;
    ASSERT_TRUE(qrvReadSoftwareIndex(stream, tables));
    ASSERT_EQ(tables.recordHeads.size(), 7u);
    for (uint32_t i = 0; i < 7; ++i) {
        SCOPED_TRACE(i);
        const uint32_t type = i % 5 == 0 ? NV_ENC_PIC_TYPE_IDR : NV_ENC_PIC_TYPE_P;  // GOP 10 / 2, lossless
        EXPECT_EQ(tables.recordHeads[i].frameNumber, i + 1);
        EXPECT_EQ(tables.recordHeads[i].frameType, type);
        EXPECT_EQ(tables.recordHeads[i].captureTime, 5000u + i * 1000);
        EXPECT_EQ(tables.frameList[i].frameType, type);
        EXPECT_EQ(tables.sampleInfos[i].sampleTime, 5u + i);
        EXPECT_EQ(header32(tables.sampleInfos[i].metadata, 4 * 63), i * 100 + 63);
        QrvRecordHead head;
        uint32_t payloadBytes = 0;
        Bytes payload;
        ASSERT_TRUE(qrvReadRecordAt(stream, tables.frameList[i].recordOffset, head, payloadBytes, &payload));
        EXPECT_EQ(header32(payload.data(), 0), i);
        EXPECT_EQ(header32(payload.data(), 4), type);
    }
    std::fclose(stream);
}
