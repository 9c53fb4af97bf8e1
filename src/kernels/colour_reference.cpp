#include "kernels/colour_reference.h"

#include "kernels/colour_threads.h"

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
