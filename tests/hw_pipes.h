// Hardware pipes against ffmpeg's decode: on the fake CUVID (test_hw_decoder) and a GPU (test_gpu_decoder).
#pragma once
#include <gtest/gtest.h>

#include "kernels/colour_reference.h"
#include "kernels/packing.h"
#include "kernels/packing_reference.h"
#include "support.h"

namespace {

constexpr uint32_t kHardware = 1, kSoftware = 2, kUint8 = 3;

struct StreamCase {
    const char *set, *name;
    uint32_t codec;  // as the C interface numbers them
};
const StreamCase kHevc200 = {"tests", "gop5_200x120", 1}, kHevc198 = {"tests", "gop4_198x118", 1},
                 kH264200 = {"h264", "h264_gop5_200x120", 0}, kH264198 = {"h264", "h264_gop4_198x118", 0};
void PrintTo(const StreamCase& c, std::ostream* out) { *out << c.name; }  // readable test names

// ffmpeg's decode of every frame of `stream` as NV12 with pitch = width.
std::vector<Bytes> referenceNv12Frames(const HevcStream& stream) {
    std::vector<Bytes> frames;
    const size_t w = stream.width, h = stream.height, cw = (w + 1) / 2, ch = (h + 1) / 2;
    for (const Bytes& yuv : stream.yuv420Frames()) {
        Bytes nv12(yuv.begin(), yuv.begin() + long(w * h));
        nv12.resize(w * h + w * (h / 2));
        for (size_t r = 0; r < h / 2; ++r)
            for (size_t c = 0; c < w / 2; ++c)
                for (size_t k = 0; k < 2; ++k) nv12[w * h + r * w + 2 * c + k] = yuv[w * h + k * cw * ch + r * cw + c];
        frames.push_back(nv12);
    }
    return frames;
}

// The caller's image for data format `code` from a decoded NV12 frame of `pitch`.
Bytes unpackedByTheCpuTwin(uint32_t code, const Bytes& nv12, uint32_t pitch, uint32_t w, uint32_t h) {
    using Unpack = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned, unsigned);
    const Unpack unpack[] = {nullptr, nv12_to_uyvy_reference, nv12_to_uint4_reference, nv12_to_uint8_reference,
                             nv12_to_uint16_reference, nv12_to_uint32_reference};
    Bytes out(packing::packedSize(code, w, h), 0);
    if (code) unpack[code](nv12.data(), pitch, out.data(), packing::tightPitch(code, w), w, h);
    else Nv12ToColor32_reference(nv12.data(), int(w), out.data(), int(4 * w), int(w), int(h), 0);
    return out;
}

// Reads a recording of `stream` in order through a pipe of data format `code` (as wide as the
// picture allows) that decodes in hardware, against ffmpeg's decode.
void expectPipeReadsAsTheReference(const HevcStream& stream, uint32_t codec, uint32_t code) {
    const auto reference = referenceNv12Frames(stream);
    const uint32_t W = stream.width, h = stream.height, n = uint32_t(reference.size());
    const uint32_t w = code == packing::kUint16 ? W / 2 : code == packing::kUint32 ? W / 4 : W;
    Pipe p = decoderPipe(code, codec, w, h);
    ASSERT_TRUE(p);
    ASSERT_EQ(ZOHW_GetDecoderType(p.get()), kHardware);
    TestFile f(fopen(stream.qrvPath.c_str(), "rb"));
    ASSERT_EQ(ZOHW_CreateQRVTracker(p.get(), f.get()), 0u);
    ASSERT_EQ(ZOHW_SetHEVCPositionInFile(p.get(), f.get(), 0), 0u) << "past the client's header";
    const uint32_t bytes = packing::packedSize(code, w, h);
    // The last record's frame number (N) is above N - 1: sequential reading never delivers it.
    for (uint32_t i = 0; i < n; ++i) {
        const DecodedFrame r = decodeNext(p.get(), f.get(), bytes);
        ASSERT_EQ(r.status, i + 1 < n ? 0u : 1u) << "record " << i;
        if (i + 1 == n) break;
        EXPECT_EQ(r.number, i + 1);
        EXPECT_TRUE(r.data == unpackedByTheCpuTwin(code, reference[i], W, w, h)) << "record " << i;
        EXPECT_EQ(r.type == 3, i % stream.keyint == 0);
    }
    // The hardware reader's sample infos stop at N - 1: samples 1 to N - 2 are served.
    uint64_t time = 0;
    EXPECT_EQ(ZOHW_GetTimeStampForSample(p.get(), f.get(), int32_t(n - 2), &time), 0u);
    EXPECT_EQ(time, (n - 2) * 40u);  // zoqrv import: 40,000 µs a frame at 25 fps
    EXPECT_EQ(ZOHW_GetTimeStampForSample(p.get(), f.get(), int32_t(n - 1), &time), 1u);
    // A seek beyond the records fails (with "invalid vector<T> subscript": c_host.c, fuzz_seek_stress).
    EXPECT_EQ(ZOHW_SetHEVCPositionInFile(p.get(), f.get(), int32_t(n)), 1u);
}

// Every data format on the HEVC and H.264 recordings, coded sizes larger than the pictures among them.
const auto kPipes = testing::Combine(testing::Values(kHevc200, kHevc198, kH264200, kH264198), testing::Range(0u, 6u));
}  // namespace
