// The work of one packing thread at data coordinates (x, y), shared by the CUDA kernels and
// their CPU twins so that both produce the same bytes. docs/packing.md shows the layout.
#pragma once

#include "kernels/host_device.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace packing {

// Copies N bytes; on the GPU with one N-byte access when both addresses allow it, because the
// callers' pitches and pointers need not be aligned.
template <unsigned N>
ZOQRV_HOST_DEVICE void copyBytes(unsigned char* dst, const unsigned char* src) {
#ifdef __CUDA_ARCH__
    using Word = typename std::conditional<N == 4, uint32_t, uint16_t>::type;
    if (((reinterpret_cast<uintptr_t>(dst) | reinterpret_cast<uintptr_t>(src)) & (N - 1)) == 0) {
        *reinterpret_cast<Word*>(dst) = *reinterpret_cast<const Word*>(src);
        return;
    }
    for (unsigned i = 0; i < N; ++i) dst[i] = src[i];
#else
    std::memcpy(dst, src, N);
#endif
}

template <unsigned N>
ZOQRV_HOST_DEVICE void zeroBytes(unsigned char* dst) {
#ifdef __CUDA_ARCH__
    using Word = typename std::conditional<N == 4, uint32_t, uint16_t>::type;
    if ((reinterpret_cast<uintptr_t>(dst) & (N - 1)) == 0) {
        *reinterpret_cast<Word*>(dst) = 0;
        return;
    }
    for (unsigned i = 0; i < N; ++i) dst[i] = 0;
#else
    std::memset(dst, 0, N);
#endif
}

// Start of the chroma plane: right below the `height` rows of luma.
ZOQRV_HOST_DEVICE unsigned char* chromaPlane(unsigned char* nv12, unsigned pitch, unsigned height) {
    return nv12 + static_cast<size_t>(pitch) * height;
}
ZOQRV_HOST_DEVICE const unsigned char* chromaPlane(const unsigned char* nv12, unsigned pitch,
                                                   unsigned height) {
    return nv12 + static_cast<size_t>(pitch) * height;
}

ZOQRV_HOST_DEVICE bool hasChromaRow(unsigned y, unsigned height) { return y < (height + 1) / 2; }

// Samples of N bytes (8, 16, 32 bit) keep their memory byte order in the luma row; the chroma
// bytes below them are zeroed.
template <unsigned N>
ZOQRV_HOST_DEVICE void packSample(const unsigned char* src, unsigned srcPitch, unsigned char* dst,
                                  unsigned dstPitch, unsigned width, unsigned height, unsigned x,
                                  unsigned y) {
    if (x >= width || y >= height) return;
    const size_t column = static_cast<size_t>(x) * N;
    unsigned char* luma = dst + static_cast<size_t>(y) * dstPitch + column;
    if constexpr (N == 1) *luma = src[static_cast<size_t>(y) * srcPitch + column];
    else copyBytes<N>(luma, src + static_cast<size_t>(y) * srcPitch + column);
    if (!hasChromaRow(y, height)) return;
    unsigned char* chroma = chromaPlane(dst, dstPitch, height) + static_cast<size_t>(y) * dstPitch + column;
    if constexpr (N == 1) *chroma = 0;
    else zeroBytes<N>(chroma);
}

template <unsigned N>
ZOQRV_HOST_DEVICE void unpackSample(const unsigned char* src, unsigned srcPitch, unsigned char* dst,
                                    unsigned dstPitch, unsigned width, unsigned height, unsigned x,
                                    unsigned y) {
    if (x >= width || y >= height) return;
    const size_t column = static_cast<size_t>(x) * N;
    const unsigned char* luma = src + static_cast<size_t>(y) * srcPitch + column;
    unsigned char* out = dst + static_cast<size_t>(y) * dstPitch + column;
    if constexpr (N == 1) *out = *luma;
    else copyBytes<N>(out, luma);
}

// 4-bit samples: the left sample of a byte is its low nibble. A row of odd width carries
// width/2 whole bytes, so its last luma byte has no sample and is written as 0.
ZOQRV_HOST_DEVICE void packNibble(const unsigned char* src, unsigned srcPitch, unsigned char* dst,
                                  unsigned dstPitch, unsigned width, unsigned height, unsigned x,
                                  unsigned y) {
    if (x >= width || y >= height) return;
    unsigned char sample = 0;
    if (x < (width & ~1u)) {
        const unsigned char pair = src[static_cast<size_t>(y) * srcPitch + (x >> 1)];
        sample = (x & 1) ? (pair >> 4) : (pair & 0x0F);
    }
    dst[static_cast<size_t>(y) * dstPitch + x] = sample;
    if (hasChromaRow(y, height))
        chromaPlane(dst, dstPitch, height)[static_cast<size_t>(y) * dstPitch + x] = 0;
}

// One decode thread per output byte: xByte joins luma bytes 2·xByte and 2·xByte + 1.
ZOQRV_HOST_DEVICE void unpackNibblePair(const unsigned char* src, unsigned srcPitch,
                                        unsigned char* dst, unsigned dstPitch, unsigned width,
                                        unsigned height, unsigned xByte, unsigned y) {
    if (xByte >= (width >> 1) || y >= height) return;
    const unsigned char* luma = src + static_cast<size_t>(y) * srcPitch + 2 * static_cast<size_t>(xByte);
    dst[static_cast<size_t>(y) * dstPitch + xByte] =
        static_cast<unsigned char>((luma[0] & 0x0F) | ((luma[1] & 0x0F) << 4));
}

// UYVY: byte 2x of a row is U for even x and V for odd x, exactly the layout of an NV12
// chroma row, so chroma byte x of 4:2:0 row y/2 is the rounded mean of UYVY byte 2x of rows y
// and y + 1 (row y alone for the last row of an odd height). Luma byte x is UYVY byte 2x + 1.
ZOQRV_HOST_DEVICE void packUyvy(const unsigned char* src, unsigned srcPitch, unsigned char* dst,
                                unsigned dstPitch, unsigned width, unsigned height, unsigned x,
                                unsigned y) {
    if (x >= width || y >= height) return;
    const unsigned char* row = src + static_cast<size_t>(y) * srcPitch + 2 * static_cast<size_t>(x);
    dst[static_cast<size_t>(y) * dstPitch + x] = row[1];
    if (y & 1) return;
    unsigned chroma = row[0];
    if (y + 1 < height) chroma = (chroma + row[srcPitch] + 1) >> 1;
    chromaPlane(dst, dstPitch, height)[static_cast<size_t>(y >> 1) * dstPitch + x] =
        static_cast<unsigned char>(chroma);
}

// Both rows of a pair take the pair's chroma.
ZOQRV_HOST_DEVICE void unpackUyvy(const unsigned char* src, unsigned srcPitch, unsigned char* dst,
                                  unsigned dstPitch, unsigned width, unsigned height, unsigned x,
                                  unsigned y) {
    if (x >= width || y >= height) return;
    unsigned char* out = dst + static_cast<size_t>(y) * dstPitch + 2 * static_cast<size_t>(x);
    out[0] = chromaPlane(src, srcPitch, height)[static_cast<size_t>(y >> 1) * srcPitch + x];
    out[1] = src[static_cast<size_t>(y) * srcPitch + x];
}

}  // namespace packing
