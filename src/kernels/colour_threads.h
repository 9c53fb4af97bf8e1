// The work of one colour-conversion thread on its 2 × 2 pixel block, shared by the CUDA
// kernels and their CPU twins. All float arithmetic is written as explicit single-rounding
// steps (multiply, fmaf) so that no compiler contraction can make the two sides differ.
#pragma once

#include "kernels/colour.h"
#include "kernels/host_device.h"

#include <cuda_runtime.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace colour {

template <class YuvUnit>
struct YuvFormat;
template <>
struct YuvFormat<uchar2> {
    using Sample = uint8_t;
};
template <>
struct YuvFormat<ushort2> {
    using Sample = uint16_t;
};

template <class Rgb>
struct RgbFormat;
template <>
struct RgbFormat<BGRA32> {
    using Channel = uint8_t;
    static constexpr int bits = 8;
};
template <>
struct RgbFormat<BGRA64> {
    using Channel = uint16_t;
    static constexpr int bits = 16;
};

// Bits of the code values in a range: 16 for the 16-bit codes of BT.2020, else 8.
ZOQRV_HOST_DEVICE int rangeBits(const CodeRange& range) { return range.max > 255 ? 16 : 8; }

template <class T>
ZOQRV_HOST_DEVICE T load(const uint8_t* at) {
#ifdef __CUDA_ARCH__
    return *reinterpret_cast<const T*>(at);
#else
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
#endif
}

template <class T>
ZOQRV_HOST_DEVICE void store(uint8_t* at, const T& value) {
#ifdef __CUDA_ARCH__
    *reinterpret_cast<T*>(at) = value;
#else
    std::memcpy(at, &value, sizeof value);
#endif
}

ZOQRV_HOST_DEVICE float multiply(float a, float b) {
#ifdef __CUDA_ARCH__
    return __fmul_rn(a, b);
#else
    return a * b;
#endif
}

ZOQRV_HOST_DEVICE float add(float a, float b) {
#ifdef __CUDA_ARCH__
    return __fadd_rn(a, b);
#else
    return a + b;
#endif
}

// Row `row` of a row-major 3 × 3 matrix times (a, b, c).
ZOQRV_HOST_DEVICE float dot(const float* m, int row, float a, float b, float c) {
    return fmaf(m[3 * row + 2], c, fmaf(m[3 * row + 1], b, multiply(m[3 * row], a)));
}

// Clamps to [0, max] and rounds half up. Comparisons instead of fmaxf/fminf, and a conversion
// through int (the value is at most max + 0.5), give the same codes and let CPU loops over
// many pixels vectorise.
ZOQRV_HOST_DEVICE unsigned toCode(float value, int max) {
    const float top = static_cast<float>(max);
    value = value > 0.0f ? value : 0.0f;
    value = value < top ? value : top;
    return static_cast<unsigned>(static_cast<int>(add(value, 0.5f)));
}

// Moves a code between 8 and 16 bits: widening by ×257 keeps full scale at full scale,
// narrowing drops the low byte.
ZOQRV_HOST_DEVICE unsigned rescale(unsigned value, int fromBits, int toBits) {
    if (fromBits == toBits) return value;
    return fromBits < toBits ? value * 257u : value >> 8;
}

template <class Rgb>
ZOQRV_HOST_DEVICE Rgb yuvToRgbPixel(const float* m, const CodeRange& range, int y, int u, int v) {
    const int bits = rangeBits(range);
    using Channel = typename RgbFormat<Rgb>::Channel;
    constexpr int rgbBits = RgbFormat<Rgb>::bits;
    const float fy = static_cast<float>(y - range.black);
    const float fu = static_cast<float>(u - range.mid);
    const float fv = static_cast<float>(v - range.mid);
    Rgb pixel;
    pixel.r = static_cast<Channel>(rescale(toCode(dot(m, 0, fy, fu, fv), range.max), bits, rgbBits));
    pixel.g = static_cast<Channel>(rescale(toCode(dot(m, 1, fy, fu, fv), range.max), bits, rgbBits));
    pixel.b = static_cast<Channel>(rescale(toCode(dot(m, 2, fy, fu, fv), range.max), bits, rgbBits));
    pixel.a = static_cast<Channel>((1u << rgbBits) - 1);
    return pixel;
}

// Packed BGRA rows; a thread writes its two pixels of a row with one RgbIntx2 store when the
// address allows it.
template <class Rgb, class RgbIntx2>
struct PackedWriter {
    uint8_t* rgb;
    int pitch;

    ZOQRV_HOST_DEVICE void operator()(int x, int y, const Rgb* pixels, bool pair) const {
        uint8_t* at = rgb + static_cast<ptrdiff_t>(y) * pitch + static_cast<ptrdiff_t>(x) * sizeof(Rgb);
#ifdef __CUDA_ARCH__
        if (pair && reinterpret_cast<uintptr_t>(at) % sizeof(RgbIntx2) == 0) {
            RgbIntx2 both;
            memcpy(&both, pixels, sizeof both);
            store(at, both);
            return;
        }
#endif
        store(at, pixels[0]);
        if (pair) store(at + sizeof(Rgb), pixels[1]);
    }
};

// Planar 8-bit output: B, G and R planes of `height` rows each.
template <class Channelx2>
struct PlanarWriter {
    uint8_t* planes;
    int pitch;
    int height;

    ZOQRV_HOST_DEVICE void operator()(int x, int y, const BGRA32* pixels, bool pair) const {
        const ptrdiff_t plane = static_cast<ptrdiff_t>(pitch) * height;
        uint8_t* at = planes + static_cast<ptrdiff_t>(y) * pitch + x;
        const uint8_t channels[3][2] = {{pixels[0].b, pixels[1].b},
                                        {pixels[0].g, pixels[1].g},
                                        {pixels[0].r, pixels[1].r}};
        for (int c = 0; c < 3; ++c, at += plane) {
#ifdef __CUDA_ARCH__
            if (pair && reinterpret_cast<uintptr_t>(at) % sizeof(Channelx2) == 0) {
                store(at, Channelx2{channels[c][0], channels[c][1]});
                continue;
            }
#endif
            at[0] = channels[c][0];
            if (pair) at[1] = channels[c][1];
        }
    }
};

// The chroma plane follows `height` luma rows; a pair serves a 2 × 2 block. Pixels of a block
// that fall outside the image are neither read nor written.
template <class YuvUnit, class Rgb, class Writer>
ZOQRV_HOST_DEVICE void yuvToRgbBlock(const float* m, const CodeRange& range, const uint8_t* yuv,
                                     int yuvPitch, int width, int height, int x, int y,
                                     const Writer& write) {
    if (x >= width || y >= height) return;
    using Sample = typename YuvFormat<YuvUnit>::Sample;
    const uint8_t* chroma = yuv + static_cast<ptrdiff_t>(yuvPitch) * (height + y / 2) +
                            static_cast<ptrdiff_t>(x) * sizeof(Sample);
    const int u = load<Sample>(chroma);
    const int v = load<Sample>(chroma + sizeof(Sample));
    const bool pair = x + 1 < width;
    for (int row = y; row < y + 2 && row < height; ++row) {
        const uint8_t* luma = yuv + static_cast<ptrdiff_t>(row) * yuvPitch + static_cast<ptrdiff_t>(x) * sizeof(Sample);
        Rgb pixels[2];
        pixels[0] = yuvToRgbPixel<Rgb>(m, range, load<Sample>(luma), u, v);
        pixels[1] = pair ? yuvToRgbPixel<Rgb>(m, range, load<Sample>(luma + sizeof(Sample)), u, v)
                         : pixels[0];
        write(x, row, pixels, pair);
    }
}

// The luma code of a pixel whose channels are in the range's bits.
ZOQRV_HOST_DEVICE unsigned lumaCode(const float* m, const CodeRange& range, unsigned r, unsigned g,
                                    unsigned b) {
    const float luma = add(dot(m, 0, static_cast<float>(r), static_cast<float>(g), static_cast<float>(b)),
                           static_cast<float>(range.black));
    return toCode(luma, range.max);
}

// Row 1 (U) or 2 (V) of a block's chroma from the channel sums of its pixels, `share` the
// reciprocal of their count: 1/4, 1/2 or 1, exact in float.
ZOQRV_HOST_DEVICE unsigned chromaCode(const float* m, const CodeRange& range, int row, unsigned sumR,
                                      unsigned sumG, unsigned sumB, float share) {
    const float r = multiply(static_cast<float>(sumR), share);
    const float g = multiply(static_cast<float>(sumG), share);
    const float b = multiply(static_cast<float>(sumB), share);
    return toCode(add(dot(m, row, r, g, b), static_cast<float>(range.mid)), range.max);
}

// Luma per pixel; one chroma pair from the mean R, G, B of the block's pixels in the image.
template <class YuvUnit, class Rgb>
ZOQRV_HOST_DEVICE void rgbToYuvBlock(const float* m, const CodeRange& range, const uint8_t* rgb,
                                     int rgbPitch, uint8_t* yuv, int yuvPitch, int width, int height,
                                     int x, int y) {
    if (x >= width || y >= height) return;
    using Sample = typename YuvFormat<YuvUnit>::Sample;
    const int bits = rangeBits(range);
    constexpr int rgbBits = RgbFormat<Rgb>::bits;
    unsigned sum[3] = {0, 0, 0};
    int count = 0;
    for (int row = y; row < y + 2 && row < height; ++row) {
        for (int column = x; column < x + 2 && column < width; ++column) {
            const Rgb pixel = load<Rgb>(rgb + static_cast<ptrdiff_t>(row) * rgbPitch +
                                        static_cast<ptrdiff_t>(column) * sizeof(Rgb));
            const unsigned r = rescale(pixel.r, rgbBits, bits);
            const unsigned g = rescale(pixel.g, rgbBits, bits);
            const unsigned b = rescale(pixel.b, rgbBits, bits);
            store(yuv + static_cast<ptrdiff_t>(row) * yuvPitch + static_cast<ptrdiff_t>(column) * sizeof(Sample),
                  static_cast<Sample>(lumaCode(m, range, r, g, b)));
            sum[0] += r;
            sum[1] += g;
            sum[2] += b;
            ++count;
        }
    }
    const float share = count == 4 ? 0.25f : count == 2 ? 0.5f : 1.0f;
    uint8_t* chroma = yuv + static_cast<ptrdiff_t>(yuvPitch) * (height + y / 2) +
                      static_cast<ptrdiff_t>(x) * sizeof(Sample);
    store(chroma, static_cast<Sample>(chromaCode(m, range, 1, sum[0], sum[1], sum[2], share)));
    store(chroma + sizeof(Sample), static_cast<Sample>(chromaCode(m, range, 2, sum[0], sum[1], sum[2], share)));
}

}  // namespace colour
