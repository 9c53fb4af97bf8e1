#include "codec/SwDecoder.h"

// Not built yet: a pipe falls back to nothing.
SwDecoder::SwDecoder(uint32_t w, uint32_t h, uint32_t reserved)
    : width(w), height(h), swReserved(reserved) {}
SwDecoder::~SwDecoder() = default;

bool SwDecoder::readIndex(FILE* stream) { return qrvReadSoftwareIndex(stream, tables); }
bool SwDecoder::decodeNextRecord(FILE*, uint8_t*, uint32_t*, uint64_t*, uint32_t*, uint8_t*,
                                 uint32_t, uint32_t, bool) {
    return false;
}
bool SwDecoder::lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const {
    return qrvLookUpSampleInfo(tables.sampleInfos, sample, sampleInfo);
}
bool SwDecoder::seekToSample(FILE*, int32_t) { return false; }
