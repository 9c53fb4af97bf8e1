// Encodes one frame of caller data per call with NVENC and keeps the file's index.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "container/qrv_file.h"

class HwEncoder {
public:
    HwEncoder(uint32_t dataFormat, uint32_t codec, uint32_t lossless, uint64_t bitrate,
              uint32_t width, uint32_t height, uint32_t frameRate);
    ~HwEncoder();
    HwEncoder(const HwEncoder&) = delete;
    HwEncoder& operator=(const HwEncoder&) = delete;

    bool isReady() const { return ready; }
    // Bytes placed in outputBuffer(); 0 when nothing came out.
    uint64_t encode(const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                    uint32_t* pictureType, bool forceIntra);
    const uint8_t* outputBuffer() const { return output.data(); }
    uint32_t encodedFrames() const { return encodedFrameCount; }

    void appendIndexEntry(uint64_t filePosition, uint32_t frameType);
    void writeIndex(FILE* stream) const;

private:
    uint32_t dataFormat;
    uint32_t codec;
    uint32_t lossless;
    uint64_t bitrate;
    uint32_t frameRate;
    uint32_t encodedFrameCount = 0;
    bool ready = false;
    std::vector<uint8_t> output;
    std::vector<QrvIndexEntry> index;
};
