// What the pipe asks of an encoder: one access unit out per frame in, its picture type, and
// the sample index of the file being written. NVENC (HwEncoder) and libx265 (SwEncoder)
// stand behind it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "container/qrv_file.h"

class Encoder {
public:
    virtual ~Encoder() = default;

    virtual bool isReady() const = 0;
    // Bytes placed in outputBuffer(); 0 when nothing came out. Throws Exception. The picture
    // type is NVENC's numbering (IDR 3, I 2, P 0), which the file keeps as the frame type.
    virtual uint64_t encode(const void* data, uint64_t pitch, uint32_t width, uint32_t height,
                            uint32_t* pictureType, bool forceIntra) = 0;
    virtual const uint8_t* outputBuffer() const = 0;

    uint32_t encodedFrames() const { return encodedFrameCount; }
    // Frames from one IDR to the next: a second of frames, half a second when lossless.
    static uint32_t gopLength(uint32_t lossless, uint32_t frameRate) {
        return lossless == 1 ? frameRate >> 1 : frameRate;
    }
    void appendIndexEntry(uint64_t filePosition, uint32_t frameType) {
        index.push_back(QrvIndexEntry{filePosition, frameType, 0});
    }
    void writeIndex(FILE* stream) const { qrvWriteIndex(stream, index, encodedFrameCount); }

protected:
    uint32_t encodedFrameCount = 0;

private:
    std::vector<QrvIndexEntry> index;
};
