// HEVC decoding on the CPU with libde265, for machines whose GPU cannot decode.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "container/qrv_file.h"

struct de265_decoder_context;

class SwDecoder {
public:
    SwDecoder(uint32_t width, uint32_t height, uint32_t swReserved);
    ~SwDecoder();
    SwDecoder(const SwDecoder&) = delete;
    SwDecoder& operator=(const SwDecoder&) = delete;

    bool isReady() const { return ready; }

    bool readIndex(FILE* stream);
    // Decodes the record at the stream's position into `out` as packed YUYV
    // (2 * w bytes a row) when convert is set.
    bool decodeNextRecord(FILE* stream, uint8_t* out, uint32_t* frameNumber, uint64_t* captureTime,
                          uint32_t* frameType, uint8_t* sampleInfo, uint32_t w, uint32_t h,
                          bool convert);
    bool lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const;
    bool seekToSample(FILE* stream, int32_t sample);

private:
    QrvSoftwareIndex tables;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t swReserved = 0;
    bool ready = false;
};
