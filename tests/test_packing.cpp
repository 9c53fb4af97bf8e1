// The packed NV12 layout of non-video data, checked through the CPU twins of the kernels,
// and the sizes and staging rules of the launch side.
#include "codec/Exception.h"
#include "kernels/packing.h"
#include "kernels/packing_reference.h"

#include <cuda_runtime_api.h>
#include <gtest/gtest.h>

#include "support/random_bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace {

using PackingFunction = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned,
                                 unsigned);

constexpr uint8_t kPoison = 0xA5;

struct Format {
    uint32_t code;
    PackingFunction pack;
    PackingFunction unpack;
    uint32_t lumaBytesPerPixel;  // bytes of the widened NV12 row per data pixel
};

const Format kUint4{packing::kUint4, uint4_to_nv12_reference, nv12_to_uint4_reference, 1};
const Format kUint8{packing::kUint8, uint8_to_nv12_reference, nv12_to_uint8_reference, 1};
const Format kUint16{packing::kUint16, uint16_to_nv12_reference, nv12_to_uint16_reference, 2};
const Format kUint32{packing::kUint32, uint32_to_nv12_reference, nv12_to_uint32_reference, 4};
const Format kUyvy{packing::kUyvy, uyvy_to_nv12_reference, nv12_to_uyvy_reference, 1};

// An NV12 frame whose pitch is wider than its rows, filled with poison so that untouched bytes
// show; its chroma plane has (h + 1) / 2 rows.
struct Frame {
    uint32_t pitch;
    uint32_t height;
    Bytes bytes;
    Frame(uint32_t rowBytes, uint32_t h)
        : pitch(rowBytes + 7), height(h), bytes(size_t(pitch) * (h + (h + 1) / 2), kPoison) {}
    uint8_t luma(uint32_t x, uint32_t y) const { return bytes[size_t(y) * pitch + x]; }
    uint8_t chroma(uint32_t x, uint32_t y) const { return bytes[size_t(height + y) * pitch + x]; }
};

struct Size {
    uint32_t width, height;
};
// Widths around the 16-sample block and the 32-sample 4-bit decode block; odd heights.
const Size kAwkwardSizes[] = {{1, 1}, {2, 3}, {3, 2}, {15, 5}, {16, 4}, {17, 7},
                              {31, 3}, {32, 2}, {33, 9}, {70, 11}, {129, 6}};

}  // namespace

// ---- Sizes and launch geometry ---------------------------------------------------------------

TEST(PackedSize, FollowsTheDataFormat) {
    EXPECT_EQ(packing::packedSize(0, 7, 3), 84u);
    EXPECT_EQ(packing::packedSize(1, 7, 3), 42u);
    EXPECT_EQ(packing::packedSize(2, 7, 3), 10u);  // 21 samples, the odd half byte dropped
    EXPECT_EQ(packing::packedSize(3, 7, 3), 21u);
    EXPECT_EQ(packing::packedSize(4, 7, 3), 42u);
    EXPECT_EQ(packing::packedSize(5, 7, 3), 84u);
    for (uint32_t code = 0; code <= 5; ++code) {
        EXPECT_EQ(packing::packedSize(code, 0, 100), 0u) << code;
        EXPECT_EQ(packing::packedSize(code, 100, 0), 0u) << code;
    }
    for (uint32_t code : {6u, 7u, 0xFFFFFFFFu}) {
        EXPECT_EQ(packing::packedSize(code, 64, 64), 0u) << code;
        EXPECT_EQ(packing::tightPitch(code, 64), 0u) << code;
    }
}

TEST(PackedSize, WrapsInUnsigned32BitArithmetic) {
    // 65536 · 32768 = 2^31 pixels: ×4 and ×2 overflow 32 bits, the halving does not.
    EXPECT_EQ(packing::packedSize(5, 65536, 32768), 0u);
    EXPECT_EQ(packing::packedSize(4, 65536, 32768), 0u);
    EXPECT_EQ(packing::packedSize(3, 65536, 32768), 0x80000000u);
    EXPECT_EQ(packing::packedSize(2, 65536, 32768), 0x40000000u);
    EXPECT_EQ(packing::packedSize(2, 65536, 65536), 0u);
}

TEST(PackedSize, TightPitchTimesHeightIsThePackedSizeForEvenWidths) {
    for (uint32_t code = 0; code <= 5; ++code)
        for (uint32_t width : {0u, 2u, 16u, 34u, 3840u})
            EXPECT_EQ(packing::tightPitch(code, width) * 9, packing::packedSize(code, width, 9))
                << "code " << code << " width " << width;
}

TEST(LaunchGeometry, CoversTheImageWithAtMostOneExtraBlock) {
    for (uint32_t width : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 33u, 3840u}) {
        for (uint32_t height : {0u, 1u, 2u, 3u, 2160u}) {
            const auto encode = packing::encodeGeometry(width, height);
            EXPECT_EQ(encode.blockX, 16u);
            EXPECT_EQ(encode.blockY, 2u);
            EXPECT_GE(encode.gridX * 16, width + 1);
            EXPECT_LE(encode.gridX * 16, width + 16);
            EXPECT_GE(encode.gridY * 2, height + 1);
            EXPECT_LE(encode.gridY * 2, height + 2);
            for (uint32_t code = 1; code <= 5; ++code) {
                const auto decode = packing::decodeGeometry(code, width, height);
                const uint32_t threadsPerRow = code == packing::kUint4 ? width / 2 : width;
                EXPECT_GE(decode.gridX * decode.blockX, threadsPerRow + 1) << code;
                EXPECT_LE(decode.gridX * decode.blockX, threadsPerRow + 16) << code;
                EXPECT_EQ(decode.gridY, encode.gridY);
            }
        }
    }
}

// ---- Codes 2 to 5: exact round trips and the byte layout ------------------------------------

class LosslessRoundTrip : public ::testing::TestWithParam<Format> {};

TEST_P(LosslessRoundTrip, RandomImagesComeBackBitExact) {
    const Format format = GetParam();
    uint32_t seed = 1;
    for (const Size size : kAwkwardSizes) {
        const uint32_t pitch = packing::tightPitch(format.code, size.width);
        // Odd 4-bit widths: a row holds width / 2 whole bytes.
        const Bytes image = randomBytes(size_t(pitch) * size.height, seed++);
        Frame frame(size.width * format.lumaBytesPerPixel, size.height);
        format.pack(image.data(), pitch, frame.bytes.data(), frame.pitch, size.width, size.height);
        Bytes back(image.size() + 16, kPoison);
        format.unpack(frame.bytes.data(), frame.pitch, back.data(), pitch, size.width, size.height);
        EXPECT_EQ(Bytes(back.begin(), back.begin() + image.size()), image)
            << size.width << "x" << size.height;
        EXPECT_EQ(Bytes(back.begin() + image.size(), back.end()), Bytes(16, kPoison))
            << "wrote past the packed size at " << size.width << "x" << size.height;
    }
}

TEST_P(LosslessRoundTrip, FillsTheFrameAndZeroesChromaWithinTheImageOnly) {
    const Format format = GetParam();
    const uint32_t width = 19, height = 5;
    const uint32_t rowBytes = width * format.lumaBytesPerPixel;
    const Bytes image = randomBytes(packing::tightPitch(format.code, width) * height, 7);
    Frame frame(rowBytes, height);
    format.pack(image.data(), packing::tightPitch(format.code, width), frame.bytes.data(), frame.pitch,
                width, height);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < frame.pitch; ++x) {
            if (x >= rowBytes) {
                EXPECT_EQ(frame.luma(x, y), kPoison) << x << "," << y;
            }
            if (y < (height + 1) / 2) {
                EXPECT_EQ(frame.chroma(x, y), x < rowBytes ? 0 : kPoison) << x << "," << y;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Codes2To5, LosslessRoundTrip, ::testing::Values(kUint4, kUint8, kUint16, kUint32),
                         [](const auto& info) { return "code" + std::to_string(info.param.code); });

TEST(PackedLayout, MultiByteSamplesKeepTheirByteOrderAlongTheLumaRow) {
    const uint16_t words[3] = {0x1234, 0xBEEF, 0x00FF};
    Frame frame16(6, 1);
    uint16_to_nv12_reference(reinterpret_cast<const uint8_t*>(words), 6, frame16.bytes.data(), frame16.pitch, 3, 1);
    const uint8_t expected16[6] = {0x34, 0x12, 0xEF, 0xBE, 0xFF, 0x00};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(frame16.luma(i, 0), expected16[i]) << i;

    const uint32_t dwords[2] = {0x01020304, 0xA0B0C0D0};
    Frame frame32(8, 1);
    uint32_to_nv12_reference(reinterpret_cast<const uint8_t*>(dwords), 8, frame32.bytes.data(), frame32.pitch, 2, 1);
    const uint8_t expected32[8] = {0x04, 0x03, 0x02, 0x01, 0xD0, 0xC0, 0xB0, 0xA0};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(frame32.luma(i, 0), expected32[i]) << i;
}

TEST(PackedLayout, FourBitSamplesLowNibbleFirstAndOddWidthsEndInZero) {
    const uint8_t rows[2][2] = {{0xBA, 0x1F}, {0x5C, 0x70}};  // width 5: two bytes per row
    Frame frame(5, 2);
    uint4_to_nv12_reference(&rows[0][0], 2, frame.bytes.data(), frame.pitch, 5, 2);
    const uint8_t expected[2][5] = {{0xA, 0xB, 0xF, 0x1, 0}, {0xC, 0x5, 0x0, 0x7, 0}};
    for (uint32_t y = 0; y < 2; ++y)
        for (uint32_t x = 0; x < 5; ++x) EXPECT_EQ(frame.luma(x, y), expected[y][x]) << x << "," << y;

    // Decoding masks each luma byte to its low nibble.
    frame.bytes[0] = 0xF3;
    frame.bytes[1] = 0x2E;
    uint8_t joined[2] = {0, 0};
    nv12_to_uint4_reference(frame.bytes.data(), frame.pitch, joined, 2, 5, 1);
    EXPECT_EQ(joined[0], 0xE3);
    EXPECT_EQ(joined[1], 0x1F);
}

TEST(PackedLayout, ZeroWidthOrHeightWritesNothing) {
    const Bytes image = randomBytes(64, 3);
    for (const Format& format : {kUint4, kUint8, kUint16, kUint32, kUyvy}) {
        for (const Size size : {Size{0, 4}, Size{8, 0}}) {
            Bytes frame(256, kPoison);
            format.pack(image.data(), 16, frame.data(), 16, size.width, size.height);
            EXPECT_EQ(frame, Bytes(256, kPoison)) << format.code;
            Bytes out(256, kPoison);
            format.unpack(image.data(), 16, out.data(), 16, size.width, size.height);
            EXPECT_EQ(out, Bytes(256, kPoison)) << format.code;
        }
    }
}

// ---- UYVY ------------------------------------------------------------------------------------

TEST(UyvyPacking, LumaExactChromaTheRoundedMeanOfEachRowPair) {
    for (const Size size : kAwkwardSizes) {
        const uint32_t w = size.width, h = size.height, pitch = 2 * w;
        const Bytes image = randomBytes(size_t(pitch) * h, w * 31 + h);
        Frame frame(w, h);
        uyvy_to_nv12_reference(image.data(), pitch, frame.bytes.data(), frame.pitch, w, h);
        Bytes back(image.size(), kPoison);
        nv12_to_uyvy_reference(frame.bytes.data(), frame.pitch, back.data(), pitch, w, h);
        for (uint32_t y = 0; y < h; ++y) {
            const uint32_t top = y & ~1u;
            const uint32_t bottom = top + 1 < h ? top + 1 : top;
            for (uint32_t x = 0; x < w; ++x) {
                const uint8_t luma = image[size_t(y) * pitch + 2 * x + 1];
                // U for even x, V for odd x: UYVY byte 2x.
                const uint8_t chroma = static_cast<uint8_t>(
                    (image[size_t(top) * pitch + 2 * x] + image[size_t(bottom) * pitch + 2 * x] + 1) / 2);
                ASSERT_EQ(frame.luma(x, y), luma) << w << "x" << h << " at " << x << "," << y;
                ASSERT_EQ(back[size_t(y) * pitch + 2 * x + 1], luma) << x << "," << y;
                ASSERT_EQ(frame.chroma(x, y / 2), chroma) << w << "x" << h << " at " << x << "," << y;
                ASSERT_EQ(back[size_t(y) * pitch + 2 * x], chroma) << x << "," << y;
            }
            for (uint32_t x = w; x < frame.pitch; ++x) ASSERT_EQ(frame.luma(x, y), kPoison);
        }
    }
}

TEST(UyvyPacking, ImageWithEqualRowPairsRoundTripsExactly) {
    const uint32_t w = 21, h = 6, pitch = 2 * w;
    Bytes image = randomBytes(size_t(pitch) * h, 11);
    for (uint32_t y = 1; y < h; y += 2)
        for (uint32_t x = 0; x < w; ++x) image[size_t(y) * pitch + 2 * x] = image[size_t(y - 1) * pitch + 2 * x];
    Frame frame(w, h);
    uyvy_to_nv12_reference(image.data(), pitch, frame.bytes.data(), frame.pitch, w, h);
    Bytes back(image.size(), kPoison);
    nv12_to_uyvy_reference(frame.bytes.data(), frame.pitch, back.data(), pitch, w, h);
    EXPECT_EQ(back, image);
}

// ---- Launch side without device work ----------------------------------------------------------

TEST(PackingLaunch, UnknownFormatLaunchesNothingAndLeavesStagingAlone) {
    packing::StagingBuffer staging;
    Bytes image(64, kPoison), out(64, kPoison);
    EXPECT_EQ(packing::launchUnpackForDecode(7, image.data(), 8, out.data(), 4, 4, staging), 0u);
    packing::launchPackForEncode(7, image.data(), 8, out.data(), 8, 4, 4, staging);
    packing::launchPackForEncode(packing::kColour32, image.data(), 16, out.data(), 16, 4, 4, staging);
    EXPECT_EQ(staging.ptr, nullptr);
    EXPECT_EQ(staging.capacity, 0u);
    EXPECT_EQ(out, Bytes(64, kPoison));
}

TEST(StagingBuffer, ALargeEnoughBufferIsKept) {
    int marker = 0;
    packing::StagingBuffer staging{&marker, 4096};
    packing::growEncoderStaging(staging, 4096);
    packing::growDecoderStaging(staging, 100);
    EXPECT_EQ(staging.ptr, &marker);
    EXPECT_EQ(staging.capacity, 4096u);
}

TEST(StagingBuffer, FailedAllocationRecordsTheSizeAndOnlyTheEncoderSideThrows) {
    int devices = 0;
    if (cudaGetDeviceCount(&devices) == cudaSuccess && devices > 0)
        GTEST_SKIP() << "needs a machine where device allocation fails";
    packing::StagingBuffer encoder;
    try {
        packing::growEncoderStaging(encoder, 1000);
        FAIL() << "no exception";
    } catch (const Exception& e) {
        const std::string prefix = "Failed to allocate temporary device memory (Error ";
        EXPECT_EQ(e.message().compare(0, prefix.size(), prefix), 0) << e.message();
        EXPECT_EQ(e.message().back(), ')') << e.message();
    }
    EXPECT_EQ(encoder.capacity, 1000u);

    packing::StagingBuffer decoder;
    packing::growDecoderStaging(decoder, 2000);
    EXPECT_EQ(decoder.capacity, 2000u);
}
