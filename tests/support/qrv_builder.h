// Builds QRV recording files byte by byte for tests, without the library's writer, so that
// files from the writer can be compared with it and readers can be fed damaged files.
//
//   QrvBuilder b;
//   b.addRecord(1, 1000, kKeyFrameType, {0xAA, 0xBB});   // metadata: qrvTestMetadata(0)
//   b.setTrailer(1u << 31);                              // lie about the frame count
//   std::vector<uint8_t> bytes = b.bytes();
//   QrvTestFile file = qrvOpenBytes(bytes);              // a temporary FILE*, at offset 0
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "container/qrv_file.h"

// The 64 metadata words the builder gives record `seed` by default: word i = seed * 64 + i.
std::vector<uint32_t> qrvTestMetadata(uint32_t seed);

// The 264-byte sample info the builder writes for a record.
QrvSampleInfo qrvTestSampleInfo(uint64_t captureTime, const std::vector<uint32_t>& metadata);

class QrvBuilder {
public:
    // Client header bytes written before the first record.
    explicit QrvBuilder(std::vector<uint8_t> header = {});

    // Appends a record laid out as the writer lays it out (sampleTime = captureTime / 1000)
    // and its index entry; returns the record's position in the index.
    size_t addRecord(uint32_t frameNumber, uint64_t captureTime, uint32_t frameType,
                     const std::vector<uint8_t>& payload);
    size_t addRecord(uint32_t frameNumber, uint64_t captureTime, uint32_t frameType,
                     const std::vector<uint8_t>& payload, const std::vector<uint32_t>& metadata);

    // ---- Damage, applied by bytes() ----
    // Trailer value instead of the number of records.
    void setTrailer(uint32_t frameCount) { trailer_ = frameCount; }
    // Offset written in the index entry of `record`.
    void setIndexOffset(size_t record, uint64_t offset);
    // payloadBytes field written in the head of `record` (its payload stays as added).
    void setPayloadBytesField(size_t record, uint32_t value);
    // Leaves out the index and trailer, as a recording that was never closed.
    void omitIndex() { omitIndex_ = true; }

    // The file: header, records, index entries (reserved 0), trailer.
    std::vector<uint8_t> bytes() const;
    // Where record `record` starts in bytes().
    uint64_t recordOffset(size_t record) const { return entries_.at(record).recordOffset; }
    size_t recordCount() const { return entries_.size(); }

private:
    std::vector<uint8_t> data_;  // header and records
    std::vector<QrvIndexEntry> entries_;
    std::vector<QrvIndexEntry> writtenEntries_;
    std::optional<uint32_t> trailer_;
    bool omitIndex_ = false;
};

struct QrvFileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using QrvTestFile = std::unique_ptr<FILE, QrvFileCloser>;

// A temporary file holding `bytes`, positioned at its start.
QrvTestFile qrvOpenBytes(const std::vector<uint8_t>& bytes);
// An empty temporary file for writing.
QrvTestFile qrvOpenEmpty();
// Everything in `file`, from its start; leaves the position at the end.
std::vector<uint8_t> qrvReadAll(FILE* file);
