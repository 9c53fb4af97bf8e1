// The file header that zoqrv record leaves before the first record (the library writes what
// the host gives it and never reads it back): six little-endian u32 words, the magic word
// "ZQRH", then the data kind, width, height, frame rate and codec. docs/recording-header.md
// describes it. Files with any other header, or none, simply have no such description.
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
    uint32_t codec = 0;  // 0 H.264, 1 HEVC
};

std::vector<uint8_t> encodeRecordingHeader(const RecordingHeader& header);
// True when the file starts with such a header, ahead of its first record.
bool readRecordingHeader(FILE* file, const QrvSoftwareIndex& tables, RecordingHeader& header);

// The kind names of the command line: bgra, uyvy, u4, u8, u16, u32.
bool kindFromName(const std::string& name, uint32_t& kind);
const char* kindName(uint32_t kind);  // "unknown" outside 0–5
