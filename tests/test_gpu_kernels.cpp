// Every CUDA kernel against its CPU twin, bit for bit, with host and device pointers, and the
// staging buffers' growth. Skips on machines without a CUDA device.
#include "kernels/colour.h"
#include "kernels/colour_reference.h"
#include "kernels/packing.h"
#include "kernels/packing_reference.h"

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include "support/random_bytes.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace {

using PackingFunction = void (*)(const unsigned char*, unsigned, unsigned char*, unsigned, unsigned,
                                 unsigned);
constexpr uint8_t kPoison = 0xA5;

// Device copy of host bytes, freed at scope end.
class DeviceBytes {
public:
    explicit DeviceBytes(const Bytes& bytes) : size_(bytes.size()) {
        EXPECT_EQ(cudaMalloc(&ptr_, size_ ? size_ : 1), cudaSuccess);
        cudaMemcpy(ptr_, bytes.data(), size_, cudaMemcpyHostToDevice);
    }
    ~DeviceBytes() { cudaFree(ptr_); }
    DeviceBytes(const DeviceBytes&) = delete;
    DeviceBytes& operator=(const DeviceBytes&) = delete;
    uint8_t* get() const { return static_cast<uint8_t*>(ptr_); }
    Bytes read() const {
        Bytes bytes(size_);
        EXPECT_EQ(cudaMemcpy(bytes.data(), ptr_, size_, cudaMemcpyDeviceToHost), cudaSuccess);
        return bytes;
    }

private:
    void* ptr_ = nullptr;
    size_t size_;
};

class GpuKernels : public ::testing::Test {
protected:
    void SetUp() override {
        int devices = 0;
        if (cudaGetDeviceCount(&devices) != cudaSuccess || devices == 0) {
            cudaGetLastError();
            GTEST_SKIP() << "no CUDA device";
        }
    }
};

struct Format {
    uint32_t code;
    PackingFunction pack;
    PackingFunction unpack;
    uint32_t lumaBytesPerPixel;
    uint32_t sourceBytesPerPixel;  // for the padded device pitch; 4-bit data uses width / 2
};

const Format kFormats[] = {
    {packing::kUyvy, uyvy_to_nv12_reference, nv12_to_uyvy_reference, 1, 2},
    {packing::kUint4, uint4_to_nv12_reference, nv12_to_uint4_reference, 1, 0},
    {packing::kUint8, uint8_to_nv12_reference, nv12_to_uint8_reference, 1, 1},
    {packing::kUint16, uint16_to_nv12_reference, nv12_to_uint16_reference, 2, 2},
    {packing::kUint32, uint32_to_nv12_reference, nv12_to_uint32_reference, 4, 4},
};

struct Size {
    int width, height;
};
const Size kAwkwardSizes[] = {{1, 1}, {3, 2}, {17, 3}, {31, 7}, {33, 4}, {65, 9}, {250, 33}, {1283, 17}};

}  // namespace

// ---- Packing ---------------------------------------------------------------------------------

// Encode side: device source with a padded, unaligned pitch and host source through the
// staging buffer; the NV12 frame has an odd pitch so that wide accesses must fall back.
TEST_F(GpuKernels, PackingMatchesTheCpuTwinFromHostAndDeviceMemory) {
    uint32_t seed = 100;
    for (const Format& format : kFormats) {
        for (const Size size : kAwkwardSizes) {
            SCOPED_TRACE(testing::Message() << "code " << format.code << " " << size.width << "x" << size.height);
            const uint32_t w = size.width, h = size.height;
            const uint32_t tight = packing::tightPitch(format.code, w);
            const uint32_t padded = tight + 5;
            const Bytes paddedImage = randomBytes(size_t(padded) * h, seed++);
            const Bytes tightImage = randomBytes(packing::packedSize(format.code, w, h), seed++);
            const uint32_t framePitch = w * format.lumaBytesPerPixel + 3;
            const Bytes blankFrame(size_t(framePitch) * (h + (h + 1) / 2), kPoison);

            Bytes expected = blankFrame;
            format.pack(paddedImage.data(), padded, expected.data(), framePitch, w, h);
            DeviceBytes source(paddedImage), frame(blankFrame);
            packing::StagingBuffer staging;
            packing::launchPackForEncode(format.code, source.get(), padded, frame.get(), framePitch, w, h, staging);
            EXPECT_EQ(frame.read(), expected) << "device source";
            EXPECT_EQ(staging.ptr, nullptr);

            expected = blankFrame;
            format.pack(tightImage.data(), tight, expected.data(), framePitch, w, h);
            DeviceBytes hostFed(blankFrame);
            packing::launchPackForEncode(format.code, tightImage.data(), tight, hostFed.get(), framePitch, w, h,
                                         staging);
            EXPECT_EQ(hostFed.read(), expected) << "host source";
            EXPECT_EQ(staging.capacity, packing::packedSize(format.code, w, h));
            cudaFree(staging.ptr);
        }
    }
}

// Decode side: random NV12 frames (chroma too) into device memory and into host memory.
TEST_F(GpuKernels, UnpackingMatchesTheCpuTwinIntoHostAndDeviceMemory) {
    uint32_t seed = 200;
    for (const Format& format : kFormats) {
        for (const Size size : kAwkwardSizes) {
            SCOPED_TRACE(testing::Message() << "code " << format.code << " " << size.width << "x" << size.height);
            const uint32_t w = size.width, h = size.height;
            const uint32_t framePitch = w * format.lumaBytesPerPixel + 9;
            const Bytes nv12 = randomBytes(size_t(framePitch) * (h + (h + 1) / 2), seed++);
            const uint32_t packed = packing::packedSize(format.code, w, h);
            Bytes expected(packed + 32, kPoison);
            format.unpack(nv12.data(), framePitch, expected.data(), packing::tightPitch(format.code, w), w, h);

            DeviceBytes frame(nv12), out(Bytes(packed + 32, kPoison));
            packing::StagingBuffer staging;
            EXPECT_EQ(packing::launchUnpackForDecode(format.code, frame.get(), framePitch, out.get(), w, h, staging),
                      packed);
            EXPECT_EQ(out.read(), expected) << "device destination";
            EXPECT_EQ(staging.ptr, nullptr);

            Bytes host(packed + 32, kPoison);
            EXPECT_EQ(packing::launchUnpackForDecode(format.code, frame.get(), framePitch, host.data(), w, h, staging),
                      packed);
            // The host receives exactly the packed size, copied flat from the staging buffer.
            EXPECT_EQ(Bytes(host.begin(), host.begin() + packed), Bytes(expected.begin(), expected.begin() + packed))
                << "host destination";
            EXPECT_EQ(Bytes(host.begin() + packed, host.end()), Bytes(32, kPoison));
            cudaFree(staging.ptr);
        }
    }
}

TEST_F(GpuKernels, StagingBuffersGrowOnlyAndAreReused) {
    const Bytes image = randomBytes(64 * 16 * 4, 300);
    DeviceBytes frame(Bytes(64 * 4 * 24 + 64, 0));
    packing::StagingBuffer encoder;
    packing::launchPackForEncode(packing::kUint32, image.data(), 32 * 4, frame.get(), 32 * 4, 32, 8, encoder);
    void* first = encoder.ptr;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(encoder.capacity, 32u * 8 * 4);
    packing::launchPackForEncode(packing::kUint8, image.data(), 16, frame.get(), 16, 16, 8, encoder);
    EXPECT_EQ(encoder.ptr, first);
    EXPECT_EQ(encoder.capacity, 32u * 8 * 4);
    packing::launchPackForEncode(packing::kUint32, image.data(), 64 * 4, frame.get(), 64 * 4, 64, 16, encoder);
    EXPECT_EQ(encoder.capacity, 64u * 16 * 4);
    cudaFree(encoder.ptr);

    packing::StagingBuffer decoder;
    Bytes out(64 * 16 * 4);
    packing::launchUnpackForDecode(packing::kUint16, frame.get(), 64, out.data(), 32, 8, decoder);
    first = decoder.ptr;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(decoder.capacity, 32u * 8 * 2);
    packing::launchUnpackForDecode(packing::kUint4, frame.get(), 64, out.data(), 32, 8, decoder);
    EXPECT_EQ(decoder.ptr, first);
    EXPECT_EQ(decoder.capacity, 32u * 8 * 2);
    cudaFree(decoder.ptr);
}

TEST_F(GpuKernels, ColourImageCopyForEncodeWritesRowsAtTheFramePitch) {
    const uint32_t w = 13, h = 5, srcPitch = w * 4 + 20;
    const Bytes image = randomBytes(size_t(srcPitch) * h, 400);
    Bytes expected(size_t(w) * 4 * h + 16, kPoison);
    for (uint32_t y = 0; y < h; ++y)
        std::copy_n(&image[size_t(y) * srcPitch], w * 4, &expected[size_t(y) * w * 4]);
    DeviceBytes fromHost(Bytes(expected.size(), kPoison));
    packing::copyColourForEncode(image.data(), srcPitch, fromHost.get(), w * 4, w, h);
    EXPECT_EQ(fromHost.read(), expected);
    DeviceBytes source(image), fromDevice(Bytes(expected.size(), kPoison));
    packing::copyColourForEncode(source.get(), srcPitch, fromDevice.get(), w * 4, w, h);
    EXPECT_EQ(fromDevice.read(), expected);
}

// ---- Colour conversion -----------------------------------------------------------------------

namespace {

using Launcher = cudaError_t (*)(uint8_t*, int, uint8_t*, int, int, int, int);
using Reference = void (*)(const uint8_t*, int, uint8_t*, int, int, int, int);

struct Conversion {
    const char* name;
    Launcher launch;
    Reference reference;
    int sourceBytesPerPixel;  // luma sample, or packed BGRA64 for the reverse conversion
    int sourceRowsPerRow2;    // source rows per 2 image rows: 3 for YUV 4:2:0, 2 for BGRA
    int destinationBytesPerPixel;
    int destinationRowsPerRow2;
};

cudaError_t nv12ToColor32(uint8_t* s, int sp, uint8_t* d, int dp, int w, int h, int code) {
    Nv12ToColor32(s, sp, d, dp, w, h, code);
    return cudaGetLastError();
}

const Conversion kConversions[] = {
    {"Nv12ToColor32", nv12ToColor32, Nv12ToColor32_reference, 1, 3, 4, 2},
    {"Nv12ToColor64", Nv12ToColor64, Nv12ToColor64_reference, 1, 3, 8, 2},
    {"P016ToColor32", P016ToColor32, P016ToColor32_reference, 2, 3, 4, 2},
    {"P016ToColor64", P016ToColor64, P016ToColor64_reference, 2, 3, 8, 2},
    {"Nv12ToColorPlanar", Nv12ToColorPlanar, Nv12ToColorPlanar_reference, 1, 3, 1, 6},
    {"P016ToColorPlanar", P016ToColorPlanar, P016ToColorPlanar_reference, 2, 3, 1, 6},
    {"Bgra64ToP016", Bgra64ToP016, Bgra64ToP016_reference, 8, 2, 2, 3},
};

}  // namespace

TEST_F(GpuKernels, ColourConversionsMatchTheCpuTwinBitForBit) {
    const Size sizes[] = {{2, 2}, {5, 3}, {64, 4}, {66, 6}, {127, 9}, {640, 33}};
    uint32_t seed = 500;
    for (const Conversion& conversion : kConversions) {
        for (const Size size : sizes) {
            for (int code : {0, 2, 4}) {
                SCOPED_TRACE(testing::Message() << conversion.name << " " << size.width << "x" << size.height
                                                << " standard " << code);
                // Pitches padded by a pixel pair so that the last odd column's chroma exists;
                // the second odd padding exercises the unaligned store path.
                const int sourcePitch = (size.width + 2) * conversion.sourceBytesPerPixel;
                const int destinationPitch = (size.width + 3) * conversion.destinationBytesPerPixel;
                const int rows = size.height + 1;
                const Bytes source = randomBytes(size_t(sourcePitch) * rows * conversion.sourceRowsPerRow2 / 2, seed++);
                const Bytes blank(size_t(destinationPitch) * rows * conversion.destinationRowsPerRow2 / 2, kPoison);
                Bytes expected = blank;
                conversion.reference(source.data(), sourcePitch, expected.data(), destinationPitch, size.width,
                                     size.height, code);
                DeviceBytes in(source), out(blank);
                EXPECT_EQ(conversion.launch(in.get(), sourcePitch, out.get(), destinationPitch, size.width,
                                            size.height, code),
                          cudaSuccess);
                EXPECT_EQ(out.read(), expected);
            }
        }
    }
}

TEST_F(GpuKernels, ColourDecodeOfFormatZeroReadsTheFrameWithPitchWidth) {
    const uint32_t w = 38, h = 6;
    const Bytes nv12 = randomBytes(size_t(w) * h * 3 / 2, 600);
    Bytes expected(size_t(w) * 4 * h);
    Nv12ToColor32_reference(nv12.data(), w, expected.data(), w * 4, w, h, 0);
    DeviceBytes frame(nv12), out(Bytes(expected.size(), 0));
    packing::StagingBuffer staging;
    EXPECT_EQ(packing::launchUnpackForDecode(packing::kColour32, frame.get(), 1024, out.get(), w, h, staging),
              w * h * 4);
    EXPECT_EQ(out.read(), expected);
    Bytes host(expected.size(), 0);
    EXPECT_EQ(packing::launchUnpackForDecode(packing::kColour32, frame.get(), 1024, host.data(), w, h, staging),
              w * h * 4);
    EXPECT_EQ(host, expected);
    cudaFree(staging.ptr);
}
