// Colour-space conversion kernels, their matrices in constant memory and the launchers.
#include "kernels/colour.h"
#include "kernels/colour_threads.h"

__constant__ float matYuv2Rgb[3][3];
__constant__ float matRgb2Yuv[3][3];
// Black, mid and max of the standard whose matrix was uploaded last: the conversions take
// their code values from the colour standard, which the matrices alone do not carry.
__constant__ int yuvCodeRange[3];

namespace {

// Copies a constant matrix into registers for the shared per-thread code.
__device__ __forceinline__ void loadMatrix(const float (&source)[3][3], float* m) {
    for (int i = 0; i < 9; ++i) m[i] = source[i / 3][i % 3];
}

__device__ __forceinline__ CodeRange loadRange() {
    return {yuvCodeRange[0], yuvCodeRange[1], yuvCodeRange[2]};
}

void uploadRange(int colourStandard) {
    const CodeRange range = codeRange(colourStandard);
    const int values[3] = {range.black, range.mid, range.max};
    cudaMemcpyToSymbol(yuvCodeRange, values, sizeof values, 0, cudaMemcpyHostToDevice);
}

__device__ __forceinline__ int blockX() { return 2 * static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x); }
__device__ __forceinline__ int blockY() { return 2 * static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y); }

}  // namespace

template <class YuvUnit, class RGB, class RGBIntx2>
__global__ void YuvToRgbKernel(uint8_t* pYuv, int nYuvPitch, uint8_t* pRgb, int nRgbPitch, int nWidth,
                               int nHeight) {
    float m[9];
    loadMatrix(matYuv2Rgb, m);
    colour::yuvToRgbBlock<YuvUnit, RGB>(m, loadRange(), pYuv, nYuvPitch, nWidth, nHeight, blockX(), blockY(),
                                        colour::PackedWriter<RGB, RGBIntx2>{pRgb, nRgbPitch});
}

template <class YuvUnit, class RGB, class RGBUnitx2>
__global__ void YuvToRgbPlanarKernel(uint8_t* pYuv, int nYuvPitch, uint8_t* pRgbp, int nRgbpPitch,
                                     int nWidth, int nHeight) {
    float m[9];
    loadMatrix(matYuv2Rgb, m);
    colour::yuvToRgbBlock<YuvUnit, RGB>(m, loadRange(), pYuv, nYuvPitch, nWidth, nHeight, blockX(), blockY(),
                                        colour::PlanarWriter<RGBUnitx2>{pRgbp, nRgbpPitch, nHeight});
}

template <class YuvUnit, class RGB, class RGBIntx2>
__global__ void RgbToYuvKernel(uint8_t* pRgb, int nRgbPitch, uint8_t* pYuv, int nYuvPitch, int nWidth,
                               int nHeight) {
    float m[9];
    loadMatrix(matRgb2Yuv, m);
    colour::rgbToYuvBlock<YuvUnit, RGB>(m, loadRange(), pRgb, nRgbPitch, pYuv, nYuvPitch, nWidth, nHeight, blockX(),
                                        blockY());
}

void SetMatYuv2Rgb(int colourStandard) {
    const ColourMatrix matrix = yuvToRgbMatrix(colourStandard);
    cudaMemcpyToSymbol(matYuv2Rgb, matrix.m, sizeof matrix.m, 0, cudaMemcpyHostToDevice);
    uploadRange(colourStandard);
}

void SetMatRgb2Yuv(int colourStandard) {
    const ColourMatrix matrix = rgbToYuvMatrix(colourStandard);
    cudaMemcpyToSymbol(matRgb2Yuv, matrix.m, sizeof matrix.m, 0, cudaMemcpyHostToDevice);
    uploadRange(colourStandard);
}

namespace {

using ColourKernel = void (*)(uint8_t*, int, uint8_t*, int, int, int);

// Block (32, 2): each thread converts 2 × 2 pixels, so one block covers 64 × 4.
cudaError_t launch(ColourKernel kernel, uint8_t* src, int srcPitch, uint8_t* dst, int dstPitch,
                   int width, int height) {
    const dim3 block(32, 2, 1);
    const dim3 grid((width + 63) / 64, (height + 3) / 4, 1);
    void* arguments[] = {&src, &srcPitch, &dst, &dstPitch, &width, &height};
    return cudaLaunchKernel(reinterpret_cast<const void*>(kernel), grid, block, arguments, 0, 0);
}

}  // namespace

void Nv12ToColor32(uint8_t* dpNv12, int nNv12Pitch, uint8_t* dpBgra, int nBgraPitch, int nWidth,
                   int nHeight, int colourStandard) {
    SetMatYuv2Rgb(colourStandard);
    launch(YuvToRgbKernel<uchar2, BGRA32, uint2>, dpNv12, nNv12Pitch, dpBgra, nBgraPitch, nWidth, nHeight);
}

cudaError_t Nv12ToColor64(uint8_t* dpNv12, int nNv12Pitch, uint8_t* dpBgra, int nBgraPitch,
                          int nWidth, int nHeight, int colourStandard) {
    SetMatYuv2Rgb(colourStandard);
    return launch(YuvToRgbKernel<uchar2, BGRA64, ulonglong2>, dpNv12, nNv12Pitch, dpBgra, nBgraPitch,
                  nWidth, nHeight);
}

cudaError_t P016ToColor32(uint8_t* dpP016, int nP016Pitch, uint8_t* dpBgra, int nBgraPitch,
                          int nWidth, int nHeight, int colourStandard) {
    SetMatYuv2Rgb(colourStandard);
    return launch(YuvToRgbKernel<ushort2, BGRA32, uint2>, dpP016, nP016Pitch, dpBgra, nBgraPitch,
                  nWidth, nHeight);
}

cudaError_t P016ToColor64(uint8_t* dpP016, int nP016Pitch, uint8_t* dpBgra, int nBgraPitch,
                          int nWidth, int nHeight, int colourStandard) {
    SetMatYuv2Rgb(colourStandard);
    return launch(YuvToRgbKernel<ushort2, BGRA64, ulonglong2>, dpP016, nP016Pitch, dpBgra, nBgraPitch,
                  nWidth, nHeight);
}

cudaError_t Nv12ToColorPlanar(uint8_t* dpNv12, int nNv12Pitch, uint8_t* dpBgrp, int nBgrpPitch,
                              int nWidth, int nHeight, int colourStandard) {
    SetMatYuv2Rgb(colourStandard);
    return launch(YuvToRgbPlanarKernel<uchar2, BGRA32, uchar2>, dpNv12, nNv12Pitch, dpBgrp, nBgrpPitch,
                  nWidth, nHeight);
}

cudaError_t P016ToColorPlanar(uint8_t* dpP016, int nP016Pitch, uint8_t* dpBgrp, int nBgrpPitch,
                              int nWidth, int nHeight, int colourStandard) {
    SetMatYuv2Rgb(colourStandard);
    return launch(YuvToRgbPlanarKernel<ushort2, BGRA32, uchar2>, dpP016, nP016Pitch, dpBgrp, nBgrpPitch,
                  nWidth, nHeight);
}

cudaError_t Bgra64ToP016(uint8_t* dpBgra, int nBgraPitch, uint8_t* dpP016, int nP016Pitch,
                         int nWidth, int nHeight, int colourStandard) {
    SetMatRgb2Yuv(colourStandard);
    return launch(RgbToYuvKernel<ushort2, BGRA64, ulonglong2>, dpBgra, nBgraPitch, dpP016, nP016Pitch,
                  nWidth, nHeight);
}
