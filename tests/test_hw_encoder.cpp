// The NVENC session class, the hardware encoder and the exported encoding calls against the fake
// NVENC driver on the host device table. Each test fails on any breach of the NVENC contract, any
// session, library or device allocation left behind, and any device fault.
#include <cstring>

#include "codec/Exception.h"
#include "codec/HwEncoder.h"
#include "kernels/packing_reference.h"
#include "support/fake_nvenc.h"
#include "support/host_device.h"
#include "zo_qrv64.h"

namespace {

class Encoding : public OnHostDevice {
protected:
    Encoding() : driver_(fake.driverApi()), scopedDriver_(driver_) { HwEncoder::forgetInterfaceChoice(); }
    void TearDown() override { renew(), OnHostDevice::TearDown(); }
    // Fails on the breaches and on what is still held so far; then a fresh driver and interface choice.
    FakeNvenc& renew() {
        for (const std::string& breach : fake.faults) ADD_FAILURE() << breach;
        EXPECT_EQ(fake.openSessions(), 0u) << "NVENC session left open";
        EXPECT_EQ(fake.librariesLoaded, 0) << "NVENC library left loaded";
        fake = FakeNvenc{};
        HwEncoder::forgetInterfaceChoice();
        return fake;
    }
    FakeNvenc& fake = fakeNvenc() = FakeNvenc{};

private:
    DriverApi driver_;
    ScopedDriverApi scopedDriver_;
};
uint32_t word(const uint8_t* bytes, size_t at) { uint32_t value; std::memcpy(&value, bytes + at, 4); return value; }

}  // namespace

// Look-ahead from the preset lengthens the ring: packets come out that many frames late, in order,
// also where the driver holds a picture back.
TEST_F(Encoding, ARingWithOutputDelayDeliversInOrder) {
    fake.lookaheadDepth = 2;
    fake.heldBack = {1};
    HwEncoder encoder(packing::kUint8, 0, 1, 1000000, 16, 8, 30);
    DeviceBuffer image(Bytes(16 * 8));
    uint32_t type = 0;
    std::vector<uint32_t> delivered;
    for (int frame = 0; frame < 4; ++frame)
        if (encoder.encode(image.get(), 16, 16, 8, &type, false)) delivered.push_back(word(encoder.outputBuffer(), 0));
    EXPECT_EQ(delivered, (std::vector<uint32_t>{0, 1}));
}
// Old drivers take the legacy presets; new ones (asked the legacy way once per process) the
// newest interface with tuning info. Every IDR repeats its parameter sets. A VBV larger than the
// raw picture (64 x 48 x 1.5 bytes) is cut to it, with the bitrate.
TEST_F(Encoding, SessionsCarryTheSettingsOfTheirCodecModeAndDriver) {
    const struct { uint32_t codec, lossless, bitrate, rate, vbv; bool legacyPresets; } sessions[] = {
        {0, 1, 4000000, 0, 0, true}, {1, 0, 4000000, 1105920, 36864, true}, {0, 0, 1000000, 1000000, 33333, false}, {1, 1, 4000000, 0, 0, false}};
    for (const auto& s : sessions) {
        SCOPED_TRACE(testing::Message() << "codec " << s.codec << " lossless " << s.lossless << " legacy " << s.legacyPresets);
        renew().legacyPresets = s.legacyPresets;
        ASSERT_TRUE(HwEncoder(packing::kUint8, s.codec, s.lossless, s.bitrate, 64, 48, 30).isReady());
        const NV_ENC_INITIALIZE_PARAMS& p = fake.initParams;
        const NV_ENC_CONFIG& c = fake.config;
        EXPECT_TRUE(sameGuid(p.encodeGUID, s.codec ? NV_ENC_CODEC_HEVC_GUID : NV_ENC_CODEC_H264_GUID));
        const GUID preset = s.legacyPresets ? (s.lossless ? kNvEncPresetLosslessDefaultGuid : kNvEncPresetLowLatencyHqGuid)
                                            : (s.lossless ? NV_ENC_PRESET_P3_GUID : NV_ENC_PRESET_P4_GUID);
        EXPECT_TRUE(sameGuid(p.presetGUID, preset));
        EXPECT_EQ(p.tuningInfo, s.legacyPresets ? NV_ENC_TUNING_INFO_UNDEFINED
                                : s.lossless    ? NV_ENC_TUNING_INFO_LOSSLESS
                                                : NV_ENC_TUNING_INFO_LOW_LATENCY);
        EXPECT_EQ(std::vector<uint32_t>({p.encodeWidth, p.encodeHeight, p.frameRateNum, p.frameRateDen, p.enablePTD}),
                  std::vector<uint32_t>({64, 48, 30, 1, 1}));
        const uint32_t gop = s.lossless ? 15 : 30;
        const auto& h264 = c.encodeCodecConfig.h264Config;
        const auto& hevc = c.encodeCodecConfig.hevcConfig;
        EXPECT_EQ(std::vector<uint32_t>({uint32_t(c.frameIntervalP), c.gopLength, s.codec ? hevc.idrPeriod : h264.idrPeriod,
                                         s.codec ? hevc.repeatSPSPPS : h264.repeatSPSPPS}),
                  std::vector<uint32_t>({1, gop, gop, 1}));
        const NV_ENC_RC_PARAMS& rc = c.rcParams;
        if (s.lossless) {
            EXPECT_EQ(rc.rateControlMode, NV_ENC_PARAMS_RC_CONSTQP);
            EXPECT_EQ(rc.constQP.qpIntra, 18u);  // the preset's, untouched
        } else {
            EXPECT_EQ(rc.rateControlMode, s.legacyPresets ? NV_ENC_PARAMS_RC_CBR_LOWDELAY_HQ : NV_ENC_PARAMS_RC_CBR);
            // The newer interface pairs CBR with what CBR_LOWDELAY_HQ did: two passes, small key frames.
            EXPECT_EQ(std::vector<uint32_t>({rc.averageBitRate, rc.maxBitRate, rc.vbvBufferSize, rc.vbvInitialDelay,
                                             rc.constQP.qpInterP, rc.multiPass, rc.lowDelayKeyFrameScale}),
                      std::vector<uint32_t>({s.rate, s.rate, s.vbv, s.vbv, 28,
                                             s.legacyPresets ? 0u : uint32_t(NV_ENC_TWO_PASS_QUARTER_RESOLUTION), !s.legacyPresets}));
        }
        ASSERT_TRUE(HwEncoder(packing::kUint8, s.codec, s.lossless, 4000000, 64, 48, 30).isReady());
        EXPECT_EQ(fake.calls["nvEncGetEncodePresetConfig"], s.legacyPresets ? 2u : 1u) << "new drivers: asked once";
    }
}
// Drivers, set-ups, refused sizes and failing driver or device calls leave the hardware encoder not
// ready, print the driver's reason, and take down everything held (a session whose open failed too);
// a refused preset query or initialisation on the legacy interface is retried on the newest one.
TEST_F(Encoding, SetUpsThatFailLeaveNothingBehind) {
    const struct {
        const char* failingEntry;
        uint32_t maxVersion, codec, lossless, frameRate, height;
        bool legacyPresets, hevc, ready;
        size_t initialisations;
        const char* printed;
    } cases[] = {
        {"", 0x80, 0, 1, 30, 8, true, true, false, 0, "does not support this NvEncodeAPI version"},
        {"", 0x81, 0, 1, 30, 8, false, true, false, 0, "does not support this NvEncodeAPI version"},
        {"", 0xB1, 1, 1, 30, 8, true, false, false, 0, ""},  // no HEVC encoder
        {"", 0xB1, 2, 1, 30, 8, true, true, false, 0, ""},   // unknown codec
        {"", 0xB1, 0, 0, 0, 8, true, true, false, 0, ""},    // low latency at 0 frames a second
        {"", 0xB1, 0, 1, 30, 2, true, true, false, 2, "nvEncInitializeEncoder(m_hEncoder, &m_initializeParams) returned error 8"},
        {"", 0xB1, 0, 1, 30, 7, true, true, false, 1, "nvEncRegisterResource(m_hEncoder, &registerResource) returned error 8"},
        {"load", 0xB1, 0, 1, 30, 8, true, true, false, 0, "NVENC library file is not found"},
        {"runtime", 0xB1, 0, 1, 30, 8, true, true, false, 0, "needs NVIDIA driver"},  // a driver older than the runtime
        {"nvEncOpenEncodeSessionEx", 0xB1, 0, 1, 30, 8, true, true, false, 0, "nvEncOpenEncodeSessionEx(&encodeSessionExParams, &hEncoder) returned error 10"},
        {"nvEncGetEncodePresetConfig", 0xB1, 0, 1, 30, 8, true, true, true, 1, ""},
        {"nvEncInitializeEncoder", 0xB1, 0, 1, 30, 8, true, true, false, 2, "m_nvenc.nvEncInitializeEncoder(m_hEncoder, &m_initializeParams) returned error 10"},
        {"nvEncRegisterResource", 0xB1, 0, 1, 30, 8, true, true, false, 1, "registerResource) returned error 10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.failingEntry << " " << c.maxVersion << " codec " << c.codec << " height " << c.height);
        renew().failing = {{c.failingEntry, NV_ENC_ERR_OUT_OF_MEMORY}};
        device::hostDevice().runtimeFailure = std::string(c.failingEntry) == "runtime" ? device::kInsufficientDriver : 0;
        fake.maxVersion = c.maxVersion;
        fake.legacyPresets = c.legacyPresets;
        fake.hevc = c.hevc;
        testing::internal::CaptureStdout();
        HwEncoder encoder(packing::kUint32, c.codec, c.lossless, 1000000, 16, c.height, c.frameRate);
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(encoder.isReady(), c.ready);
        EXPECT_EQ(fake.calls["nvEncInitializeEncoder"], c.initialisations);
        EXPECT_TRUE(*c.printed ? printed.find(c.printed) != std::string::npos : printed.empty()) << printed;
        // A frame then finds no session, never one that failed before it had input frames.
        uint32_t type = 0;
        EXPECT_TRUE(c.ready || (encoder.encode(DeviceBuffer(Bytes(16 * 4 * 8)).get(), 64, 16, c.height, &type, false) == 0 &&
                                type == NV_ENC_PIC_TYPE_UNKNOWN));
    }
}
// A picture the driver holds back yields nothing and is not locked before it is finished; teardown
// flushes it out. Encoding and teardown leave the host's context current, also when a push fails.
TEST_F(Encoding, HeldPicturesAndTheHostsContextAreLeftAlone) {
    for (bool pushFails : {false, true}) {
        SCOPED_TRACE(pushFails);
        renew().heldBack = {0};
        int hostContext = 0;
        CUcontext current = nullptr;
        auto encoder = std::make_unique<HwEncoder>(packing::kUint8, 0, 1, 1000000, 16, 8, 30);
        device::api().pushContext(CUcontext(&hostContext));
        uint32_t type = 7;
        for (int step = 0; step < 2; ++step) {
            if (pushFails) device::hostDevice().failNext(device::HostCall::PushContext);
            if (step == 0) EXPECT_EQ(encoder->encode(DeviceBuffer(Bytes(16 * 8)).get(), 16, 16, 8, &type, false), 0u);
            else encoder.reset();
            EXPECT_TRUE(device::api().getCurrentContext(&current) == 0 && current == CUcontext(&hostContext));
        }
        EXPECT_EQ(type, pushFails ? uint32_t(NV_ENC_PIC_TYPE_UNKNOWN) : 0u);
        device::api().popContext();
    }
}
// What NVENC encodes is the CPU twin's packing of the input, from host memory with any pitch
// and from device memory; colour rows go in at the frame's pitch, which is wider than theirs.
TEST_F(Encoding, EveryInputKindReachesTheEncoderAsTheCpuTwinPacksIt) {
    using Pack = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned, unsigned);
    const Pack packs[] = {nullptr, uyvy_to_nv12_reference, uint4_to_nv12_reference, uint8_to_nv12_reference,
                          uint16_to_nv12_reference, uint32_to_nv12_reference};
    const uint32_t w = 20, h = 6;
    uint32_t seed = 1;
    for (uint32_t code = 0; code < 6; ++code)
        for (bool onDevice : {false, true}) {
            SCOPED_TRACE(testing::Message() << "code " << code << " device " << onDevice);
            const uint32_t pitch = packing::tightPitch(code, w) + 5;
            const Bytes image = randomBytes(size_t(pitch) * h, seed++);
            const uint32_t pictureWidth = packing::pictureWidth(code, w);
            Bytes surface(size_t(pictureWidth) * (h + h / 2), 0xCD);
            if (code) packs[code](image.data(), pitch, surface.data(), pictureWidth, w, h);
            const Bytes expected = FakeNvenc::payload(0, NV_ENC_PIC_TYPE_IDR, code ? surface.data() : image.data(),
                                                      code ? pictureWidth : pitch, pictureWidth, h,
                                                      code ? NV_ENC_BUFFER_FORMAT_NV12 : NV_ENC_BUFFER_FORMAT_ARGB);
            HwEncoder encoder(code, 0, 1, 1000000, w, h, 30);
            DeviceBuffer deviceImage(image);
            uint32_t type = 0;
            const uint64_t bytes = encoder.encode(onDevice ? deviceImage.get() : image.data(), pitch, w, h, &type, false);
            EXPECT_EQ(Bytes(encoder.outputBuffer(), encoder.outputBuffer() + bytes), expected);
            EXPECT_EQ(type, uint32_t(NV_ENC_PIC_TYPE_IDR));
        }
}
TEST_F(Encoding, ForcedIntraAndDriverFailuresReachTheCaller) {
    uint32_t type = 0;
    const std::pair<const char*, const char*> failures[] = {
        {"nvEncMapInputResource", "Encode failed (NvEncoder::MapResources : m_nvenc.nvEncMapInputResource(m_hEncoder, "
                                  "&mapInputResource) returned error 20 at "},
        {"nvEncEncodePicture", "Encode failed (NvEncoder::EncodeFrame : nvEncEncodePicture API failed at "},
    };
    for (const auto& [entry, text] : failures) {
        HwEncoder fresh(packing::kUint8, 0, 1, 1000000, 16, 8, 30);
        fake.failing = {{entry, NV_ENC_ERR_GENERIC}};
        try { fresh.encode(DeviceBuffer(Bytes(16 * 8)).get(), 16, 16, 8, &type, false), ADD_FAILURE() << "no exception"; }
        catch (const Exception& e) {
            EXPECT_TRUE(e.message().rfind(text, 0) == 0 && e.message().substr(e.message().size() - 2) == "\n)") << e.message();
        }
        fake.failing.clear();
        // The failed picture left nothing mapped for the next one, which is a forced IDR; forced intra gives an I.
        EXPECT_GT(fresh.encode(DeviceBuffer(Bytes(16 * 8)).get(), 16, 16, 8, &type, false), 0u);
        EXPECT_EQ(std::make_pair(type, fake.pictureFlags.back()),
                  std::make_pair(uint32_t(NV_ENC_PIC_TYPE_IDR), uint32_t(NV_ENC_PIC_FLAG_FORCEIDR | NV_ENC_PIC_FLAG_OUTPUT_SPSPPS)));
        fresh.encode(DeviceBuffer(Bytes(16 * 8)).get(), 16, 16, 8, &type, true);
        EXPECT_EQ(type, uint32_t(NV_ENC_PIC_TYPE_I));
    }
}
// Each record holds NVENC's packet of its own picture and its type (lossless at 10 frames/s: an IDR every
// 5). A packet of the cap (3 x 16 x 8 bytes) is stored; one over it fails with its text and makes the next one
// a forced IDR with parameter sets, where the IDR period restarts. A frame without a stream is not encoded.
TEST_F(Encoding, RecordingsHoldThePacketsAndPictureTypesOfTheSession) {
    for (const auto& [noStream, oversize] : std::vector<std::pair<bool, size_t>>{{0, 0}, {0, 16 * 8 * 3 + 1}, {1, 0}}) {
        const bool fails = noStream || oversize;  // frame 2
        renew().packetBytes = {{1, 16 * 8 * 3}, {2, oversize}};
        Pipe pipe(ZOHW_CreateEncoder(packing::kUint16, 1, 1, 8, 8, 1000000, 10), &ZOHW_Destroy);
        TestFile file(tmpfile());
        const uint32_t metadata[64] = {}; uint64_t size = 0;
        for (uint32_t i = 0; pipe && i < 7; ++i) {
            const std::string text = ZOHW_Encode_And_Store(pipe.get(), noStream && i == 2 ? nullptr : file.get(), &size,
                                                           randomBytes(16 * 8, i).data(), 16, 5000, metadata, 64)
                                         ? std::string("status 1: ") + ZOHW_GetError(pipe.get()) : "";
            EXPECT_EQ(text, i != 2 || !fails ? "" : oversize ? "status 1: Encode output buffer overflow" : "status 1: ");
        }
        // Created at the data's width, re-created once at the NVENC picture's (two bytes a sample), then kept.
        EXPECT_EQ(std::make_pair(fake.calls["nvEncInitializeEncoder"], fake.initParams.encodeWidth), std::make_pair(size_t(2), 16u));
        ASSERT_EQ(ZOHW_CloseQRVContainer(pipe.get(), file.get()), 0u);
        EXPECT_EQ(fake.pictureFlags[3], oversize ? NV_ENC_PIC_FLAG_FORCEIDR | NV_ENC_PIC_FLAG_OUTPUT_SPSPPS : 0u);
        if (noStream) continue;  // frame 2 was refused before it was encoded: nothing to restart
        QrvSoftwareIndex tables;
        ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), tables) && tables.recordHeads.size() == 7u - fails);
        for (uint32_t k = 0; k < 7u - fails; ++k) {  // frame 2 left out when it failed
            const uint32_t i = k + (fails && k >= 2), type = (i - (fails && i > 2 ? 3 : 0)) % 5 ? NV_ENC_PIC_TYPE_P : NV_ENC_PIC_TYPE_IDR;
            Bytes surface(16 * 12), payload;
            uint16_to_nv12_reference(randomBytes(16 * 8, i).data(), 16, surface.data(), 16, 8, 8);
            QrvRecordHead head{}; uint32_t payloadBytes = 0;
            ASSERT_TRUE(qrvReadRecordAt(file.get(), tables.frameList[k].recordOffset, head, payloadBytes, &payload));
            EXPECT_EQ(std::make_tuple(head.frameNumber, head.frameType, tables.frameList[k].frameType), std::make_tuple(k + 1, type, type));
            EXPECT_EQ(payload, FakeNvenc::payload(i, type, surface.data(), 16, 16, 8, NV_ENC_BUFFER_FORMAT_NV12, i == 1 ? 16 * 8 * 3 : 0));
        }
    }
}
