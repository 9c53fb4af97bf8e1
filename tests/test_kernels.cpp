// The packed NV12 layout of docs/packing.md and the colour conversions, checked through the CPU
// twins (which run the kernels' per-thread code); then every kernel against its twin on the GPU.
#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include "kernels/colour.h"
#include "kernels/colour_reference.h"
#include "kernels/packing.h"
#include "kernels/packing_reference.h"
#include "support.h"

namespace {
constexpr uint8_t kPoison = 0xA5;
using Packing = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned, unsigned);
const struct Format {
    uint32_t code;
    Packing pack, unpack;
    uint32_t lumaBytes;  // NV12 row bytes per data pixel
} kFormats[] = {{packing::kUint4, uint4_to_nv12_reference, nv12_to_uint4_reference, 1},
                {packing::kUint8, uint8_to_nv12_reference, nv12_to_uint8_reference, 1},
                {packing::kUint16, uint16_to_nv12_reference, nv12_to_uint16_reference, 2},
                {packing::kUint32, uint32_to_nv12_reference, nv12_to_uint32_reference, 4},
                {packing::kUyvy, uyvy_to_nv12_reference, nv12_to_uyvy_reference, 1}};
// Widths around the 16-thread block and the 4-bit decode's 32 samples, odd heights, empty images.
const std::pair<uint32_t, uint32_t> kSizes[] = {{1, 1},  {2, 3},  {3, 2},   {15, 5},  {16, 4}, {17, 7}, {31, 3},
                                                {32, 2}, {33, 9}, {70, 11}, {129, 6}, {0, 4}, {8, 0}};
uint32_t nv12Bytes(uint32_t pitch, uint32_t h) { return pitch * (h + (h + 1) / 2); }

// A device copy of host bytes, freed at scope end.
struct DeviceBytes {
    explicit DeviceBytes(const Bytes& bytes) : size(bytes.size()) {
        EXPECT_EQ(cudaMalloc(&ptr, size + 1) | cudaMemcpy(ptr, bytes.data(), size, cudaMemcpyHostToDevice), cudaSuccess);
    }
    ~DeviceBytes() { cudaFree(ptr); }
    uint8_t* get() const { return static_cast<uint8_t*>(ptr); }
    Bytes read() const {
        Bytes bytes(size);
        return cudaMemcpy(bytes.data(), ptr, size, cudaMemcpyDeviceToHost) == cudaSuccess ? bytes : Bytes();
    }
    void* ptr = nullptr;
    size_t size;
};

// Kernels against their twins, skipped without a CUDA device.
class Gpu : public ::testing::Test {
    void SetUp() override { if (int devices = 0; cudaGetDeviceCount(&devices) || !devices) GTEST_SKIP() << "no CUDA device"; }
};
}  // namespace

TEST(Packing, SizesInUnsigned32BitArithmetic) {
    // Code, packed size of 7 x 3, tight row of 7, packed size of 65536 x 32768 (2^31 pixels).
    const uint32_t table[][4] = {{0, 84, 28, 0}, {1, 42, 14, 0}, {2, 10, 3, 1u << 30}, {3, 21, 7, 1u << 31},
                                 {4, 42, 14, 0}, {5, 84, 28, 0}, {6, 0, 0, 0},       {~0u, 0, 0, 0}};
    for (const auto& row : table)
        EXPECT_EQ(std::make_tuple(packing::packedSize(row[0], 7, 3), packing::tightPitch(row[0], 7),
                                  packing::packedSize(row[0], 65536, 32768)),
                  std::make_tuple(row[1], row[2], row[3])) << row[0];
    packing::StagingBuffer staging;
    Bytes out(64, kPoison);  // an unknown code launches nothing
    EXPECT_EQ(std::make_tuple(packing::launchUnpackForDecode(7, out.data(), 8, out.data(), 4, 4, staging), staging.ptr, out),
              std::make_tuple(0u, (void*)nullptr, Bytes(64, kPoison)));
}

// The layout of docs/packing.md, touching nothing else: luma rows of codes 3 to 5 are the data rows;
// 4-bit samples go low nibble first, an odd width's last byte 0; UYVY luma is byte 2x + 1, chroma the
// rounded mean of byte 2x of a row pair; codes 2 to 5 zero the chroma. Codes 2 to 5 come back bit for
// bit (4-bit decoding masks luma bytes), UYVY with each pair's chroma on both rows.
TEST(Packing, LayoutAndRoundTrip) {
    uint32_t seed = 1;
    for (const Format& f : kFormats)
        for (auto [w, h] : kSizes) {
            SCOPED_TRACE(testing::Message() << "code " << f.code << " " << w << "x" << h);
            const uint32_t pitch = packing::tightPitch(f.code, w), row = w * f.lumaBytes, framePitch = row + 7;
            const bool uyvy = f.code == packing::kUyvy, nibbles = f.code == packing::kUint4;
            const Bytes image = randomBytes(size_t(pitch) * h, seed++);
            Bytes frame(nv12Bytes(framePitch, h) + 16, kPoison), back(image.size() + 16, kPoison), expectedBack = image;
            const auto pairChroma = [&](size_t x, size_t pair) {
                const size_t top = 2 * pair * pitch + 2 * x, bottom = 2 * pair + 1 < h ? top + pitch : top;
                return uint8_t((image[top] + image[bottom] + 1) / 2);
            };
            f.pack(image.data(), pitch, frame.data(), framePitch, w, h);
            for (size_t i = 0; i < frame.size(); ++i) {
                const size_t x = i % framePitch, y = i / framePitch;
                const int expected = x >= row || y >= h + (h + 1) / 2 ? kPoison
                                     : y >= h  ? (uyvy ? pairChroma(x, y - h) : 0)
                                     : uyvy    ? image[y * pitch + 2 * x + 1]
                                     : nibbles ? (x < (w & ~1u) ? image[y * pitch + x / 2] >> 4 * (x % 2) & 15 : 0)
                                               : image[y * pitch + x];
                ASSERT_EQ(frame[i], expected) << x << "," << y;
                if (nibbles && x < row && y < h) frame[i] |= 0xF0;
            }
            for (size_t x = 0; uyvy && x < w; ++x)
                for (size_t y = 0; y < h; ++y) expectedBack[y * pitch + 2 * x] = pairChroma(x, y / 2);
            f.unpack(frame.data(), framePitch, back.data(), pitch, w, h);
            EXPECT_EQ(Bytes(back.begin(), back.begin() + long(image.size())), expectedBack);
            EXPECT_EQ(Bytes(back.end() - 16, back.end()), Bytes(16, kPoison)) << "wrote past the image";
        }
}

// BT.709 limited-range test colours, one per 2 x 2 block and in reverse order in the second row of
// blocks, so that each block must use its own chroma pair; every code but 2 and 4 means BT.709.
TEST(Colour, KnownBt709Colours) {
    const uint8_t colours[][6] = {{16, 128, 128, 0, 0, 0},  {235, 128, 128, 255, 255, 255}, {63, 102, 240, 0, 0, 255},
                                  {173, 42, 26, 0, 255, 0}, {32, 240, 118, 255, 0, 0},      {126, 128, 128, 128, 128, 128},
                                  {0, 128, 128, 0, 0, 0}};  // y, u, v, then b, g, r; 110 · 1.16438 = 128.08
    const int n = 7, w = 2 * n, h = 4;
    const auto colourAt = [&](int i) { return colours[i / w < 2 ? i % w / 2 : n - 1 - i % w / 2]; };
    Bytes nv12(size_t(w) * h * 3 / 2), bgra(size_t(w) * 4 * h);
    for (int i = 0; i < w * h; ++i) nv12[i] = colourAt(i)[0], nv12[w * (h + i / w / 2) + i % w] = colourAt(i)[1 + i % 2];
    for (int code : {0, 1, 709}) {
        Nv12ToColor32_reference(nv12.data(), w, bgra.data(), w * 4, w, h, code);
        for (int i = 0; i < w * h; ++i)
            EXPECT_EQ(Bytes(&bgra[4 * i], &bgra[4 * i + 4]), (Bytes{colourAt(i)[3], colourAt(i)[4], colourAt(i)[5], 255}))
                << i % w << "," << i / w << " standard " << code;
    }
    // Code values follow the standard, not the samples' depth: 16-bit samples holding BT.709 white
    // give full-scale 16-bit channels (8-bit codes widened by 257).
    const uint16_t white[6] = {235, 235, 235, 235, 128, 128};
    Bytes wide(32);
    P016ToColor64_reference(reinterpret_cast<const uint8_t*>(white), 4, wide.data(), 16, 2, 2, 0);
    EXPECT_EQ(wide, Bytes(32, 0xFF));
}

// Odd pitches everywhere, so that wide accesses must fall back. Host images are staged with their
// padded pitch, device images need no staging; the packed size's bytes that the 4-bit kernel leaves
// unwritten (odd widths) come back as zeros.
TEST_F(Gpu, PackingMatchesTheTwins) {
    uint32_t seed = 100;
    for (const Format& f : kFormats)
        for (auto [w, h] : {std::pair{1u, 1u}, {3u, 2u}, {17u, 3u}, {31u, 7u}, {33u, 4u}, {65u, 9u}, {250u, 33u}, {1283u, 17u}})
            for (bool host : {false, true}) {
                SCOPED_TRACE(testing::Message() << "code " << f.code << " " << w << "x" << h << (host ? " host" : ""));
                const uint32_t tight = packing::tightPitch(f.code, w), packed = packing::packedSize(f.code, w, h);
                const uint32_t pitch = tight + 5, framePitch = w * f.lumaBytes + 3;
                const Bytes image = randomBytes(size_t(pitch) * h, seed++), nv12 = randomBytes(nv12Bytes(framePitch, h), seed++);
                Bytes expected(nv12.size(), kPoison), unpacked(packed + 32, kPoison), hostOut(unpacked);
                f.pack(image.data(), pitch, expected.data(), framePitch, w, h);
                f.unpack(nv12.data(), framePitch, unpacked.data(), tight, w, h);
                std::fill(unpacked.begin() + size_t(tight) * h, unpacked.begin() + packed, 0);
                DeviceBytes source(image), frame(Bytes(nv12.size(), kPoison)), decoded(nv12), out(hostOut);
                packing::StagingBuffer staging;
                packing::launchPackForEncode(f.code, host ? image.data() : source.get(), pitch, frame.get(), framePitch, w, h,
                                             staging);
                EXPECT_EQ(frame.read(), expected);
                EXPECT_EQ(packing::launchUnpackForDecode(f.code, decoded.get(), framePitch, host ? hostOut.data() : out.get(),
                                                         w, h, staging), packed);
                EXPECT_EQ(host ? hostOut : out.read(), unpacked);
                EXPECT_EQ(staging.capacity, host ? packed : 0u);
                cudaFree(staging.ptr);
            }
}

// The one colour kernel the library launches (NV12 to BGRA for decoding pipes) against its twin; a
// pixel pair of padding holds the last odd column's chroma, odd padding misaligns stores.
TEST_F(Gpu, Nv12ToBgraMatchesTheTwin) {
    uint32_t seed = 500;
    for (auto [w, h] : {std::pair{2, 2}, {5, 3}, {66, 6}, {127, 9}, {640, 33}})
        for (int code : {0, 2, 4}) {
            const int sourcePitch = w + 2, destinationPitch = (w + 3) * 4;
            const Bytes source = randomBytes(size_t(sourcePitch) * (h + 1) * 3 / 2, seed++);
            Bytes expected(size_t(destinationPitch) * (h + 1), kPoison);  // a row more shows writes past the image
            DeviceBytes in(source), out(expected);
            Nv12ToColor32_reference(source.data(), sourcePitch, expected.data(), destinationPitch, w, h, code);
            Nv12ToColor32(in.get(), sourcePitch, out.get(), destinationPitch, w, h, code);
            EXPECT_EQ(cudaGetLastError(), cudaSuccess);
            EXPECT_EQ(out.read(), expected) << w << "x" << h << " standard " << code;
        }
}

// The software encoder's fast conversion gives the twin's bytes: random pixels, odd widths and
// heights around the vector lengths, empty images, padded pitches, each standard's codes, and a
// picture large enough to be spread over threads.
TEST(Colour, FastBgraToNv12MatchesTheTwin) {
    const std::pair<int, int> sizes[] = {{1, 1}, {2, 2}, {3, 5}, {17, 4}, {33, 9}, {70, 11}, {0, 3}, {5, 0}, {640, 1025}};
    for (const auto& [w, h] : sizes)
        for (int code : {0, 2, 4}) {
            const int rgbPitch = 4 * w + 12, yuvPitch = w + 5;
            const Bytes bgra = randomBytes(size_t(rgbPitch) * h, w * h + code);
            Bytes expected(size_t(yuvPitch) * (h + (h + 1) / 2), kPoison), actual = expected;
            Bgra32ToNv12_reference(bgra.data(), rgbPitch, expected.data(), yuvPitch, w, h, code);
            Bgra32ToNv12_fast(bgra.data(), rgbPitch, actual.data(), yuvPitch, w, h, code);
            EXPECT_EQ(actual, expected) << w << "x" << h << " standard " << code;
        }
}
