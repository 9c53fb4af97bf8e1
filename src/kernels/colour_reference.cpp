#include "kernels/colour_reference.h"

#include "kernels/colour_threads.h"
#include "kernels/host_threads.h"

#include <algorithm>
#include <cstddef>

namespace {

// The thread grid of the colour launchers: blocks of 32 × 2 threads, 2 × 2 pixels per thread.
template <class ThreadWork>
void runGrid(int width, int height, const ThreadWork& work) {
    const int columns = (width + 63) / 64 * 32;
    const int rows = (height + 3) / 4 * 2;
    for (int ty = 0; ty < rows; ++ty)
        for (int tx = 0; tx < columns; ++tx) work(2 * tx, 2 * ty);
}

template <class YuvUnit, class Rgb, class Writer>
void yuvToRgb(const uint8_t* yuv, int yuvPitch, int width, int height, int colourStandard,
              const Writer& writer) {
    const ColourMatrix matrix = yuvToRgbMatrix(colourStandard);
    const CodeRange range = codeRange(colourStandard);
    runGrid(width, height, [&](int x, int y) {
        colour::yuvToRgbBlock<YuvUnit, Rgb>(&matrix.m[0][0], range, yuv, yuvPitch, width, height, x,
                                            y, writer);
    });
}

}  // namespace

void Nv12ToColor32_reference(const uint8_t* nv12, int nv12Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard) {
    yuvToRgb<uchar2, BGRA32>(nv12, nv12Pitch, width, height, colourStandard,
                             colour::PackedWriter<BGRA32, uint2>{bgra, bgraPitch});
}

void Nv12ToColor64_reference(const uint8_t* nv12, int nv12Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard) {
    yuvToRgb<uchar2, BGRA64>(nv12, nv12Pitch, width, height, colourStandard,
                             colour::PackedWriter<BGRA64, ulonglong2>{bgra, bgraPitch});
}

void P016ToColor32_reference(const uint8_t* p016, int p016Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard) {
    yuvToRgb<ushort2, BGRA32>(p016, p016Pitch, width, height, colourStandard,
                              colour::PackedWriter<BGRA32, uint2>{bgra, bgraPitch});
}

void P016ToColor64_reference(const uint8_t* p016, int p016Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard) {
    yuvToRgb<ushort2, BGRA64>(p016, p016Pitch, width, height, colourStandard,
                              colour::PackedWriter<BGRA64, ulonglong2>{bgra, bgraPitch});
}

void Nv12ToColorPlanar_reference(const uint8_t* nv12, int nv12Pitch, uint8_t* bgrp, int bgrpPitch,
                                 int width, int height, int colourStandard) {
    yuvToRgb<uchar2, BGRA32>(nv12, nv12Pitch, width, height, colourStandard,
                             colour::PlanarWriter<uchar2>{bgrp, bgrpPitch, height});
}

void P016ToColorPlanar_reference(const uint8_t* p016, int p016Pitch, uint8_t* bgrp, int bgrpPitch,
                                 int width, int height, int colourStandard) {
    yuvToRgb<ushort2, BGRA32>(p016, p016Pitch, width, height, colourStandard,
                              colour::PlanarWriter<uchar2>{bgrp, bgrpPitch, height});
}

template <class YuvUnit, class Rgb>
void rgbToYuv(const uint8_t* rgb, int rgbPitch, uint8_t* yuv, int yuvPitch, int width, int height,
              int colourStandard) {
    const ColourMatrix matrix = rgbToYuvMatrix(colourStandard);
    const CodeRange range = codeRange(colourStandard);
    runGrid(width, height, [&](int x, int y) {
        colour::rgbToYuvBlock<YuvUnit, Rgb>(&matrix.m[0][0], range, rgb, rgbPitch, yuv, yuvPitch, width,
                                            height, x, y);
    });
}

void Bgra64ToP016_reference(const uint8_t* bgra, int bgraPitch, uint8_t* p016, int p016Pitch,
                            int width, int height, int colourStandard) {
    rgbToYuv<ushort2, BGRA64>(bgra, bgraPitch, p016, p016Pitch, width, height, colourStandard);
}

void Bgra32ToNv12_reference(const uint8_t* bgra, int bgraPitch, uint8_t* nv12, int nv12Pitch,
                            int width, int height, int colourStandard) {
    rgbToYuv<uchar2, BGRA32>(bgra, bgraPitch, nv12, nv12Pitch, width, height, colourStandard);
}

namespace {

// fmaf is a library call where the target lacks FMA: x86-64 CPUs with AVX2 and FMA get a clone
// of the row loops that uses the instructions and vectorises, with the same single roundings.
#if defined(__x86_64__) && !defined(__FMA__)
#define ZOQRV_FMA_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define ZOQRV_FMA_CLONES
#endif

struct Bgra32ToNv12Job {
    const uint8_t* bgra;
    int bgraPitch;
    uint8_t* nv12;
    int nv12Pitch;
    int width, height, colourStandard;
};

// Row pairs [first, end) of the conversion: the whole 2 × 2 blocks of a pair in a loop over luma
// rows and one over chroma, each pixel's work independent of the others'; a last odd column or
// row goes through the block function.
ZOQRV_FMA_CLONES void bgra32ToNv12RowPairs(const Bgra32ToNv12Job job, int first, int end) {
    // The job, matrix and range by value: stores through the byte pointers cannot alias locals,
    // so the loops vectorise.
    const ColourMatrix matrix = rgbToYuvMatrix(job.colourStandard);
    const CodeRange range = codeRange(job.colourStandard);
    const float* m = &matrix.m[0][0];
    const int bits = colour::rangeBits(range);
    const int evenWidth = job.width & ~1;
    const auto channel = [bits](const uint8_t* pixel, size_t offset) {
        return colour::rescale(pixel[offset], 8, bits);
    };
    constexpr size_t r = offsetof(BGRA32, r), g = offsetof(BGRA32, g), b = offsetof(BGRA32, b);
    for (int pair = first; pair < end; ++pair) {
        const int y = 2 * pair;
        const uint8_t* top = job.bgra + static_cast<ptrdiff_t>(y) * job.bgraPitch;
        if (y + 1 < job.height) {
            for (int row = 0; row < 2; ++row) {
                const uint8_t* in = top + static_cast<ptrdiff_t>(row) * job.bgraPitch;
                uint8_t* out = job.nv12 + static_cast<ptrdiff_t>(y + row) * job.nv12Pitch;
                for (int x = 0; x < evenWidth; ++x) {
                    const uint8_t* pixel = in + 4 * x;
                    out[x] = static_cast<uint8_t>(
                        colour::lumaCode(m, range, channel(pixel, r), channel(pixel, g), channel(pixel, b)));
                }
            }
            uint8_t* chroma = job.nv12 + static_cast<ptrdiff_t>(job.nv12Pitch) * (job.height + pair);
            for (int x = 0; x < evenWidth / 2; ++x) {
                const uint8_t* upper = top + 8 * x;
                const uint8_t* lower = upper + job.bgraPitch;
                const auto sum = [&](size_t offset) {
                    return channel(upper, offset) + channel(upper + 4, offset) + channel(lower, offset) +
                           channel(lower + 4, offset);
                };
                const unsigned sumR = sum(r), sumG = sum(g), sumB = sum(b);
                chroma[2 * x] = static_cast<uint8_t>(colour::chromaCode(m, range, 1, sumR, sumG, sumB, 0.25f));
                chroma[2 * x + 1] = static_cast<uint8_t>(colour::chromaCode(m, range, 2, sumR, sumG, sumB, 0.25f));
            }
        }
        for (int x = y + 1 < job.height ? evenWidth : 0; x < job.width; x += 2)
            colour::rgbToYuvBlock<uchar2, BGRA32>(m, range, job.bgra, job.bgraPitch, job.nv12, job.nv12Pitch,
                                                  job.width, job.height, x, y);
    }
}

#undef ZOQRV_FMA_CLONES

}  // namespace

void Bgra32ToNv12_fast(const uint8_t* bgra, int bgraPitch, uint8_t* nv12, int nv12Pitch, int width, int height,
                       int colourStandard) {
    const Bgra32ToNv12Job job{bgra, bgraPitch, nv12, nv12Pitch, width, height, colourStandard};
    // A thread for every 2^18 pixels at least, so that starting it stays small beside its work.
    const size_t pairs = (static_cast<size_t>(std::max(height, 0)) + 1) / 2;
    splitOverThreads(pairs, (1 << 17) / std::max(width, 1), [&job](size_t first, size_t end) {
        bgra32ToNv12RowPairs(job, static_cast<int>(first), static_cast<int>(end));
    });
}
