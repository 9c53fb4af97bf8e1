// The libx265 encoder behind the C interface: recordings played back through the software
// decoder (lossless kinds bit for bit, colour kinds by PSNR), the bitrate of CBR, the exported
// stream against ffmpeg, and the encoder choice.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/pipe.h"
#include "codec/Exception.h"
#include "codec/SwEncoder.h"
#include "kernels/packing.h"
#include "support/random_bytes.h"
#include "support/temp_file.h"

namespace {

using Pipe = std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)>;

struct Recording {
    uint32_t kind, width, height, frames, fps, lossless;
    uint64_t bitrate = 0;
};

// Frame i: a ramp with 2 bits of noise, moved by 5 bytes a frame, so that P-frames predict.
// (Pure noise does not compress, and its access units outgrow the records the software decoder
// takes, 1.5 bytes a pixel.)
Bytes frameData(const Recording& r, uint32_t i) {
    static const Bytes noise = randomBytes(1 << 20, 7);
    const size_t size = packing::packedSize(r.kind, r.width, r.height);
    Bytes frame(size);
    for (size_t b = 0; b < size; ++b) frame[b] = uint8_t((b + 5 * i) / 16 + (noise[(b + 5 * i) % noise.size()] & 3));
    return frame;
}

uint64_t record(const Recording& r, const TempFile& file, Bytes (*make)(const Recording&, uint32_t) = frameData) {
    Pipe pipe(ZOHW_CreateEncoder(r.kind, 1, r.lossless, r.width, r.height, r.bitrate, r.fps), &ZOHW_Destroy);
    EXPECT_TRUE(pipe) << ZOHW_GetError(nullptr);
    if (!pipe) return 0;
    FILE* out = file.open("wb");
    uint64_t total = 0, size = 0;
    uint32_t metadata[64] = {};
    for (uint32_t i = 0; i < r.frames; ++i) {
        metadata[0] = i;
        const Bytes frame = make(r, i);
        try {
            EXPECT_EQ(ZOHW_Encode_And_Store(pipe.get(), out, &size, frame.data(),
                                            packing::tightPitch(r.kind, r.width), 1000 * i, metadata, 64), 0u);
        } catch (const Exception& e) {
            ADD_FAILURE() << "frame " << i << ": " << e.message();
        }
        total += size;
    }
    ZOHW_CloseQRVContainer(pipe.get(), out);
    fclose(out);
    return total;
}

// Plays a recording back through a software pipe and unpacks each frame as extract does.
struct Player {
    Player(const Recording& r, const TempFile& file)
        : r(r), pictureWidth(packing::pictureWidth(r.kind, r.width)), stream(file.open("rb")),
          pipe(ZOHW_CreateDecoder(r.kind, 1, pictureWidth, r.height, 0), &ZOHW_Destroy) {
        const int start = 0;
        EXPECT_EQ(ZOHW_StartDecoding(pipe.get(), &start), 0u);
        EXPECT_EQ(ZOHW_CreateQRVTracker(pipe.get(), stream), 0u);
    }
    ~Player() { fclose(stream); }

    Bytes next(uint32_t* frameType = nullptr, Bytes* yuyvOut = nullptr) {
        Bytes yuyv(size_t(pictureWidth) * r.height * 2), nv12(packing::nv12Bytes(pictureWidth, r.height));
        uint32_t number = 0, type = 0, metadata[64];
        uint64_t time = 0;
        if (ZOHW_DecodeFrameAndMetadata(pipe.get(), stream, yuyv.data(), &number, &time, &type, metadata) != 0)
            return {};
        EXPECT_EQ(time, 1000u * (number - 1));
        EXPECT_EQ(metadata[0], number - 1);
        if (frameType) *frameType = type;
        if (yuyvOut) *yuyvOut = yuyv;
        packing::nv12FromYuyv(yuyv.data(), pictureWidth, r.height, nv12.data());
        Bytes data(packing::packedSize(r.kind, r.width, r.height));
        packing::unpackOnHost(r.kind, nv12.data(), packing::nv12Pitch(pictureWidth), data.data(), r.width, r.height);
        return data;
    }

    Recording r;
    uint32_t pictureWidth;
    FILE* stream;
    Pipe pipe;
};

class SwEncoderTest : public ::testing::TestWithParam<Recording> {
protected:
    void SetUp() override {
        if (!SwEncoder::library()) GTEST_SKIP() << "libx265 is not installed";
        setenv("ZOQRV_ENCODER", "x265", 1);
    }
    TempFile file;
};

}  // namespace

// Lossless kinds 2-5, even and odd sizes, three GOPs (4 frames each at 8 frames/s), then seeks.
TEST_P(SwEncoderTest, LosslessKindsComeBackBitForBitInOrderAndAfterSeeks) {
    const Recording r = GetParam();
    record(r, file);
    Player player(r, file);
    for (uint32_t i = 0; i < r.frames; ++i) {
        uint32_t type = 99;
        ASSERT_EQ(player.next(&type), frameData(r, i)) << "frame " << i;
        EXPECT_EQ(type, i % 4 == 0 ? 3u : 0u) << "frame " << i;  // IDR every GOP, P between
    }
    for (uint32_t sample : {6u, 1u, 11u, 4u}) {
        ASSERT_EQ(ZOHW_SetHEVCPositionInFile(player.pipe.get(), player.stream, int32_t(sample)), 0u);
        EXPECT_EQ(player.next(), frameData(r, sample)) << "after a seek to " << sample;
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, SwEncoderTest,
                         ::testing::Values(Recording{2, 64, 48, 12, 8, 1}, Recording{2, 70, 41, 12, 8, 1},
                                           Recording{3, 64, 48, 12, 8, 1}, Recording{3, 63, 47, 12, 8, 1},
                                           Recording{4, 40, 32, 12, 8, 1}, Recording{4, 45, 31, 12, 8, 1},
                                           Recording{5, 32, 24, 12, 8, 1}, Recording{5, 29, 21, 12, 8, 1}));

namespace {

// Smooth moving colour pictures: gradients over the frame, shifted by the frame index.
Bytes smoothColour(const Recording& r, uint32_t i) {
    Bytes frame(packing::packedSize(r.kind, r.width, r.height));
    for (uint32_t y = 0; y < r.height; ++y)
        for (uint32_t x = 0; x < r.width; ++x) {
            uint8_t* p = &frame[(size_t(y) * r.width + x) * (r.kind == 0 ? 4 : 2)];
            const uint8_t a = uint8_t(x * 2 + i), b = uint8_t(y * 3), c = uint8_t(x + y + 40);
            if (r.kind == 0) {
                p[0] = a, p[1] = b, p[2] = c, p[3] = 255;
            } else {  // U Y or V Y: chroma per pair, luma per pixel
                p[0] = x % 2 ? uint8_t(100 + y) : uint8_t(60 + x / 2);
                p[1] = a;
            }
        }
    return frame;
}

double psnr(const Bytes& a, const Bytes& b, size_t stride, size_t channels) {
    if (a.size() != b.size()) return 0;
    double sum = 0;
    size_t count = 0;
    for (size_t i = 0; i < a.size(); ++i)
        if (i % stride < channels) sum += (a[i] - b[i]) * (a[i] - b[i]), ++count;
    return sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * count / sum);
}

}  // namespace

// Lossless coding leaves only the 4:2:0 conversion: rounding to 8-bit codes (about one code
// value after range scaling) and chroma shared by 2 x 2 pixels of smooth gradients: 46.8 dB
// here. An odd width loses more, since the YUYV of the software decoder has no V for its last
// column: 37.4 dB. A floor of 35 dB still fails a wrong matrix or swapped chroma (< 30 dB).
TEST(SwEncoderColour, ColourKindsComeBackAboveThePsnrFloor) {
    if (!SwEncoder::library()) GTEST_SKIP() << "libx265 is not installed";
    setenv("ZOQRV_ENCODER", "x265", 1);
    for (const Recording& r : {Recording{0, 64, 48, 6, 8, 1}, Recording{0, 101, 75, 6, 8, 1}, Recording{1, 64, 48, 6, 8, 1}}) {
        TempFile file;
        record(r, file, smoothColour);
        Player player(r, file);
        for (uint32_t i = 0; i < r.frames; ++i)  // BGR of BGRA; all of UYVY
            EXPECT_GT(psnr(player.next(), smoothColour(r, i), r.kind == 0 ? 4 : 2, r.kind == 0 ? 3 : 2), 35.0)
                << "kind " << r.kind << " " << r.width << "x" << r.height << " frame " << i;
    }
}

TEST(SwEncoderRate, CbrOfThreeHundredFramesMeetsTheBitrateWithinTenPercent) {
    if (!SwEncoder::library()) GTEST_SKIP() << "libx265 is not installed";
    setenv("ZOQRV_ENCODER", "x265", 1);
    for (const uint64_t bitrate : {500000ull, 1000000ull}) {
        const Recording r{3, 160, 120, 300, 30, 0, bitrate};
        TempFile file;
        const double bitsPerSecond = record(r, file) * 8.0 / (r.frames / double(r.fps));
        EXPECT_NEAR(bitsPerSecond, double(bitrate), 0.1 * bitrate);
    }
}

// The exported elementary stream, decoded by ffmpeg, equals the library's own decode.
TEST(SwEncoderExport, FfmpegDecodesTheExportedStreamAsTheLibraryDoes) {
    if (!SwEncoder::library() || std::system("ffmpeg -version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "libx265 or ffmpeg is missing";
    setenv("ZOQRV_ENCODER", "x265", 1);
    // Frames stay under the software decoder's record size (1.5 bytes a pixel).
    const Recording r{3, 64, 48, 10, 5, 0, 100000};
    TempFile file, stream(".hevc"), decoded(".yuv");
    record(r, file);
    const std::string tool = std::string(ZOQRV_BINARY_DIR) + "/tools/zoqrv";
    ASSERT_EQ(std::system((tool + " export " + file.path() + " " + stream.path()).c_str()), 0);
    ASSERT_EQ(std::system(("ffmpeg -nostdin -loglevel error -y -i " + stream.path() +
                           " -f rawvideo -pix_fmt yuv420p " + decoded.path()).c_str()), 0);
    const Bytes yuv = decoded.read();
    const size_t lumaBytes = size_t(r.width) * r.height, frameBytes = lumaBytes * 3 / 2;
    ASSERT_EQ(yuv.size(), frameBytes * r.frames);
    Player player(r, file);
    for (uint32_t i = 0; i < r.frames; ++i) {
        Bytes yuyv;
        ASSERT_FALSE(player.next(nullptr, &yuyv).empty()) << "frame " << i;
        const uint8_t* y = &yuv[i * frameBytes];
        const uint8_t* u = y + lumaBytes;
        const uint8_t* v = u + lumaBytes / 4;
        for (size_t p = 0; p < lumaBytes; ++p) {
            const size_t row = p / r.width, column = p % r.width, chroma = row / 2 * (r.width / 2) + column / 2;
            ASSERT_EQ(yuyv[2 * p], y[p]) << "frame " << i << " luma " << p;
            ASSERT_EQ(yuyv[2 * p + 1], column % 2 ? v[chroma] : u[chroma]) << "frame " << i << " chroma at " << p;
        }
    }
}

TEST(EncoderChoice, ZoqrvEncoderChoosesOrFailsWithAText) {
    if (!SwEncoder::library()) GTEST_SKIP() << "libx265 is not installed";
    const struct {
        const char* value;
        uint32_t codec;
        bool software;  // a pipe with libx265; otherwise no pipe and the text
        const char* text;
    } cases[] = {
        {"x265", 1, true, ""},
        {"auto", 1, true, ""},  // without NVENC here; a GPU machine may give NVENC instead
        {"x265", 0, false, "unsupported hardware or codec for encoding"},
        {"x265", 7, false, "unsupported hardware or codec for encoding"},
        {"X265", 1, false, "ZOQRV_ENCODER must be nvenc, auto or x265"},
    };
    for (const auto& c : cases) {
        setenv("ZOQRV_ENCODER", c.value, 1);
        Pipe pipe(ZOHW_CreateEncoder(4, c.codec, 1, 32, 16, 0, 30), &ZOHW_Destroy);
        if (c.software) {
            ASSERT_TRUE(pipe) << c.value;
            if (std::string(c.value) == "x265") {
                EXPECT_TRUE(dynamic_cast<SwEncoder*>(pipe->encoder.get()));
            }
        } else {
            EXPECT_FALSE(pipe) << c.value << " codec " << c.codec;
            EXPECT_STREQ(ZOHW_GetError(nullptr), c.text);
        }
    }
    // A frame whose access unit cannot fit the output (w x h x 4 bytes) is refused.
    setenv("ZOQRV_ENCODER", "x265", 1);
    Pipe tiny(ZOHW_CreateEncoder(2, 1, 1, 2, 2, 0, 30), &ZOHW_Destroy);
    ASSERT_TRUE(tiny);
    const uint8_t frame[2] = {0x5a, 0xa5};
    uint64_t size = 0;
    uint8_t out[16];
    try {
        ZOHW_Encode(tiny.get(), &size, frame, 1, out);
        ADD_FAILURE() << "no overflow";
    } catch (const Exception& e) {
        EXPECT_EQ(e.message(), "Encode output buffer overflow");
    }
}
