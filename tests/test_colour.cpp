// Colour matrices and the YUV/BGRA conversions, checked through the CPU twins of the kernels.
#include "kernels/colour.h"
#include "kernels/colour_reference.h"

#include <gtest/gtest.h>

#include "support/random_bytes.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr uint8_t kPoison = 0xA5;

void expectMatrixNear(const ColourMatrix& actual, const double (&expected)[3][3], const char* what) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            EXPECT_NEAR(actual.m[i][j], expected[i][j], 5e-5) << what << " [" << i << "][" << j << "]";
}

void expectSameMatrix(const ColourMatrix& a, const ColourMatrix& b) {
    EXPECT_EQ(std::memcmp(a.m, b.m, sizeof a.m), 0);
}

// NV12 frame of one flat colour: luma rows, then (h + 1) / 2 rows of interleaved U, V.
Bytes flatNv12(int width, int height, int pitch, uint8_t y, uint8_t u, uint8_t v) {
    Bytes frame(size_t(pitch) * (height + (height + 1) / 2), 0);
    for (int row = 0; row < height; ++row) std::memset(&frame[size_t(row) * pitch], y, width);
    for (int row = 0; row < (height + 1) / 2; ++row)
        for (int x = 0; x + 1 < width + 1; x += 2) {
            frame[size_t(height + row) * pitch + x] = u;
            frame[size_t(height + row) * pitch + x + 1] = v;
        }
    return frame;
}

BGRA32 pixel32(const Bytes& image, int pitch, int x, int y) {
    BGRA32 p;
    std::memcpy(&p, &image[size_t(y) * pitch + 4 * x], sizeof p);
    return p;
}

BGRA64 pixel64(const Bytes& image, int pitch, int x, int y) {
    BGRA64 p;
    std::memcpy(&p, &image[size_t(y) * pitch + 8 * x], sizeof p);
    return p;
}

}  // namespace

// ---- Matrices --------------------------------------------------------------------------------

TEST(ColourMatrix, MatchesTheStandardsValues) {
    const double bt709Yuv2Rgb[3][3] = {
        {1.16438, 0, 1.83367}, {1.16438, -0.21812, -0.54508}, {1.16438, 2.16063, 0}};
    const double bt709Rgb2Yuv[3][3] = {
        {0.18259, 0.61423, 0.06201}, {-0.09840, -0.33101, 0.42941}, {0.42941, -0.39004, -0.03937}};
    const double bt601Yuv2Rgb[3][3] = {
        {1.164384, 0, 1.632466}, {1.164384, -0.400707, -0.831529}, {1.164384, 2.063288, 0}};
    const double bt601Rgb2Yuv[3][3] = {{0.256788, 0.504129, 0.097906},
                                       {-0.144914, -0.284497, 0.429412},
                                       {0.429412, -0.359579, -0.069833}};
    const double bt2020Yuv2Rgb[3][3] = {
        {1.168932, 0, 1.723707}, {1.168932, -0.192351, -0.667873}, {1.168932, 2.199229, 0}};
    const double bt2020Rgb2Yuv[3][3] = {{0.224735, 0.580017, 0.050730},
                                        {-0.119451, -0.308290, 0.427741},
                                        {0.427741, -0.393338, -0.034403}};
    expectMatrixNear(yuvToRgbMatrix(0), bt709Yuv2Rgb, "BT.709 YUV to RGB");
    expectMatrixNear(rgbToYuvMatrix(0), bt709Rgb2Yuv, "BT.709 RGB to YUV");
    expectMatrixNear(yuvToRgbMatrix(2), bt601Yuv2Rgb, "BT.601 YUV to RGB");
    expectMatrixNear(rgbToYuvMatrix(2), bt601Rgb2Yuv, "BT.601 RGB to YUV");
    expectMatrixNear(yuvToRgbMatrix(4), bt2020Yuv2Rgb, "BT.2020 YUV to RGB");
    expectMatrixNear(rgbToYuvMatrix(4), bt2020Rgb2Yuv, "BT.2020 RGB to YUV");
}

TEST(ColourMatrix, EveryOtherCodeMeansBt709) {
    for (int code : {1, 3, 5, -1, 709, 0x7FFFFFFF}) {
        SCOPED_TRACE(code);
        expectSameMatrix(yuvToRgbMatrix(code), yuvToRgbMatrix(0));
        expectSameMatrix(rgbToYuvMatrix(code), rgbToYuvMatrix(0));
        const ColourConstants c = GetConstants(code);
        EXPECT_EQ(c.wr, 0.2126f);
        EXPECT_EQ(c.wb, 0.0722f);
        EXPECT_EQ(c.black, 16);
        EXPECT_EQ(c.white, 235);
        EXPECT_EQ(c.max, 255);
    }
    const ColourConstants bt2020 = GetConstants(4);
    EXPECT_EQ(bt2020.black, 4096);
    EXPECT_EQ(bt2020.white, 60160);
    EXPECT_EQ(bt2020.max, 65535);
}

TEST(ColourMatrix, TheTwoMatricesAreInverses) {
    for (int code : {0, 2, 4}) {
        const ColourMatrix a = yuvToRgbMatrix(code), b = rgbToYuvMatrix(code);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                double sum = 0;
                for (int k = 0; k < 3; ++k) sum += double(a.m[i][k]) * b.m[k][j];
                EXPECT_NEAR(sum, i == j ? 1.0 : 0.0, 1e-5) << code << " [" << i << "][" << j << "]";
            }
    }
}

// ---- NV12 to packed BGRA ------------------------------------------------------------------

TEST(Nv12ToColor32, KnownBt709Colours) {
    struct Case {
        uint8_t y, u, v;
        BGRA32 expected;
    };
    const Case cases[] = {
        {16, 128, 128, {0, 0, 0, 255}},        // black
        {235, 128, 128, {255, 255, 255, 255}}, // white
        {63, 102, 240, {0, 0, 255, 255}},      // limited-range red
        {173, 42, 26, {0, 255, 0, 255}},       // limited-range green
        {32, 240, 118, {255, 0, 0, 255}},      // limited-range blue
        {126, 128, 128, {128, 128, 128, 255}}, // mid grey: 110 · 1.16438 = 128.08
        {0, 128, 128, {0, 0, 0, 255}},         // below black clamps
    };
    const int width = 4, height = 2, pitch = 4;
    for (const Case& c : cases) {
        const Bytes nv12 = flatNv12(width, height, pitch, c.y, c.u, c.v);
        Bytes bgra(size_t(width) * 4 * height, kPoison);
        Nv12ToColor32_reference(nv12.data(), pitch, bgra.data(), width * 4, width, height, 0);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const BGRA32 p = pixel32(bgra, width * 4, x, y);
                EXPECT_EQ(p.b, c.expected.b) << int(c.y) << "," << int(c.u) << "," << int(c.v);
                EXPECT_EQ(p.g, c.expected.g) << int(c.y) << "," << int(c.u) << "," << int(c.v);
                EXPECT_EQ(p.r, c.expected.r) << int(c.y) << "," << int(c.u) << "," << int(c.v);
                EXPECT_EQ(p.a, 255);
            }
    }
}

TEST(Nv12ToColor32, EachBlockUsesItsOwnChromaPair) {
    // Width 4, height 4: four chroma pairs; pair (1, 1) red, the others neutral.
    const int width = 4, height = 4, pitch = 4;
    Bytes nv12 = flatNv12(width, height, pitch, 63, 128, 128);
    nv12[size_t(height + 1) * pitch + 2] = 102;
    nv12[size_t(height + 1) * pitch + 3] = 240;
    Bytes bgra(size_t(width) * 4 * height, kPoison);
    Nv12ToColor32_reference(nv12.data(), pitch, bgra.data(), width * 4, width, height, 0);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const bool red = x >= 2 && y >= 2;
            const BGRA32 p = pixel32(bgra, width * 4, x, y);
            EXPECT_EQ(p.r, red ? 255 : 55) << x << "," << y;
            EXPECT_EQ(p.b, red ? 0 : 55) << x << "," << y;
        }
}

TEST(Nv12ToColor32, OddSizesWriteExactlyTheImage) {
    const int width = 5, height = 3, nv12Pitch = 6, bgraPitch = width * 4 + 12;
    const Bytes nv12 = randomBytes(size_t(nv12Pitch) * (height + 2), 5);
    Bytes bgra(size_t(bgraPitch) * (height + 1), kPoison);
    Nv12ToColor32_reference(nv12.data(), nv12Pitch, bgra.data(), bgraPitch, width, height, 0);
    for (int y = 0; y <= height; ++y)
        for (int byte = 0; byte < bgraPitch; ++byte) {
            const bool inside = y < height && byte < width * 4;
            if (!inside) {
                EXPECT_EQ(bgra[size_t(y) * bgraPitch + byte], kPoison) << byte << "," << y;
            } else if (byte % 4 == 3) {
                EXPECT_EQ(bgra[size_t(y) * bgraPitch + byte], 255) << byte << "," << y;
            }
        }
}

// ---- Other output depths and layouts follow the 8-bit result --------------------------------

TEST(ColourDepths, WideningAndNarrowingFollowTheDocumentedRules) {
    const int width = 6, height = 4;
    const Bytes nv12 = randomBytes(size_t(width) * height * 3 / 2, 21);
    Bytes bgra32(size_t(width) * 4 * height), bgra64(size_t(width) * 8 * height);
    Nv12ToColor32_reference(nv12.data(), width, bgra32.data(), width * 4, width, height, 2);
    Nv12ToColor64_reference(nv12.data(), width, bgra64.data(), width * 8, width, height, 2);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const BGRA32 narrow = pixel32(bgra32, width * 4, x, y);
            const BGRA64 wide = pixel64(bgra64, width * 8, x, y);
            EXPECT_EQ(wide.b, narrow.b * 257);
            EXPECT_EQ(wide.g, narrow.g * 257);
            EXPECT_EQ(wide.r, narrow.r * 257);
            EXPECT_EQ(wide.a, 65535);
        }

    // 16-bit input: the 8-bit output is the 16-bit output without its low byte.
    const Bytes p016 = randomBytes(size_t(width) * 2 * height * 3 / 2, 22);
    P016ToColor32_reference(p016.data(), width * 2, bgra32.data(), width * 4, width, height, 4);
    P016ToColor64_reference(p016.data(), width * 2, bgra64.data(), width * 8, width, height, 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const BGRA32 narrow = pixel32(bgra32, width * 4, x, y);
            const BGRA64 wide = pixel64(bgra64, width * 8, x, y);
            EXPECT_EQ(narrow.b, wide.b >> 8);
            EXPECT_EQ(narrow.g, wide.g >> 8);
            EXPECT_EQ(narrow.r, wide.r >> 8);
            EXPECT_EQ(narrow.a, 255);
        }
}

// Black, mid and max come from the colour standard's table, not from the samples' depth:
// 16-bit samples holding BT.709 code values convert as the 8-bit codes they are.
TEST(ColourDepths, CodeValuesFollowTheColourStandard) {
    const uint16_t white[6] = {235, 235, 235, 235, 128, 128};  // a 2 x 2 P016 frame
    Bytes bgra(2 * 8 * 2);
    P016ToColor64_reference(reinterpret_cast<const uint8_t*>(white), 4, bgra.data(), 16, 2, 2, 0);
    for (int i = 0; i < 4; ++i) {
        const BGRA64 p = pixel64(bgra, 16, i % 2, i / 2);
        EXPECT_EQ(p.b, 65535);
        EXPECT_EQ(p.g, 65535);
        EXPECT_EQ(p.r, 65535);
    }
}

TEST(ColourPlanar, PlanesHoldTheChannelsOfThePackedResult) {
    const int width = 7, height = 5, pitch = 9;
    const Bytes nv12 = randomBytes(size_t(width + 1) * (height + 3), 31);
    Bytes packed(size_t(width) * 4 * height);
    Bytes planes(size_t(pitch) * height * 3, kPoison);
    Nv12ToColor32_reference(nv12.data(), width + 1, packed.data(), width * 4, width, height, 0);
    Nv12ToColorPlanar_reference(nv12.data(), width + 1, planes.data(), pitch, width, height, 0);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < pitch; ++x) {
            for (int plane = 0; plane < 3; ++plane) {
                const uint8_t actual = planes[size_t(plane * height + y) * pitch + x];
                if (x >= width) {
                    EXPECT_EQ(actual, kPoison);
                    continue;
                }
                const BGRA32 p = pixel32(packed, width * 4, x, y);
                const uint8_t channels[3] = {p.b, p.g, p.r};
                EXPECT_EQ(actual, channels[plane]) << "plane " << plane << " at " << x << "," << y;
            }
        }
}

// ---- BGRA64 to P016 -----------------------------------------------------------------------

TEST(Bgra64ToP016, FlatColoursSurviveTheRoundTrip) {
    const BGRA64 colours[] = {{0, 0, 0, 65535},         {65535, 65535, 65535, 65535},
                              {0, 0, 65535, 65535},     {10000, 40000, 20000, 65535},
                              {32768, 32768, 32768, 0}};
    const int width = 5, height = 3;  // odd: partial blocks average fewer pixels
    for (int code : {0, 4}) {
        for (const BGRA64& colour : colours) {
            Bytes bgra(size_t(width) * 8 * height);
            for (int i = 0; i < width * height; ++i) std::memcpy(&bgra[size_t(i) * 8], &colour, 8);
            Bytes p016(size_t(width + 1) * 2 * (height + 2), 0);
            Bgra64ToP016_reference(bgra.data(), width * 8, p016.data(), (width + 1) * 2, width, height, code);
            Bytes back(bgra.size());
            P016ToColor64_reference(p016.data(), (width + 1) * 2, back.data(), width * 8, width, height, code);
            for (int i = 0; i < width * height; ++i) {
                const BGRA64 p = pixel64(back, width * 8, i % width, i / width);
                EXPECT_NEAR(p.b, colour.b, 400) << code << " pixel " << i;
                EXPECT_NEAR(p.g, colour.g, 400) << code << " pixel " << i;
                EXPECT_NEAR(p.r, colour.r, 400) << code << " pixel " << i;
            }
        }
    }
}

TEST(Bgra64ToP016, GreyGivesBlackOffsetLumaAndMidChroma) {
    const int width = 2, height = 2;
    Bytes bgra(size_t(width) * 8 * height, 0);  // black, alpha 0
    Bytes p016(size_t(width) * 2 * 3, kPoison);
    Bgra64ToP016_reference(bgra.data(), width * 8, p016.data(), width * 2, width, height, 4);
    uint16_t samples[6];
    std::memcpy(samples, p016.data(), sizeof samples);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(samples[i], 4096) << i;
    EXPECT_EQ(samples[4], 32768);
    EXPECT_EQ(samples[5], 32768);
}
