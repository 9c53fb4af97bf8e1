// Finding the records of a recording that has no index that fits it: a recorder stopped by
// Ctrl-C, a crash or a power cut leaves complete records followed by a torn one, and no index
// or trailer. docs/design.md ("Unclosed recordings") gives the rule in full.
//
// A record is taken when its head is plausible and the whole record lies in the file:
//   frameNumber above the previous record's (the first: exactly 1), frameType a picture-type
//   code (0-7, or 255 unknown), payloadBytes at least 4 with the payload beginning with an
//   Annex-B start code (00 00 01 or 00 00 00 01), and head, payload and the 264-byte sample
//   info within the file.
// The first record follows the recording header (24 bytes in version 1, 32 in version 2) when the
// file starts with its magic word and a plausible record stands there; otherwise it is the first offset holding a
// plausible record with frame number 1 whose successor, if complete, is plausible too. From
// there records are taken back to back until one is torn or not plausible.
#pragma once

#include <cstdint>
#include <vector>

#include "container/qrv_file.h"

class FileBytes;

// The headers that this library's recorders write ahead of the first record
// (docs/recording-header.md): version 1, six u32 words, the first "ZQRH"; version 2, eight, the
// first "ZQR2".
constexpr uint32_t kRecordingHeaderMagic = 0x4852515A;
constexpr uint64_t kRecordingHeaderBytes = 24;
constexpr uint32_t kRecordingHeader2Magic = 0x3252515A;
constexpr uint64_t kRecordingHeader2Bytes = 32;

struct QrvRecordScan {
    std::vector<QrvIndexEntry> index;  // the complete records, in file order (reserved words 0)
    uint32_t lastFrameNumber = 0;
    uint64_t recordsEnd = 0;  // where the last complete record ends
};

// Scans the file for its records: linear in its size, one fixed window of memory besides the
// index. False when no record is found.
bool qrvScanRecords(const FileBytes& file, QrvRecordScan& scan);
