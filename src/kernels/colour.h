// Colour-space conversion between YUV 4:2:0 (NV12, P016) and BGRA: pixel types, the colour
// matrices and the launchers. docs/packing.md lists the conversion rules.
#pragma once

#include <cuda_runtime.h>

#include <cstdint>

struct BGRA32 {
    uint8_t b, g, r, a;
};

struct BGRA64 {
    uint16_t b, g, r, a;
};

// Luma weights and code-value range of a colour standard: 2 BT.601, 4 BT.2020 (16-bit codes),
// any other value BT.709.
struct ColourConstants {
    float wr, wb;
    int black, white, max;
};
ColourConstants GetConstants(int colourStandard);

// The code values that the conversions work in, taken from the colour standard's table (not
// from the samples' depth): black and max as listed, mid the centre of the range.
struct CodeRange {
    int black, mid, max;
};
CodeRange codeRange(int colourStandard);

// Row-major 3 × 3 matrix as uploaded to the device.
struct ColourMatrix {
    float m[3][3];
};
// (Y − black, U − mid, V − mid) → (R, G, B).
ColourMatrix yuvToRgbMatrix(int colourStandard);
// (R, G, B) → (Y, U, V) before the black and mid offsets.
ColourMatrix rgbToYuvMatrix(int colourStandard);

// Upload the matrix of a colour standard into the device constants matYuv2Rgb / matRgb2Yuv,
// and its code range into yuvCodeRange.
void SetMatYuv2Rgb(int colourStandard);
void SetMatRgb2Yuv(int colourStandard);

// Launchers: device source and destination, pitches in bytes, one thread per 2 × 2 block.
// They upload the matrix for the standard first and return the launch error.
void Nv12ToColor32(uint8_t* dpNv12, int nNv12Pitch, uint8_t* dpBgra, int nBgraPitch, int nWidth,
                   int nHeight, int colourStandard);
cudaError_t Nv12ToColor64(uint8_t* dpNv12, int nNv12Pitch, uint8_t* dpBgra, int nBgraPitch,
                          int nWidth, int nHeight, int colourStandard);
cudaError_t P016ToColor32(uint8_t* dpP016, int nP016Pitch, uint8_t* dpBgra, int nBgraPitch,
                          int nWidth, int nHeight, int colourStandard);
cudaError_t P016ToColor64(uint8_t* dpP016, int nP016Pitch, uint8_t* dpBgra, int nBgraPitch,
                          int nWidth, int nHeight, int colourStandard);
// Planar output: B, G and R planes of nHeight rows each, one after the other, pitch nBgrpPitch.
cudaError_t Nv12ToColorPlanar(uint8_t* dpNv12, int nNv12Pitch, uint8_t* dpBgrp, int nBgrpPitch,
                              int nWidth, int nHeight, int colourStandard);
cudaError_t P016ToColorPlanar(uint8_t* dpP016, int nP016Pitch, uint8_t* dpBgrp, int nBgrpPitch,
                              int nWidth, int nHeight, int colourStandard);
cudaError_t Bgra64ToP016(uint8_t* dpBgra, int nBgraPitch, uint8_t* dpP016, int nP016Pitch,
                         int nWidth, int nHeight, int colourStandard);
