#include "codec/SoftwareEncoder.h"

#include <ffnvcodec/nvEncodeAPI.h>
#include <x265.h>

#include <cstdio>  // x264.h uses FILE without it
#include <x264.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "codec/Exception.h"
#include "device/device_api.h"
#include "kernels/packing.h"

static_assert(X264_TYPE_AUTO == X265_TYPE_AUTO && X264_TYPE_IDR == X265_TYPE_IDR && X264_TYPE_I == X265_TYPE_I &&
              X264_TYPE_P == X265_TYPE_P);

int SoftwareEncoder::libraryPictureType(Forced forced) {
    return forced == Forced::Idr ? X264_TYPE_IDR : forced == Forced::Intra ? X264_TYPE_I : X264_TYPE_AUTO;
}

uint32_t SoftwareEncoder::nvencPictureType(int libraryType) {
    switch (libraryType) {
    case X264_TYPE_IDR: return NV_ENC_PIC_TYPE_IDR;
    case X264_TYPE_I: return NV_ENC_PIC_TYPE_I;
    case X264_TYPE_P: return NV_ENC_PIC_TYPE_P;
    default: return NV_ENC_PIC_TYPE_B;  // never asked for: B-frames are off
    }
}

int SoftwareEncoder::gopFrames(uint32_t lossless, uint32_t frameRate) {
    return std::max<int>(1, static_cast<int>(gopLength(lossless, frameRate)));
}

bool SoftwareEncoder::kilobitRate(uint64_t bitrate, uint32_t frameRate, uint32_t width, uint32_t height,
                                  KilobitRate& rate) {
    if (frameRate == 0 || bitrate / 1000 == 0) return false;
    const LossyRate lossy = lossyRate(bitrate, frameRate, width, height);
    const uint64_t kilobits = lossy.bitsPerSecond / 1000;
    if (kilobits > INT32_MAX) return false;
    rate = {static_cast<int>(kilobits), std::max<int>(1, static_cast<int>(lossy.vbvBits / 1000))};
    return true;
}

uint32_t SoftwareEncoder::paddedSize(uint32_t size, uint32_t minimumSize) {
    return std::max(minimumSize, size + (size & 1));
}

SoftwareEncoder::SoftwareEncoder(uint32_t dataFormat_, uint32_t width_, uint32_t height_, uint32_t minimumSize)
    : dataFormat(dataFormat_), width(width_), height(height_), nv12Width(packing::pictureWidth(dataFormat_, width_)),
      framePitch(packing::nv12Pitch(nv12Width)), paddedWidth(paddedSize(nv12Width, minimumSize)),
      paddedHeight(paddedSize(height_, minimumSize)) {
    if (packing::packedSize(dataFormat, width, height) == 0 || nv12Width < width) return;
    // Every buffer before the library's objects, which the subclasses make once planeBytes() is
    // not 0: a failed allocation then leaves nothing of the library's behind.
    frame.assign(packing::nv12Bytes(nv12Width, height), 0);
    // The per-frame cap of every encoder, so that every reader takes what any one makes.
    output.resize(packing::maxAccessUnitBytes(nv12Width, height));
    planes.assign(size_t(paddedWidth) * paddedHeight * 3 / 2, 0);
}

uint8_t* SoftwareEncoder::plane(int index) {
    const size_t luma = size_t(paddedWidth) * paddedHeight;
    return planes.data() + (index == 0 ? 0 : index == 1 ? luma : luma * 5 / 4);
}

void SoftwareEncoder::fillPlanes() {
    // The padding of small and odd sizes repeats the last column and row, which costs the
    // fewest bits.
    uint8_t* luma = plane(0);
    for (uint32_t y = 0; y < paddedHeight; ++y) {
        const uint8_t* from = frame.data() + size_t(std::min(y, height - 1)) * framePitch;
        uint8_t* to = luma + size_t(y) * paddedWidth;
        std::memcpy(to, from, nv12Width);
        std::memset(to + nv12Width, from[nv12Width - 1], paddedWidth - nv12Width);
    }
    const uint32_t chromaWidth = paddedWidth / 2, chromaRows = paddedHeight / 2;
    const uint8_t* chroma = frame.data() + size_t(framePitch) * height;
    const uint32_t pairs = (nv12Width + 1) / 2, lastRow = (height - 1) / 2;
    for (uint32_t y = 0; y < chromaRows; ++y) {
        const uint8_t* from = chroma + size_t(std::min(y, lastRow)) * framePitch;
        uint8_t* u = plane(1) + size_t(y) * chromaWidth;
        uint8_t* v = plane(2) + size_t(y) * chromaWidth;
        for (uint32_t x = 0; x < pairs; ++x) {
            u[x] = from[2 * x];
            v[x] = from[2 * x + 1];
        }
        std::memset(u + pairs, u[pairs - 1], chromaWidth - pairs);
        std::memset(v + pairs, v[pairs - 1], chromaWidth - pairs);
    }
}

void SoftwareEncoder::appendUnit(const uint8_t* payload, uint64_t bytes) {
    if (outputBytes + bytes > output.size()) throw Exception("Encode output buffer overflow");
    std::memcpy(output.data() + outputBytes, payload, bytes);
    outputBytes += bytes;
}

uint64_t SoftwareEncoder::encode(const void* data, uint64_t pitch, uint32_t width_, uint32_t height_,
                                 uint32_t* pictureType, bool forceIntra) {
    *pictureType = NV_ENC_PIC_TYPE_UNKNOWN;
    if (!isReady() || width_ != width || height_ != height || !data) return 0;
    const device::Api& device = device::api();
    if (device.isDevicePointer(data)) {
        const uint32_t rowBytes = packing::tightPitch(dataFormat, width);
        hostCopy.resize(size_t(rowBytes) * height);
        device.copy2D(hostCopy.data(), rowBytes, data, pitch, rowBytes, height, device::CopyKind::DeviceToHost);
        data = hostCopy.data();
        pitch = rowBytes;
    }
    packing::packOnHost(dataFormat, data, static_cast<uint32_t>(pitch), frame.data(), framePitch, width, height);
    fillPlanes();
    const Forced forced = keyFrameRequested ? Forced::Idr : forceIntra ? Forced::Intra : Forced::None;
    // The library holds the picture as a reference once it has it: until its bytes are out
    // whole, the next frame is to be an IDR.
    keyFrameRequested = true;
    outputBytes = 0;
    const uint32_t type = codePicture(forced);
    if (outputBytes) {
        *pictureType = type;
        ++encodedFrameCount;
    }
    keyFrameRequested = false;
    return outputBytes;
}
