#include "codec/HwDecoder.h"

// NVDEC is not built yet: the decoder never becomes ready and decodes nothing.
HwDecoder::HwDecoder(uint32_t dataFormat_, uint32_t codec_, uint32_t, uint32_t)
    : dataFormat(dataFormat_), codec(codec_) {}

HwDecoder::~HwDecoder() = default;

uint32_t HwDecoder::decode(const uint8_t*, uint64_t, void*) { return 0; }

QrvDecodeStep HwDecoder::decodeStep() {
    return [this](const uint8_t* payload, uint32_t bytes, void* out) {
        return decode(payload, bytes, out) > 0 ? 1 : 0;
    };
}

int HwDecoder::decodeNextRecord(FILE* stream, void* out, uint32_t* frameNumber,
                                uint64_t* captureTime, uint32_t* frameType, uint8_t* sampleInfo,
                                uint32_t w, uint32_t h) {
    return reader.decodeNextRecord(stream, out, frameNumber, captureTime, frameType, sampleInfo, w,
                                   h, decodeStep());
}

bool HwDecoder::seekToSample(FILE* stream, int32_t sample) {
    return reader.seekToSample(stream, sample, width, height, decodeStep());
}
