#include "codec/HwEncoder.h"

// The NVENC session is not built yet: the encoder never becomes ready.
HwEncoder::HwEncoder(uint32_t dataFormat_, uint32_t codec_, uint32_t lossless_, uint64_t bitrate_,
                     uint32_t, uint32_t, uint32_t frameRate_)
    : dataFormat(dataFormat_), codec(codec_), lossless(lossless_), bitrate(bitrate_),
      frameRate(frameRate_) {}

HwEncoder::~HwEncoder() = default;

uint64_t HwEncoder::encode(const void*, uint64_t, uint32_t, uint32_t, uint32_t* pictureType, bool) {
    *pictureType = 0;
    return 0;
}

void HwEncoder::appendIndexEntry(uint64_t filePosition, uint32_t frameType) {
    index.push_back(QrvIndexEntry{filePosition, frameType, 0});
}

void HwEncoder::writeIndex(FILE* stream) const { qrvWriteIndex(stream, index, encodedFrameCount); }
