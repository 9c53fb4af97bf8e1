// Decoder tests: the fake CUVID driver on the host device table. Each test starts with a fresh
// driver and fails on any breach of the CUVID contract, any driver object or device allocation
// left behind, and any device fault.
#pragma once

#include <array>
#include <cstring>
#include <memory>

#include "kernels/colour_reference.h"
#include "kernels/packing.h"
#include "kernels/packing_reference.h"
#include "support/fake_cuvid.h"
#include "support/hevc_streams.h"
#include "support/host_device.h"
#include "zo_qrv64.h"

using Pipe = std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)>;
using File = std::unique_ptr<FILE, int (*)(FILE*)>;


// ffmpeg's decode of every frame of `stream` as NV12 with pitch = width.
inline std::vector<Bytes> referenceNv12Frames(const HevcStream& stream) {
    std::vector<Bytes> frames;
    const size_t w = stream.width, h = stream.height, cw = (w + 1) / 2, ch = (h + 1) / 2;
    for (const auto& yuv : referenceYuv420Frames(stream)) {
        Bytes nv12(yuv.begin(), yuv.begin() + long(w * h));
        nv12.resize(w * h + w * (h / 2));
        for (size_t r = 0; r < h / 2; ++r)
            for (size_t c = 0; c < w / 2; ++c) {
                nv12[w * h + r * w + 2 * c] = yuv[w * h + r * cw + c];
                nv12[w * h + r * w + 2 * c + 1] = yuv[w * h + cw * ch + r * cw + c];
            }
        frames.push_back(nv12);
    }
    return frames;
}

class Decoding : public OnHostDevice {
protected:
    Decoding() : fake((resetFakeCuvid(), fakeCuvid())), driver_(fake.driverApi()), scopedDriver_(driver_) {}
    void TearDown() override {
        for (const std::string& breach : fake.faults) ADD_FAILURE() << breach;
        EXPECT_EQ(fake.liveObjects(), 0u) << "CUVID object left alive";
        OnHostDevice::TearDown();
    }

    // Skips the test (the caller returns on IsSkipped()) without the stream tools.
    void loadStream(const char* set, const char* name) {
        std::string whyMissing;
        const auto streams = hevcStreams(set, whyMissing);
        if (streams.empty()) GTEST_SKIP() << whyMissing;
        stream = hevcStream(streams, name);
        payloads = qrvPayloads(stream.qrvPath);
        reference = referenceNv12Frames(stream);
    }

    FakeCuvid& fake;
    HevcStream stream;
    std::vector<Bytes> payloads, reference;  // the recording's samples, ffmpeg's NV12 pictures

private:
    DriverApi driver_;
    ScopedDriverApi scopedDriver_;
};

// Two access units as one sample.
inline Bytes joined(const Bytes& a, const Bytes& b) {
    Bytes sample(a);
    sample.insert(sample.end(), b.begin(), b.end());
    return sample;
}

// The caller's image for data format `code` from a decoded NV12 frame of `pitch`.
inline Bytes unpackedByTheCpuTwin(uint32_t code, const Bytes& nv12, uint32_t pitch, uint32_t w, uint32_t h) {
    Bytes out(packing::packedSize(code, w, h), 0);
    const uint32_t tight = packing::tightPitch(code, w);
    switch (code) {
    case 0: Nv12ToColor32_reference(nv12.data(), int(w), out.data(), int(4 * w), int(w), int(h), 0); break;
    case 1: nv12_to_uyvy_reference(nv12.data(), pitch, out.data(), tight, w, h); break;
    case 2: nv12_to_uint4_reference(nv12.data(), pitch, out.data(), tight, w, h); break;
    case 3: nv12_to_uint8_reference(nv12.data(), pitch, out.data(), tight, w, h); break;
    case 4: nv12_to_uint16_reference(nv12.data(), pitch, out.data(), tight, w, h); break;
    case 5: nv12_to_uint32_reference(nv12.data(), pitch, out.data(), tight, w, h); break;
    }
    return out;
}

struct Frame {
    uint32_t status = 1, number = 0, type = 0;
    uint64_t time = 0;
    Bytes data;
    std::array<uint8_t, 256> metadata{};
};

// One ZOHW_DecodeFrameAndMetadata into a buffer of `bytes`.
inline Frame decodeRecord(ZoHwPipe* p, FILE* f, size_t bytes) {
    Frame r;
    r.data.assign(bytes, 0xEE);
    r.status = ZOHW_DecodeFrameAndMetadata(p, f, r.data.data(), &r.number, &r.time, &r.type, r.metadata.data());
    return r;
}

// Reads a recording of `stream` in order and by seeking through a pipe of data format `code`
// (as wide as the picture allows) that decodes as `decoderType`, against ffmpeg's decode.
inline void expectPipeReadsAsTheReference(const HevcStream& stream, uint32_t codec, uint32_t code,
                                          uint32_t decoderType) {
    const auto reference = referenceNv12Frames(stream);
    const uint32_t W = stream.width, h = stream.height, n = uint32_t(reference.size());
    const uint32_t w = code == packing::kUint16 ? W / 2 : code == packing::kUint32 ? W / 4 : W;
    Pipe p(ZOHW_CreateDecoder(code, codec, w, h, 0), &ZOHW_Destroy);
    ASSERT_TRUE(p);
    ASSERT_EQ(ZOHW_GetDecoderType(p.get()), decoderType);
    File f(fopen(stream.qrvPath.c_str(), "rb"), &fclose);
    ASSERT_EQ(ZOHW_CreateQRVTracker(p.get(), f.get()), 0u);
    ASSERT_EQ(ZOHW_SetHEVCPositionInFile(p.get(), f.get(), 0), 0u) << "past the client's header";
    const uint32_t bytes = packing::packedSize(code, w, h);
    auto expected = [&](size_t i) { return unpackedByTheCpuTwin(code, reference[i], W, w, h); };

    // The last record's frame number (N) is above N - 1: sequential reading never delivers it.
    for (uint32_t i = 0; i + 1 < n; ++i) {
        const Frame r = decodeRecord(p.get(), f.get(), bytes);
        ASSERT_EQ(r.status, 0u) << "record " << i;
        EXPECT_EQ(r.number, i + 1);
        EXPECT_TRUE(r.data == expected(i)) << "record " << i;
        EXPECT_EQ(r.type == 3, i % stream.keyint == 0);
    }
    EXPECT_EQ(decodeRecord(p.get(), f.get(), bytes).status, 1u);
    // The hardware reader's sample infos stop at N - 1: samples 1 to N - 2 are served.
    uint64_t time = 0;
    EXPECT_EQ(ZOHW_GetTimeStampForSample(p.get(), f.get(), int32_t(n - 2), &time), 0u);
    EXPECT_EQ(time, (n - 2) * 40u);  // zoqrv import: 40,000 µs a frame at 25 fps
    EXPECT_EQ(ZOHW_GetTimeStampForSample(p.get(), f.get(), int32_t(n - 1), &time), 1u);

    for (uint32_t s : {n - 2, 1u, stream.keyint, 0u}) {
        ASSERT_EQ(ZOHW_SetHEVCPositionInFile(p.get(), f.get(), int32_t(s)), 0u) << "seek to " << s;
        const Frame r = decodeRecord(p.get(), f.get(), bytes);
        ASSERT_EQ(r.status, 0u) << "after a seek to " << s;
        EXPECT_EQ(r.number, s + 1);
        EXPECT_TRUE(r.data == expected(s)) << "after a seek to " << s;
    }
}
