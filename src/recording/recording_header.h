// The file header that this library's recorders leave before the first record (the container
// writes what it is given and never interprets it): little-endian u32 words that describe the
// recording. docs/recording-header.md gives both versions:
//   version 1: "ZQRH", kind, width, height, frame rate, codec (timestamps in microseconds);
//   version 2: "ZQR2", the same five words, nanoseconds per timestamp tick, and flags (bit 0: the
//              index entries carry record checksums).
// Files with any other header, or none, simply have no such description.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "container/qrv_file.h"

struct RecordingHeader {
    uint32_t kind = 0;  // data-format code: 0 bgra, 1 uyvy, 2 u4, 3 u8, 4 u16, 5 u32
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t frameRate = 0;
    uint32_t codec = 0;          // 0 H.264, 1 HEVC
    uint32_t timeUnitNs = 1000;  // nanoseconds per timestamp tick; version 1 headers: microseconds
    bool checksums = true;       // the writer stores each record's checksum in its index entry
    uint32_t version = 2;        // as read; headers are always written in version 2
};

std::vector<uint8_t> encodeRecordingHeader(const RecordingHeader& header);
// True when the file starts with such a header, ahead of its first record.
bool readRecordingHeader(FILE* file, const QrvSoftwareIndex& tables, RecordingHeader& header);

// The kind names of the command line: bgra, uyvy, u4, u8, u16, u32.
bool kindFromName(const std::string& name, uint32_t& kind);
const char* kindName(uint32_t kind);  // "unknown" outside 0–5
