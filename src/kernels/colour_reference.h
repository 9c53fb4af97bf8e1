// CPU twins of the colour launchers and their kernels: same arguments, same bytes. The matrix
// comes from the same host computation that the device upload uses.
#pragma once

#include <cstdint>

void Nv12ToColor32_reference(const uint8_t* nv12, int nv12Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard);
void Nv12ToColor64_reference(const uint8_t* nv12, int nv12Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard);
void P016ToColor32_reference(const uint8_t* p016, int p016Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard);
void P016ToColor64_reference(const uint8_t* p016, int p016Pitch, uint8_t* bgra, int bgraPitch,
                             int width, int height, int colourStandard);
void Nv12ToColorPlanar_reference(const uint8_t* nv12, int nv12Pitch, uint8_t* bgrp, int bgrpPitch,
                                 int width, int height, int colourStandard);
void P016ToColorPlanar_reference(const uint8_t* p016, int p016Pitch, uint8_t* bgrp, int bgrpPitch,
                                 int width, int height, int colourStandard);
void Bgra64ToP016_reference(const uint8_t* bgra, int bgraPitch, uint8_t* p016, int p016Pitch,
                            int width, int height, int colourStandard);
// BGRA to NV12 with the matrix that Nv12ToColor32 inverts; one chroma pair per 2 × 2 block.
void Bgra32ToNv12_reference(const uint8_t* bgra, int bgraPitch, uint8_t* nv12, int nv12Pitch,
                            int width, int height, int colourStandard);
// The same bytes as Bgra32ToNv12_reference, row pairs in vectorisable loops spread over the
// CPU's threads: the software encoder's conversion.
void Bgra32ToNv12_fast(const uint8_t* bgra, int bgraPitch, uint8_t* nv12, int nv12Pitch, int width, int height,
                       int colourStandard);
