// Decoding of QRV recordings on the CPU, for machines whose GPU cannot decode: HEVC with
// libde265, H.264 with libavcodec (the codec-specific part is a PictureDecoder).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "codec/PictureDecoder.h"
#include "container/qrv_file.h"

class SwDecoder {
public:
    // codec 0 is H.264; every other value HEVC, the codec this decoder always had.
    SwDecoder(uint32_t width, uint32_t height, uint32_t swReserved, uint32_t codec);
    SwDecoder(const SwDecoder&) = delete;
    SwDecoder& operator=(const SwDecoder&) = delete;

    bool isReady() const { return decoder->isReady(); }

    bool readIndex(FILE* stream);
    // Decodes the record at the stream's position into `out` as packed YUYV
    // (2 * w bytes a row) when convert is set.
    bool decodeNextRecord(FILE* stream, uint8_t* out, uint32_t* frameNumber, uint64_t* captureTime,
                          uint32_t* frameType, uint8_t* sampleInfo, uint32_t w, uint32_t h,
                          bool convert);
    bool lookUpSampleInfo(int32_t sample, uint8_t* sampleInfo) const;
    bool seekToSample(FILE* stream, int32_t sample);

private:
    // Reads the record at the stream's position and decodes it into `picture`; false when the
    // record could not be read or gave no picture.
    bool decodeRecord(DecodedPicture& picture);

    QrvSoftwareIndex tables;
    uint64_t payloadLimit;               // the largest payload taken from a record
    std::vector<uint8_t> payloadBuffer;  // grown to the largest payload read, and its sample info
    QrvSoftwareRecord lastRecord{};  // head, sample time and metadata of the last record read
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t swReserved = 0;
    FILE* stream = nullptr;
    std::unique_ptr<PictureDecoder> decoder;
    // Stream position right after the last record whose picture came out, or -1. A record
    // without a random-access picture decodes only when it starts here: its references are
    // then in the decoder.
    int64_t referenceChainEnd = -1;
};
