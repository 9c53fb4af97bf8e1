// HEVC decoding on the CPU with libde265, for machines whose GPU cannot decode.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include <libde265/de265.h>

#include "container/qrv_file.h"

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
    // Reads the record at the stream's position, decodes it and returns its picture, or
    // null when the record could not be read or gave no picture. The picture is valid only
    // until the next libde265 call.
    const de265_image* decodeRecord();
    // False when a sequence parameter set in the payload cannot be read or declares more
    // pixels than pictureAreaLimit.
    bool declaresPictureWithinLimit(const uint8_t* payload, uint32_t bytes) const;

    QrvSoftwareIndex tables;
    std::vector<uint8_t> payloadBuffer;
    QrvSoftwareRecord lastRecord{};  // head, sample time and metadata of the last record read
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t swReserved = 0;
    uint64_t pictureAreaLimit = 0;  // pixels of the largest picture a record may declare
    bool ready = false;
    FILE* stream = nullptr;
    de265_error lastError = DE265_OK;
    de265_decoder_context* decoder = nullptr;
    int64_t ptsCounter = 0;
    // Stream position right after the last record whose picture came out, or -1. A record
    // without a random-access picture decodes only when it starts here: its references are
    // then in the decoder.
    int64_t referenceChainEnd = -1;
};
